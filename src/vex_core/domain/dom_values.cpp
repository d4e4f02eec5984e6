#include "vex_core/domain/dom_values.h"

#include "vex_core/base/ascii.h"

#include <charconv>
#include <cstring>
#include <new>
#include <utility>

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

DomValue* DomValue::NewBlock(CDom::EType type, std::size_t size, void* block)
{
    return new (block ? block : ::operator new(BytesOfText(size))) DomValue(type, size);
}

DomValue::Pointer DomValue::NewText(std::string_view text, void* block)
{
    DomValue* const value = NewBlock(CDom::EType::Text, text.size(), block);
    if (!text.empty())
        std::memcpy(static_cast<void*>(value + 1), text.data(), text.size());
    return Pointer(value);
}

DomValue::Pointer DomValue::NewBool(bool flag)
{
    return NewNumber(CDom::EType::Bool, flag);
}

DomValue::Pointer DomValue::NewInt(std::int64_t number)
{
    return NewNumber(CDom::EType::Int, number);
}

DomValue::Pointer DomValue::NewObject(std::shared_ptr<CDomObject> object)
{
    DomValue* const value = NewBlock(CDom::EType::Object, sizeof object);
    new (value + 1) std::shared_ptr<CDomObject>(std::move(object));
    return Pointer(value);
}

DomValue::Pointer DomValue::NewNumber(CDom::EType type, std::int64_t number)
{
    DomValue* const value = NewBlock(type, sizeof number);
    new (value + 1) std::int64_t{number};
    return Pointer(value);
}

void DomValue::Destroy(DomValue* value)
{
    if (value->Type() == CDom::EType::Object)
        value->Object().~shared_ptr();
    ::operator delete(value);
}

std::int64_t DomValue::Int() const
{
    return *static_cast<const std::int64_t*>(Content());
}

const std::shared_ptr<CDomObject>& DomValue::Object() const
{
    return *static_cast<const std::shared_ptr<CDomObject>*>(Content());
}

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

std::string_view TextOfValue::ConvertedText(const DomValue& from)
{
    if (from.Type() == CDom::EType::Bool)
        return from.Bool() ? "true" : "false";
    if (from.Type() != CDom::EType::Int)
        return {};
    const std::to_chars_result written = std::to_chars(m_digits, m_digits + sizeof m_digits, from.Int());
    return std::string_view(m_digits, static_cast<std::size_t>(written.ptr - m_digits));
}

bool TextOf(const DomValue& from, std::string& text)
{
    const TextOfValue read(from);
    if (!read)
        return false;
    text.assign(read.Text());
    return true;
}

bool BoolOf(const DomValue& from, bool& value)
{
    switch (from.Type()) {
    case CDom::EType::Bool:
        value = from.Bool();
        return true;
    case CDom::EType::Int:
        if (from.Int() != 0 && from.Int() != 1)
            return false;
        value = from.Int() == 1;
        return true;
    case CDom::EType::Text:
        return BoolFromText(from.Text(), value);
    case CDom::EType::Object:
    case CDom::EType::Absent:
        break;
    }
    return false;
}

bool IntOf(const DomValue& from, std::int64_t& value)
{
    if (from.Type() == CDom::EType::Int) {
        value = from.Int();
        return true;
    }
    return from.Type() == CDom::EType::Text && IntFromText(from.Text(), value);
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
