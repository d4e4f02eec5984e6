#pragma once
// The system calls with which small files are read and written, as a table that tests replace to let the n-th
// call fail. The defaults go on when a signal interrupts them.

#include <cstddef>

#include <sys/stat.h>
#include <sys/types.h>

namespace VexCore::os {

/// Each entry answers as the system call of its name does, errno included.
struct FileCalls
{
    int (*open)(const char* path, int flags, mode_t mode);
    int (*close)(int descriptor);
    ssize_t (*read)(int descriptor, void* buffer, std::size_t size);
    ssize_t (*write)(int descriptor, const void* buffer, std::size_t size);
    int (*fsync)(int descriptor);
    int (*fchmod)(int descriptor, mode_t mode);
    int (*ftruncate)(int descriptor, off_t size);
    int (*fstat)(int descriptor, struct stat* status);
    int (*stat)(const char* path, struct stat* status);
    int (*rename)(const char* from, const char* to);
    int (*unlink)(const char* path);
};

/// Replaced by tests only, while no other thread uses files.
extern FileCalls fileCalls;
extern const FileCalls systemFileCalls;

/// Owns a descriptor. `Close` tells whether the system could keep what was written.
class Descriptor
{
public:
    Descriptor() = default;
    explicit Descriptor(int value) : m_value(value) {}
    Descriptor(Descriptor&& other) noexcept : m_value(other.Release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        if (this != &other) {
            Close();
            m_value = other.Release();
        }
        return *this;
    }
    ~Descriptor() { Close(); }

    explicit operator bool() const { return m_value >= 0; }
    int Get() const { return m_value; }
    int Release()
    {
        const int value = m_value;
        m_value = -1;
        return value;
    }
    bool Close()
    {
        const int value = Release();
        return value < 0 || fileCalls.close(value) == 0;
    }

private:
    int m_value = -1;
};

/// Writes all of it or answers false with errno.
bool WriteAll(int descriptor, const void* data, std::size_t size);

} // namespace VexCore::os
