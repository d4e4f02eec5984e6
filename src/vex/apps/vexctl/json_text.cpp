#include "vex/apps/vexctl/json_text.h"

#include "vex_core/base/utf8.h"

#include <cstdio>

namespace Vexctl {

std::string JsonText(const Json& json, int indent)
{
    const std::string text = json.dump(indent, ' ', false, Json::error_handler_t::replace);
    // Those below the blank are escaped already, but for the line breaks of an indented text.
    std::string safe;
    safe.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        char32_t character = 0;
        const std::size_t length =
            std::max<std::size_t>(1, VexCore::DecodeUtf8(std::string_view(text).substr(at), character));
        if (character != '\n' && VexCore::IsControlOrLineEnd(character)) {
            char escaped[12];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(character));
            safe += escaped;
        } else {
            safe.append(text, at, length);
        }
        at += length;
    }
    return safe;
}

} // namespace Vexctl
