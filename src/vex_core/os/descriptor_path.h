#pragma once
// Paths to what is open, for calls that take no descriptor.

#include <string>

namespace VexCore::os {

/// A path that leads to the open folder itself, whatever becomes of its names. Empty where the system has none.
std::string PathThroughDescriptor(int folder);

} // namespace VexCore::os
