// The local configuration file: any bytes let the start go on to its end, with every setting written that always is,
// and the file is only read.

#include "support/agent_app.h"
#include "support/fake_core.h"
#include "support/temp_folder.h"

#include "vex/core/log.h"

#include <cstdint>
#include <cstdlib>

#include <wx/init.h>

namespace {
void Start(const Test::TempFolder& folder)
{
    FakeCore::Reset();
    AgentApp app({folder / "vx_agent", "-w", folder.Path()});
    using EType = VexCore::CDom::EType;
    if (!app->OnInit() || app.Dom().TypeOf("app.trace+") != EType::Text
        || app.Dom().TypeOf("app.fulldump") != EType::Bool || FakeCore::Count("InitializeSQLite(dom)") != 1)
        std::abort();
    for (const std::string& key : app.Dom().Keys("sqlite"))
        if (key.compare(0, 13, "sqlite.config") != 0 || app.Dom().TypeOf(key.c_str()) != EType::Int)
            std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const wxInitializer s_framework;
    static wxLog* const s_previous = wxLog::SetActiveTarget(new VexCore::CLog2Disk);
    static const Test::TempFolder s_folder;
    (void)s_previous;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    Test::WriteFile(s_folder / "vx_agent.ini", bytes);
    Start(s_folder);
    if (Test::ReadFile(s_folder / "vx_agent.ini") != bytes)
        std::abort();
    return 0;
}
