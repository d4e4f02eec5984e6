#pragma once
// How this program was started.

#include <string>

namespace VexOs {

/// The name under which the program was called, in the bytes that the system has: the framework drops an argument that
/// it cannot convert. Where the system does not keep it, the path of the executable. Any thread.
std::string ProgramName();

} // namespace VexOs
