#pragma once
// Text of others on a page.

#include <string>
#include <string_view>

namespace Vexctl {

/// The text as HTML has it, in content and between quotation marks: what HTML obeys is escaped, control characters are
/// \xNN as on a terminal, and bytes that are not UTF-8 are U+FFFD. Line breaks and tabulators stay with `keepLines`.
std::string Html(std::string_view text, bool keepLines = false);

} // namespace Vexctl
