#pragma once
// The last place for a text that can be kept nowhere else.

#include <initializer_list>
#include <string_view>

namespace VexCore::os {

/// The descriptor of standard error, the same in every process.
constexpr int standardError = 2;
/// As syslog has them.
constexpr int severityError = 3;

/// Writes the text, given in parts, to `descriptor`, standard error as a rule; where that is the null device, as it is
/// in the background, to the system's log, line by line, with a severity of 0 to 7. False: some of it is nowhere now.
/// Keeps the last error. Any thread; allocates nothing; a logger that has stopped is not waited for.
bool WriteLastResort(int descriptor, int severity, std::initializer_list<std::string_view> parts);

} // namespace VexCore::os
