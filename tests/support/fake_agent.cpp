// The launcher on the fake core as a program of its own: what reaches the framework's outermost handler cannot be
// tested inside a test binary, which has a framework of its own. Steered by the environment:
//   VEX_FAKE_THROW   a prefix of a journal line: when the launcher makes that call, std::runtime_error "boom" leaves it
//   VEX_FAKE_TRACE   when set, the launcher's trace module is on
// On its way out it prints the journal on standard output.

#include "support/fake_core.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <wx/app.h>
#include <wx/event.h>
#include <wx/evtloop.h>

namespace {
// Throws from the main loop, once it runs.
class ThrowingFilter : public wxEventFilter
{
public:
    int FilterEvent(wxEvent& event) override
    {
        if (event.GetEventType() == wxEVT_IDLE)
            throw std::runtime_error("boom");
        return Event_Skip;
    }
};

void PrintJournal()
{
    for (const std::string& line : FakeCore::Journal())
        std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

const bool prepared = [] {
    if (std::getenv("VEX_FAKE_TRACE"))
        FakeCore::Answers().tracedModules = {"Appl"};
    if (const char* const call = std::getenv("VEX_FAKE_THROW"))
        FakeCore::Answers().onRecord = [call = std::string(call)](const std::string& line) {
            static bool s_thrown = false;
            if (line.compare(0, call.size(), call) != 0 || s_thrown)
                return;
            s_thrown = true;
            if (call == "Runnable.start") {
                wxEvtHandler::AddFilter(new ThrowingFilter); // the process ends with it
                return;
            }
            throw std::runtime_error("boom");
        };
    std::atexit(PrintJournal);
    return true;
}();

} // namespace
