#include "vex/apps/vexctl/shown_text.h"

#include "vex_core/base/hex.h"
#include "vex_core/base/utf8.h"

#include <cwchar>

namespace Vexctl {

namespace {
// The next character of a text that is not empty, and how many bytes it has.
std::size_t NextCharacter(std::string_view text, char32_t& character)
{
    const std::size_t length = VexCore::DecodeUtf8(text, character);
    if (length != 0)
        return length;
    character = static_cast<unsigned char>(text.front());
    return 1;
}

std::size_t ColumnsOf(char32_t character)
{
    // Without a word from the locale's tables a character takes one column.
    const int columns = ::wcwidth(static_cast<wchar_t>(character));
    return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

} // namespace

std::size_t PlainLength(std::string_view text)
{
    std::size_t length = 0;
    while (length < text.size() && text[length] >= ' ' && text[length] <= '~')
        ++length;
    return length;
}

std::string Shown(std::string_view text, bool keepTabs)
{
    std::string shown;
    shown.reserve(text.size());
    for (;;) {
        const std::size_t plain = PlainLength(text);
        shown.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty())
            return shown;
        char32_t character = 0;
        const std::size_t length = NextCharacter(text, character);
        const std::string_view bytes = text.substr(0, length);
        if (VexCore::IsControlOrLineEnd(character) && !(keepTabs && character == '\t'))
            shown.append(VexCore::ShownInHex(bytes));
        else
            shown.append(bytes);
        text.remove_prefix(length);
    }
}

std::size_t Columns(std::string_view text)
{
    std::size_t columns = 0;
    while (!text.empty()) {
        char32_t character = 0;
        text.remove_prefix(NextCharacter(text, character));
        columns += ColumnsOf(character);
    }
    return columns;
}

std::string CutToColumns(std::string_view text, std::size_t columns)
{
    if (Columns(text) <= columns)
        return std::string(text);
    std::size_t used = 1; // the mark
    std::size_t bytes = 0;
    while (bytes < text.size()) {
        char32_t character = 0;
        const std::size_t length = NextCharacter(text.substr(bytes), character);
        used += ColumnsOf(character);
        if (used > columns)
            break;
        bytes += length;
    }
    return std::string(text.substr(0, bytes)) + (columns > 0 ? "…" : "");
}

} // namespace Vexctl
