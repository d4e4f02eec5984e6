#include "vex/apps/vexctl/html_text.h"

#include "vex_core/base/hex.h"
#include "vex_core/base/utf8.h"

namespace Vexctl {

namespace {
const char* EntityOf(char32_t character)
{
    switch (character) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '"':
        return "&quot;";
    case '\'':
        return "&#39;";
    default:
        return nullptr;
    }
}

} // namespace

std::string Html(std::string_view text, bool keepLines)
{
    std::string html;
    html.reserve(text.size());
    while (!text.empty()) {
        char32_t character = 0;
        const std::size_t length = VexCore::DecodeUtf8(text, character);
        const std::string_view bytes = text.substr(0, length == 0 ? 1 : length);
        const char* const entity = length == 0 ? nullptr : EntityOf(character);
        if (length == 0) {
            html += "\xef\xbf\xbd";
        } else if (entity) {
            html += entity;
        } else if (VexCore::IsControlOrLineEnd(character) && !(keepLines && (character == '\n' || character == '\t'))) {
            html += VexCore::ShownInHex(bytes);
        } else {
            html.append(bytes);
        }
        text.remove_prefix(bytes.size());
    }
    return html;
}

} // namespace Vexctl
