#include "vex/apps/vexctl/progress.h"

#include "vex/apps/vexctl/shown_text.h"

#include "vex_core/base/steady_ms.h"

#include <exception>

namespace Vexctl {

namespace {
constexpr std::int64_t betweenTextsMs = 100;
} // namespace

Progress::~Progress()
{
    try {
        Clear();
    } catch (const std::exception&) { // there is no terminal any more
    }
}

void Progress::Show(const std::string& text)
{
    if (!m_err.IsTerminal())
        return;
    m_shownAtMs = VexCore::SteadyMs();
    m_isShown = true;
    m_err.Write("\r\x1b[K" + CutToColumns(Shown(text) + " ...", m_err.Width()));
    m_err.Flush();
}

bool Progress::IsDue() const
{
    return m_err.IsTerminal() && VexCore::SteadyMs() - m_shownAtMs >= betweenTextsMs;
}

void Progress::Clear()
{
    if (!m_isShown)
        return;
    m_isShown = false;
    m_err.Write("\r\x1b[K");
    m_err.Flush();
}

} // namespace Vexctl
