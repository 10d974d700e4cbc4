#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
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

} // namespace program
