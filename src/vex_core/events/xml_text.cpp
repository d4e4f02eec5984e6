#include "vex_core/events/xml_text.h"
#include "vex_core/base/utf8.h"

#include <string_view>

namespace VexCore {
namespace {
// Whether XML 1.0 can hold the character, be it escaped.
bool IsXmlCharacter(char32_t character)
{
    if (character < 0x20)
        return character == '\t' || character == '\n' || character == '\r';
    return character != 0xFFFE && character != 0xFFFF;
}

} // namespace

std::string ToXmlText(const std::string& text)
{
    std::string result;
    result.reserve(text.size());
    for (std::string_view rest = text; !rest.empty();) {
        char32_t character = 0;
        std::size_t length = DecodeUtf8(rest, character);
        if (length != 0 && IsXmlCharacter(character))
            result.append(rest, 0, length);
        else {
            result += "\xEF\xBF\xBD";
            length = 1; // what follows of it is no character either
        }
        rest.remove_prefix(length);
    }
    return result;
}

} // namespace VexCore
