#pragma once
// JSON as vexctl writes it: the fields in their order, one line an object unless it is told otherwise.

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace Vexctl {

using Json = nlohmann::ordered_json;

/// What each object begins with. A field may be added under the same number; when one goes or means something else, the
/// number is another.
constexpr int jsonSchema = 1;

/// Text that a terminal may be shown: bytes that are not UTF-8 become U+FFFD, and control characters and line ends of
/// any kind are escaped. `indent` -1: one line.
std::string JsonText(const Json& json, int indent = -1);
/// Adds such a text of one string, for what is written a million times: no object is made of it.
void AddJsonString(std::string& json, std::string_view text);

} // namespace Vexctl
