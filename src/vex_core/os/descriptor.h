#pragma once
// Who owns a descriptor, and how it is given back.

#include <utility>

namespace VexCore::os {

/// Gives a descriptor back, -1 too; keeps the last error.
void Close(int descriptor);
/// The same for a file that was written, where some file systems report a failed write as late as
/// here. -1 with the error.
int CloseWritten(int descriptor);

/// Owns a descriptor, or none.
class Descriptor
{
public:
    Descriptor() = default;
    /// Takes what a call answered; -1 is none.
    explicit Descriptor(int value) : m_value(value) {}
    Descriptor(Descriptor&& other) noexcept : m_value(other.Release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        if (this != &other) {
            Reset();
            m_value = other.Release();
        }
        return *this;
    }
    ~Descriptor() { Reset(); }

    explicit operator bool() const { return m_value >= 0; }
    int Get() const { return m_value; }
    int Release() { return std::exchange(m_value, -1); }
    void Reset()
    {
        if (m_value >= 0)
            os::Close(Release());
    }
    /// Whether the system could keep what was written; there is no descriptor afterwards. False with the error.
    bool Close() { return m_value < 0 || CloseWritten(Release()) == 0; }

private:
    int m_value = -1;
};

/// Makes the number of `place` lead where `opened` leads, close-on-exec: who knows the number need not be told of
/// another file. False with the error; then `place` is as it was.
bool ReplaceDescriptor(Descriptor& place, Descriptor opened);

} // namespace VexCore::os
