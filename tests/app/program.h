#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include <sys/wait.h>

/// Running the host program as a shell does.
namespace program {

/// A folder of its own, removed at the end.
class Folder {
public:
    Folder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "vexo-app-XXXXXX").string();
        if (const char* made = ::mkdtemp(pattern.data())) _path = made;
    }
    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string operator/(const std::string& name) const { return (_path / name).string(); }

private:
    std::filesystem::path _path;
};

inline std::string read(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return { std::istreambuf_iterator<char>(file), {} };
}

inline void write(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

struct Outcome {
    int code = -1; ///< exit code; -1: it did not end by itself
    std::string out, err;

    /// One line on the standard error stream, as every failure has.
    bool one_line_of_error() const { return err.rfind("vexo: ", 0) == 0 && err.find('\n') == err.size() - 1; }
};

/// `vexo` with these arguments, in shell syntax.
inline Outcome run(const Folder& folder, const std::string& arguments)
{
    const std::string out = folder / "stdout", err = folder / "stderr";
    const std::string command = std::string(VEXO_PROGRAM) + " " + arguments + " 2> " + err;
    const bool redirected = arguments.find('>') != std::string::npos;
    const int status = std::system((redirected ? command : command + " > " + out).c_str());
    return { WIFEXITED(status) ? WEXITSTATUS(status) : -1, redirected ? "" : read(out), read(err) };
}

/// A failure as it should be: one line that says why, an exit code that says of what kind it is (options that cannot
/// be understood have 2, all others the code that app.ExitCodes asks for), and nothing where the result would be.
inline void expect_refused(
    const Folder& folder, const std::string& arguments, const std::string& why, const std::string& result = "")
{
    const Outcome refused = run(folder, arguments);
    const bool bad_options = refused.err.find("; see vexo ") != std::string::npos;
    EXPECT_TRUE(refused.code == 2 || (!bad_options && (refused.code == 1 || refused.code == 3)))
        << arguments << ": " << refused.code;
    EXPECT_TRUE(refused.one_line_of_error()) << arguments << ": " << refused.err;
    EXPECT_NE(refused.err.find(why), std::string::npos) << arguments << ": " << refused.err;
    EXPECT_FALSE(std::filesystem::exists(result)) << arguments;
}

/// Tests that share a folder.
class Suite : public testing::Test {
protected:
    static void SetUpTestSuite() { work = std::make_unique<Folder>(); }
    static void TearDownTestSuite() { work.reset(); }

    static std::string at(const std::string& name) { return *work / name; }
    static Outcome run(const std::string& arguments) { return program::run(*work, arguments); }

    /// What a command that must succeed tells.
    static nlohmann::json told(const std::string& command, const std::string& arguments)
    {
        const Outcome outcome = run(command + " --json " + arguments);
        EXPECT_EQ(outcome.code, 0) << command << ' ' << arguments << ": " << outcome.err;
        return nlohmann::json::parse(outcome.out, nullptr, false);
    }

    /// A copy of a folder that a test may spoil.
    static std::string copy(const std::string& from, const std::string& to)
    {
        std::filesystem::remove_all(at(to));
        std::filesystem::copy(at(from), at(to), std::filesystem::copy_options::recursive);
        return at(to);
    }

    inline static std::unique_ptr<Folder> work;
};

/// Frame k of a camera of a capture.
inline std::string frame_of(const std::string& capture, int camera, int k)
{
    return capture + "/cam" + std::to_string(camera) + (k < 10 ? "/frame0" : "/frame") + std::to_string(k) + ".png";
}

} // namespace program
