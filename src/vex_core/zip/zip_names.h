#pragma once
// Which entry names are accepted, the order in which they are kept, and how a name is shown.

#include <cstddef>
#include <string>
#include <string_view>

namespace VexCore {
namespace Zip {

constexpr std::size_t maxPath = 1024; ///< bytes, without a folder's last slash
constexpr std::size_t maxComponent = 255; ///< bytes
constexpr std::size_t maxDepth = 32; ///< components

/// Null for a name that is accepted, else the reason why not. Names are refused, never mended.
const char* WhyNameIsRefused(std::string_view name);

/// The name without a folder's last slash.
std::string_view PathOf(std::string_view name);

/// Orders paths so that whatever lies below a path follows it directly: "/" comes before every other character.
/// Below 0, 0, above 0 as memcmp.
int ComparePaths(std::string_view left, std::string_view right);

/// Whether `path` lies below `folder`.
bool LiesBelow(std::string_view path, std::string_view folder);

} // namespace Zip

/// Text for a log line: what is no printable UTF-8 becomes \xNN, and a text of more than 300 bytes is cut with "...".
std::string EscapeForLog(std::string_view text);

} // namespace VexCore
