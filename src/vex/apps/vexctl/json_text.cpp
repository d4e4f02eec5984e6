#include "vex/apps/vexctl/json_text.h"

#include "vex/apps/vexctl/shown_text.h"

#include "vex_core/base/utf8.h"

#include <algorithm>
#include <cstdio>

namespace Vexctl {

std::string JsonText(const Json& json, int indent)
{
    const std::string text = json.dump(indent, ' ', false, Json::error_handler_t::replace);
    // Those below the blank are escaped already, but for the line breaks of an indented text.
    std::string safe;
    safe.reserve(text.size());
    for (std::string_view rest = text;;) {
        const std::size_t plain = PlainLength(rest);
        safe.append(rest.substr(0, plain));
        rest.remove_prefix(plain);
        if (rest.empty())
            return safe;
        char32_t character = 0;
        const std::size_t length = std::max<std::size_t>(1, VexCore::DecodeUtf8(rest, character));
        if (character != '\n' && VexCore::IsControlOrLineEnd(character)) {
            char escaped[12];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(character));
            safe += escaped;
        } else {
            safe.append(rest.substr(0, length));
        }
        rest.remove_prefix(length);
    }
}

void AddJsonString(std::string& json, std::string_view text)
{
    if (PlainLength(text) == text.size() && text.find('"') == std::string_view::npos
        && text.find('\\') == std::string_view::npos)
        json.append(1, '"').append(text).append(1, '"');
    else
        json += JsonText(Json(std::string(text)));
}

} // namespace Vexctl
