// Runs the launcher's unit tests. The framework is initialised once; each test makes its own application object.

#include "support/process_watch.h"
#include "vex/core/log.h"

#include <gtest/gtest.h>

#include <wx/init.h>
#include <wx/log.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    const wxInitializer framework;
    if (!framework.IsOk())
        return 1;
    delete wxLog::SetActiveTarget(new VexCore::CLog2Disk);
    Test::WatchProcess();
    return RUN_ALL_TESTS();
}
