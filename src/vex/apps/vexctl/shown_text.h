#pragma once
// Text of others on a terminal: nothing in it may be obeyed.

#include <cstddef>
#include <string>
#include <string_view>

namespace Vexctl {

/// The text with \xNN for each byte of a control character, of a line end of Unicode's, and of what a terminal that is
/// not set to UTF-8 would take for one: the rule of the log. Other bytes stay as they are. Line breaks are escaped too,
/// tabulators unless `keepTabs`.
std::string Shown(std::string_view text, bool keepTabs = false);

/// How many bytes at the begin of the text are characters that need no second look, as nearly all are: printable ASCII.
std::size_t PlainLength(std::string_view text);

/// How many columns a text without control characters takes on a terminal.
std::size_t Columns(std::string_view text);

/// The text, cut so that it takes at most so many columns, "…" included.
std::string CutToColumns(std::string_view text, std::size_t columns);

} // namespace Vexctl
