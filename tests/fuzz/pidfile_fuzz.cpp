// Any bytes as the content of a pid file: a pid that is usable, or none.
#include "vex_core/process/pidfile_text.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const VexCore::PidFileText text = VexCore::ParsePidFile(reinterpret_cast<const char*>(data), size);
    if (text.pid < 0 || text.pid == 1 || (text.pid == 0 && text.hasStartTime))
        std::abort();
    return 0;
}
