#pragma once
// Domains of tests that let go of themselves.

#include "vex/core/dom.h"

#include <memory>

namespace Test {

struct DomReleaser
{
    void operator()(VexCore::CDom* dom) const { dom->Release(); }
};
using DomPtr = std::unique_ptr<VexCore::CDom, DomReleaser>;

/// A root of its own.
inline DomPtr NewRoot()
{
    return DomPtr(VexCore::CDom::New(nullptr, nullptr, nullptr, false));
}

} // namespace Test
