#pragma once
// Reads a file from its begin, if it is a regular one. Any thread.

#include <cstddef>

namespace VexOs {

/// A regular file, or one that links lead to, open as long as the object lives. Whatever else has the name when it is
/// looked at is not opened, as a pipe or a device may notice that.
class RegularFile
{
public:
    /// `path` in the system's bytes.
    explicit RegularFile(const char* path);
    ~RegularFile();
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;

    /// Whether there was one.
    bool Exists() const { return m_exists; }
    /// Whether it could be opened, and each read has succeeded.
    bool IsGood() const { return m_isGood; }
    /// The next bytes, as many as the system gives at once. 0: the file has ended, or is not good.
    std::size_t Read(void* data, std::size_t size);

private:
    bool m_exists = false;
    bool m_isGood = false;
    int m_descriptor = -1;
};

} // namespace VexOs
