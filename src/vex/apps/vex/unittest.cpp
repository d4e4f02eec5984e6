// Unit-test mode: the test runner module runs in place of the application's main function. Script thread.

#include "vex/apps/vex/narrowtext.h"
#include "vex/apps/vex/os/signals.h"
#include "vex/apps/vex/standardoutput.h"
#include "vex/apps/vex/vex_p.h"

#include "vex/core/luainterpreter.h"

#include <wx/sstream.h>

namespace {
// The alarm's signal only interrupts a blocking call; it ends nothing.
constexpr unsigned timeLimitSeconds = 600;
} // namespace

int CAgentApp::RunUnitTests()
{
    if (m_unitTestScript.empty())
        return 0;
    StandardOutput out;
    // Not cancelled afterwards, on purpose.
    VexOs::SetAlarm(timeLimitSeconds);
    // The name or pattern goes in as it is, on purpose: quotes and backslashes in it change the Lua text.
    wxString chunk("vexunit = require('tests.vexunit'); return vexunit(\"");
    chunk += m_unitTestScript;
    chunk += wxString("\");", wxConvLibc);
    wxStringInputStream in(chunk);
    const int status = RunChunk(in, out.Stream(), "tests.vexunit");
    out.Stream().Sync();
    if (status != 0)
        WriteErrorLine(m_lua->GetErrorInfo());
    return status;
}
