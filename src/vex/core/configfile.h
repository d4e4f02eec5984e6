#pragma once
// Bounds of a configuration file. The launcher and the core library read the same file, each for what concerns it, and
// one that is too large for the one is not read by the other either.

#include <cstddef>

namespace VexCore {

/// The framework holds a configuration file in memory twenty times over, and the time it takes grows with the square of
/// the number of lines. Within these bounds that is a second or so; beyond them a start would seem to hang.
constexpr std::size_t maxConfigFileBytes = static_cast<std::size_t>(4) << 20;
constexpr std::size_t maxConfigFileLines = 100000;

/// Counts line ends of any kind in bytes that come piece by piece, in characters of one, two or four bytes.
class CConfigFileLines
{
public:
    void Add(const char* bytes, std::size_t size)
    {
        for (std::size_t i = 0; i < size; ++i) {
            m_count += bytes[i] == '\r' || (bytes[i] == '\n' && m_previous != '\r');
            if (bytes[i] != '\0') // characters of two or four bytes have them between a "\r" and its "\n"
                m_previous = bytes[i];
        }
    }
    std::size_t Count() const { return m_count; }

private:
    std::size_t m_count = 0;
    char m_previous = '\0';
};

} // namespace VexCore
