#include "vex/core/agentevent.h"
#include "vex_core/base/utf8.h"
#include "vex_core/events/agentevent_p.h"

#include <algorithm>
#include <string_view>

#include <pugixml.hpp>

namespace VexCore {
namespace {
// Whether XML 1.0 can hold the character, be it escaped.
bool IsXmlCharacter(char32_t character)
{
    if (character < 0x20)
        return character == '\t' || character == '\n' || character == '\r';
    return character != 0xFFFE && character != 0xFFFF;
}

class StringWriter : public pugi::xml_writer
{
public:
    void write(const void* data, std::size_t size) override { m_text.append(static_cast<const char*>(data), size); }
    std::string m_text;
};

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

XMLObject::~XMLObject() = default;

void XMLObject::SetAttributeNull(int field, bool isNull)
{
    if (field < 0 || field >= 32)
        return;
    const std::uint32_t bit = static_cast<std::uint32_t>(1) << field;
    m_present = isNull ? m_present & ~bit : m_present | bit;
}

bool XMLObject::IsAttributeNull(int field) const
{
    return field < 0 || field >= 32 || (m_present >> field & 1) == 0;
}

CAgentEvent::CAgentEvent() = default;
CAgentEvent::~CAgentEvent() = default;

std::int32_t CAgentEvent::ToSeverity(int level)
{
    return std::clamp(level, 0, 7);
}

std::string CAgentEvent::ToXml() const
{
    pugi::xml_document document;
    pugi::xml_node node = document.append_child("agent_event");
    const auto add = [this, &node](Field field, const char* name, auto value) {
        if (!IsAttributeNull(field))
            node.append_attribute(name).set_value(value);
    };
    add(FieldTimeMillis, "time_ms", static_cast<long long>(m_timeMillis));
    add(FieldTimeSeconds, "time_s", m_timeSeconds);
    add(FieldNumber, "number", m_number);
    add(FieldSeverity, "severity", m_severity);
    add(FieldText, "text", ToXmlText(m_text).c_str());
    StringWriter writer;
    node.print(writer, "", pugi::format_raw);
    return writer.m_text;
}

} // namespace VexCore
