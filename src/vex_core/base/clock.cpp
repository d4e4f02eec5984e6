#include "vex/core/clock.h"

#include <chrono>

std::int64_t VexCore::TimeNowMillis()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}
