#pragma once

#include <string>
#include <vector>

namespace vexo {

/// A folder for unfinished files. It goes, with all that is in it, when its owner goes, or when a program that ends by
/// a signal calls abandon_unfinished().
class TemporaryFolder {
public:
    /// One of its own, under the system's folder for such. Throws Failure.
    TemporaryFolder();
    /// `.vexo-tmp` in `folder`, which is made with its parents when it is missing; those go, too, unless keep() is
    /// called. Waits for another process that uses it, and takes over what a killed one left. Throws Failure.
    explicit TemporaryFolder(const std::string& folder);
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// The folders that were made for it stay. To be called while an Uninterrupted lives.
    void keep();
    /// A folder that has to be made in `folder`, with its parents; it goes with this one unless keep() is called. To
    /// be called while an Uninterrupted lives.
    void make(const std::string& folder);
    std::string operator/(const std::string& name) const { return _path + "/" + name; }

private:
    friend void abandon_unfinished();
    void _remove_made();

    std::string _path;
    std::vector<std::string> _made; ///< folders that go when they are empty, the deepest last
    int _lock = -1;
};

/// While it lives abandon_unfinished() waits: for steps that must be done together, and quickly.
class Uninterrupted {
public:
    Uninterrupted();
    ~Uninterrupted();
    Uninterrupted(const Uninterrupted&) = delete;
    Uninterrupted& operator=(const Uninterrupted&) = delete;
};

/// Removes all unfinished files of the process, now and for good: for a program that is about to end by a signal. Work
/// that wants to give its files their names afterwards waits for ever, so the caller must end the process.
void abandon_unfinished();

} // namespace vexo
