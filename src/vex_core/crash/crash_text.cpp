// The text of crash reports, put together without the C library, because it runs in a signal handler of a process that
// may be broken. What does not fit is left out.

#include "vex_core/crash/crash_system.h"

namespace VexCore {

CrashText& CrashText::operator<<(char character)
{
    if (m_size + 1 < sizeof m_text)
        m_text[m_size++] = character;
    m_text[m_size] = '\0';
    return *this;
}

CrashText& CrashText::operator<<(const char* text)
{
    for (; *text != '\0'; ++text)
        *this << *text;
    return *this;
}

CrashText& CrashText::Decimal(long long value, int width)
{
    char digits[24];
    int count = 0;
    unsigned long long rest =
        value < 0 ? 0 - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
    do {
        digits[count++] = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    while (count < width && count < 24)
        digits[count++] = '0';
    if (value < 0)
        *this << '-';
    while (count > 0)
        *this << digits[--count];
    return *this;
}

CrashText& CrashText::Hex(std::uint64_t value)
{
    *this << "0x";
    int shift = 60;
    while (shift > 0 && (value >> shift) == 0)
        shift -= 4;
    for (; shift >= 0; shift -= 4)
        *this << "0123456789abcdef"[value >> shift & 15];
    return *this;
}

} // namespace VexCore
