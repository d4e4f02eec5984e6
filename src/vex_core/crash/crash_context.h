#pragma once
// Registers of a thread, as a minidump has them.

#include "vex_core/crash/minidump_format.h"

#include <cstdint>

namespace VexCore {

/// Where a thread stands.
struct CrashRegisters
{
    std::uint64_t stackPointer = 0;
    std::uint64_t instructionPointer = 0;
};

/// Whether this processor's registers are known here.
constexpr bool HasCrashContext()
{
#ifdef __x86_64__
    return true;
#else
    return false;
#endif
}

/// Fills `context` from a signal handler's context (ucontext_t).
CrashRegisters ReadCrashContext(const void* signalContext, Minidump::ContextAmd64& context);

/// Fills `context` with nothing but the place, for a thread that did not answer.
void SetCrashPlace(const CrashRegisters& registers, Minidump::ContextAmd64& context);

} // namespace VexCore
