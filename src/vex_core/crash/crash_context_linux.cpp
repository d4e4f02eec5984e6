#include "vex_core/crash/crash_context.h"

#include <cstring>

#include <ucontext.h>

namespace VexCore {

#ifdef __x86_64__

CrashRegisters ReadCrashContext(const void* signalContext, Minidump::ContextAmd64& context)
{
    const auto& machine = static_cast<const ucontext_t*>(signalContext)->uc_mcontext;
    const auto get = [&machine](int number) { return static_cast<std::uint64_t>(machine.gregs[number]); };
    context = Minidump::ContextAmd64();
    context.flags = Minidump::contextControl | Minidump::contextInteger | Minidump::contextSegments;
    const std::uint64_t segments = get(REG_CSGSFS); // four 16-bit registers in one
    context.cs = static_cast<std::uint16_t>(segments);
    context.gs = static_cast<std::uint16_t>(segments >> 16);
    context.fs = static_cast<std::uint16_t>(segments >> 32);
    context.ss = static_cast<std::uint16_t>(segments >> 48);
    context.eflags = static_cast<std::uint32_t>(get(REG_EFL));
    context.rax = get(REG_RAX);
    context.rcx = get(REG_RCX);
    context.rdx = get(REG_RDX);
    context.rbx = get(REG_RBX);
    context.rsp = get(REG_RSP);
    context.rbp = get(REG_RBP);
    context.rsi = get(REG_RSI);
    context.rdi = get(REG_RDI);
    context.r8 = get(REG_R8);
    context.r9 = get(REG_R9);
    context.r10 = get(REG_R10);
    context.r11 = get(REG_R11);
    context.r12 = get(REG_R12);
    context.r13 = get(REG_R13);
    context.r14 = get(REG_R14);
    context.r15 = get(REG_R15);
    context.rip = get(REG_RIP);
    if (machine.fpregs) {
        static_assert(sizeof(*machine.fpregs) == sizeof context.floats);
        std::memcpy(context.floats, machine.fpregs, sizeof context.floats);
        context.mxcsr = machine.fpregs->mxcsr;
        context.flags |= Minidump::contextFloats;
    }
    return {context.rsp, context.rip};
}

#else

CrashRegisters ReadCrashContext(const void*, Minidump::ContextAmd64& context)
{
    context = Minidump::ContextAmd64();
    return {};
}

#endif

void SetCrashPlace(const CrashRegisters& registers, Minidump::ContextAmd64& context)
{
    context = Minidump::ContextAmd64();
    context.flags = Minidump::contextControl;
    context.rsp = registers.stackPointer;
    context.rip = registers.instructionPointer;
}

} // namespace VexCore
