#pragma once
// Texts as XML and the database can hold them.

#include <string>

namespace VexCore {

/// The text with U+FFFD in place of each byte that is not UTF-8 and each character that XML 1.0 cannot hold.
std::string ToXmlText(const std::string& text);

} // namespace VexCore
