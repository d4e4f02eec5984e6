// Construction and start-up. Main thread, before any other thread exists.

#include "vex/apps/vex/vex.h"

CAgentApp& wxGetApp()
{
    return *static_cast<CAgentApp*>(wxApp::GetInstance());
}
