#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <unistd.h>

/// A folder that goes with its owner, who may have made it the working directory; only the process that made it
/// removes it.
class Folder {
public:
    Folder()
    {
        char name[] = "/tmp/vexo_test_XXXXXX";
        if (mkdtemp(name) == nullptr) std::abort();
        _path = name;
    }
    ~Folder()
    {
        if (getpid() != _owner) return;
        std::error_code ignored;
        std::filesystem::current_path(_start, ignored);
        std::filesystem::remove_all(_path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string operator/(const std::string& file) const { return _path + "/" + file; }

private:
    std::string _path;
    std::filesystem::path _start = std::filesystem::current_path();
    pid_t _owner = getpid();
};

inline std::string content(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return { std::istreambuf_iterator<char>(file), {} };
}

inline void put(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}
