#include "vex_core/domain/dom_values.h"

#include "vex_core/base/ascii.h"

#include <charconv>

namespace VexCore {

namespace {
bool EqualIgnoringCase(std::string_view text, std::string_view lower)
{
    if (text.size() != lower.size())
        return false;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (LowerAscii(text[i]) != lower[i])
            return false;
    return true;
}

} // namespace

bool BoolFromText(std::string_view text, bool& value)
{
    for (const std::string_view word : {"true", "1", "yes"})
        if (EqualIgnoringCase(text, word)) {
            value = true;
            return true;
        }
    for (const std::string_view word : {"false", "0", "no"})
        if (EqualIgnoringCase(text, word)) {
            value = false;
            return true;
        }
    return false;
}

bool IntFromText(std::string_view text, std::int64_t& value)
{
    std::int64_t result = 0;
    const char* const end = text.data() + text.size();
    const std::from_chars_result parsed = std::from_chars(text.data(), end, result);
    if (parsed.ec != std::errc() || parsed.ptr != end)
        return false;
    value = result;
    return true;
}

bool TextOf(const DomValue& from, std::string& text)
{
    if (const std::string* const own = std::get_if<std::string>(&from)) {
        text.assign(*own);
    } else if (const bool* const flag = std::get_if<bool>(&from)) {
        text.assign(*flag ? "true" : "false");
    } else if (const std::int64_t* const number = std::get_if<std::int64_t>(&from)) {
        char digits[24];
        const std::to_chars_result written = std::to_chars(digits, digits + sizeof digits, *number);
        text.assign(digits, written.ptr);
    } else {
        return false;
    }
    return true;
}

bool BoolOf(const DomValue& from, bool& value)
{
    if (const bool* const flag = std::get_if<bool>(&from)) {
        value = *flag;
        return true;
    }
    if (const std::int64_t* const number = std::get_if<std::int64_t>(&from)) {
        if (*number != 0 && *number != 1)
            return false;
        value = *number == 1;
        return true;
    }
    const std::string* const text = std::get_if<std::string>(&from);
    return text && BoolFromText(*text, value);
}

bool IntOf(const DomValue& from, std::int64_t& value)
{
    if (const std::int64_t* const number = std::get_if<std::int64_t>(&from)) {
        value = *number;
        return true;
    }
    const std::string* const text = std::get_if<std::string>(&from);
    return text && IntFromText(*text, value);
}

CDom::EType TypeOfValue(const DomValue& value)
{
    static constexpr CDom::EType types[] = {CDom::EType::Text, CDom::EType::Bool, CDom::EType::Int,
                                            CDom::EType::Object};
    return types[value.index()];
}

std::string BytesFromText(const wxString& text)
{
    const wxScopedCharBuffer bytes = text.utf8_str();
    if (bytes.length() > 0 || text.empty())
        return std::string(bytes.data(), bytes.length());
    // The conversion gives nothing at all when a single character has no UTF-8.
    std::string result;
    for (wxString::const_iterator c = text.begin(); c != text.end(); ++c) {
        const wxString character(*c); // which may lend its bytes only
        const wxScopedCharBuffer one = character.utf8_str();
        if (one.length() > 0)
            result.append(one.data(), one.length());
        else
            result.append("\xEF\xBF\xBD");
    }
    return result;
}

} // namespace VexCore
