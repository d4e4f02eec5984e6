// Reads version files: bytes become characters, characters a state of the one line that counts. What the numbers mean
// for an extension is decided in extension_rules.cpp.

#include "vex/apps/vex/version_file.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

#include <wx/stream.h>

namespace {
// Takes a version file apart as it comes in, so that neither the length of the file nor that of a line matters. Finds
// the first line that begins with "version:" and reads four numbers behind it as the scan format "%d.%d.%d-%d" would.
class VersionLine
{
public:
    // Takes one character. False when the answer is known.
    bool Feed(char32_t c);
    // The answer; at the end of the file at the latest.
    FileVersion Finish();

private:
    bool FeedNumber(char32_t c);
    bool EndNumber(char32_t c);

    enum class State { Prefix, OtherLine, Blanks, Digits, Done };
    State m_state = State::Prefix;
    std::size_t m_matched = 0; // characters of the prefix
    int m_field = 0;
    bool m_signed = false; // a sign was read
    bool m_negative = false;
    bool m_hasDigits = false;
    std::int64_t m_value = 0; // without its sign; stays put once it is too large for a field
    FileVersion m_result;
};

bool VersionLine::Feed(char32_t c)
{
    static const char prefix[] = "version:";
    const bool lineEnd = c == '\n' || c == '\r';
    switch (m_state) {
    case State::Prefix:
        if (lineEnd) {
            m_matched = 0;
        } else if (c != static_cast<unsigned char>(prefix[m_matched])) {
            m_state = State::OtherLine;
        } else if (prefix[++m_matched] == '\0') {
            m_state = State::Blanks;
            m_result.line = FileVersion::LineKind::Malformed; // until the fourth number has been read
        }
        return true;
    case State::OtherLine:
        if (lineEnd) {
            m_state = State::Prefix;
            m_matched = 0;
        }
        return true;
    case State::Blanks:
        if (!m_signed && (c == ' ' || c == '\t' || c == '\v' || c == '\f'))
            return true;
        if (!m_signed && (c == '-' || c == '+')) {
            m_signed = true;
            m_negative = c == '-';
            return true;
        }
        m_state = State::Digits;
        return FeedNumber(c);
    case State::Digits:
        return FeedNumber(c);
    case State::Done:
        break;
    }
    return false;
}

bool VersionLine::FeedNumber(char32_t c)
{
    constexpr std::int64_t enough = static_cast<std::int64_t>(1) << 40;
    if (c >= '0' && c <= '9') {
        m_hasDigits = true;
        if (m_value < enough)
            m_value = m_value * 10 + static_cast<std::int64_t>(c - '0');
        return true;
    }
    return EndNumber(c);
}

// The number ends before `c`, which must be what stands between the numbers.
bool VersionLine::EndNumber(char32_t c)
{
    static const char separators[] = "..-";
    const std::int64_t value = m_negative ? -m_value : m_value;
    m_state = State::Done;
    // A number that an int cannot hold is no version; the framework's scan would wrap it around.
    if (!m_hasDigits || value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max())
        return false;
    m_result.numbers[m_field] = static_cast<int>(value);
    if (m_field == 3) {
        m_result.line = FileVersion::LineKind::WellFormed; // whatever follows
        return false;
    }
    if (c != static_cast<unsigned char>(separators[m_field]))
        return false;
    ++m_field;
    m_signed = m_negative = m_hasDigits = false;
    m_value = 0;
    m_state = State::Blanks;
    return true;
}

FileVersion VersionLine::Finish()
{
    if (m_state == State::Digits)
        EndNumber('\n');
    return m_result;
}

// Turns bytes into characters as far as a version line needs it: the width of a character and the order of its bytes
// come from the mark at the start. Without a mark every byte stands for itself, which is right for all that is ASCII.
class Characters
{
public:
    // The first bytes of a file, as many as there are up to four. Answers how many of them are the mark.
    std::size_t SetMark(const unsigned char* bytes, std::size_t count);
    // Takes one byte; true when it completes a character.
    bool Feed(unsigned char byte, char32_t& character);

private:
    unsigned m_width = 1; // bytes of a character
    bool m_bigEndian = false;
    unsigned m_count = 0; // bytes of the character that were read
    char32_t m_character = 0;
};

std::size_t Characters::SetMark(const unsigned char* bytes, std::size_t count)
{
    struct Mark
    {
        std::size_t size;
        unsigned char bytes[4];
        unsigned width;
        bool bigEndian;
    };
    // The mark of 16 bits little-endian begins that of 32 bits: the longer ones stand first.
    static const Mark marks[] = {
        {4, {0xFF, 0xFE, 0, 0}, 4, false}, {4, {0, 0, 0xFE, 0xFF}, 4, true}, {3, {0xEF, 0xBB, 0xBF, 0}, 1, false},
        {2, {0xFF, 0xFE, 0, 0}, 2, false}, {2, {0xFE, 0xFF, 0, 0}, 2, true},
    };
    for (const Mark& mark : marks) {
        if (count >= mark.size && std::equal(mark.bytes, mark.bytes + mark.size, bytes)) {
            m_width = mark.width;
            m_bigEndian = mark.bigEndian;
            return mark.size;
        }
    }
    return 0;
}

bool Characters::Feed(unsigned char byte, char32_t& character)
{
    m_character = m_bigEndian ? m_character << 8 | byte : m_character | static_cast<char32_t>(byte) << (8 * m_count);
    if (++m_count < m_width)
        return false;
    character = m_character;
    m_character = 0;
    m_count = 0;
    return true;
}

} // namespace

FileVersion ReadVersionFile(const VersionFileSource& source)
{
    // What lies behind is not looked at: no version file is that long, and a file with holes can pretend any length.
    constexpr std::size_t maxBytes = static_cast<std::size_t>(256) << 20;
    // On the stack, and only as much of it is touched as is read: of thousands of version files each is a line or two.
    constexpr std::size_t blockBytes = 16 << 10;
    constexpr std::size_t longestMark = 4;
    std::array<unsigned char, blockBytes> block;
    Characters characters;
    VersionLine line;
    for (std::size_t total = 0; total < maxBytes;) {
        std::size_t count = source(block.data(), std::min(block.size(), maxBytes - total));
        if (count == 0)
            break;
        // A mark comes whole, however small the pieces are.
        while (total == 0 && count < longestMark) {
            const std::size_t more = source(&block[count], longestMark - count);
            if (more == 0)
                break;
            count += more;
        }
        std::size_t i = total == 0 ? characters.SetMark(block.data(), count) : 0;
        char32_t character = 0;
        for (; i < count; ++i)
            if (characters.Feed(block[i], character) && !line.Feed(character))
                return line.Finish();
        total += count;
    }
    return line.Finish();
}

FileVersion ReadVersionFile(wxInputStream& stream)
{
    bool hasEnded = false; // a stream that failed is not asked again: it would say so again
    return ReadVersionFile([&](void* data, std::size_t size) {
        const std::size_t count = hasEnded ? 0 : stream.Read(data, size).LastRead();
        hasEnded = count < size;
        return count;
    });
}
