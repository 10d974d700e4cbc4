#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vexo {

class TemporaryFolder;

/// Files that take their places one after the other, and all that happened can be taken back. To be used while an
/// Uninterrupted lives.
class Changes {
public:
    /// @param unfinished  keeps what was replaced; must outlive this
    explicit Changes(TemporaryFolder& unfinished);
    /// Takes everything back unless keep() was called.
    ~Changes();
    Changes(const Changes&) = delete;
    Changes& operator=(const Changes&) = delete;

    /// Writes a file, whole or not at all. Throws Failure.
    void write(const std::string& place, const std::string& bytes);
    /// Gives a file of the temporary folder its place. Throws Failure.
    void put(const std::string& file, const std::string& place);
    void remove(const std::string& place);
    void keep();

private:
    std::string _next() const;

    TemporaryFolder& _unfinished;
    std::vector<std::pair<std::string, std::string>> _done; ///< place, second name of what stood there
};

} // namespace vexo
