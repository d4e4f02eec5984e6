#pragma once
// A worker as Lua sees it: class "SLB.Worker". docs/LUA-API.md describes the methods.

#include "slb3/class.h"
#include "vex_core/lua/worker.h"

#include <memory>

namespace VexCore {

/// What the Lua object holds. Collecting it does not end the worker.
struct WorkerHandle
{
    explicit WorkerHandle(std::shared_ptr<Worker> started) : worker(std::move(started)) {}
    std::shared_ptr<Worker> worker;
};

} // namespace VexCore

namespace SLB3 {

template <>
struct Wrapper<VexCore::WorkerHandle>
{
    static constexpr const char* name = "SLB.Worker";
    static void Register(internal::Class<VexCore::WorkerHandle>& definition);
};

} // namespace SLB3
