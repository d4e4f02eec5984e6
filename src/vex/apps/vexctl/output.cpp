#include "vex/apps/vexctl/output.h"

#include "vex/apps/vexctl/os/surroundings.h"

#include "vex_core/os/error.h"
#include "vex_core/os/files.h"

#include <cerrno>
#include <cstdlib>

namespace Vexctl {

namespace {
constexpr std::size_t enoughBytes = 64 * 1024;

bool IsSet(const char* variable)
{
    const char* const value = std::getenv(variable);
    return value && *value;
}

} // namespace

Output::Output(int descriptor)
    : m_descriptor(descriptor), m_isTerminal(VexCore::os::IsTerminal(descriptor)),
      m_width(m_isTerminal ? os::TerminalColumns(descriptor) : 0), m_colours(m_isTerminal && !IsSet("NO_COLOR"))
{}

void Output::Write(std::string_view text)
{
    m_waiting.append(text);
    if (m_begun && m_waiting.size() < enoughBytes)
        return;
    m_begun = m_begun || !m_waiting.empty();
    Flush();
}

void Output::Flush()
{
    const bool written = VexCore::os::WriteAll(m_descriptor, m_waiting.data(), m_waiting.size());
    const int error = written ? 0 : VexCore::os::LastError();
    m_waiting.clear();
    if (error == EPIPE)
        throw ReaderGone();
    if (error != 0)
        throw OutputFailed("the output cannot be written: " + VexCore::os::ErrorText(error));
}

void Output::FlushAsFarAsPossible()
{
    VexCore::os::WriteBestEffort(m_descriptor, m_waiting.data(), m_waiting.size());
    m_waiting.clear();
}

std::string Output::Painted(Colour colour, std::string_view text) const
{
    static constexpr const char* codes[] = {"", "\x1b[32m", "\x1b[33m", "\x1b[31m", "\x1b[2m"};
    if (!m_colours || colour == Colour::None)
        return std::string(text);
    return std::string(codes[static_cast<int>(colour)]).append(text).append("\x1b[0m");
}

} // namespace Vexctl
