#include "vex/core/agentevent.h"
#include "vex_core/agentevent_p.h"

#include <algorithm>

#include <pugixml.hpp>

namespace VexCore {
namespace {

// Length in bytes of the UTF-8 character that begins at `at` and that XML can hold; 0 when there is none.
std::size_t XmlCharacterLength(const std::string& text, std::size_t at)
{
    const auto byte = [&text](std::size_t index) {
        return index < text.size() ? static_cast<unsigned char>(text[index]) : static_cast<unsigned char>(0);
    };
    const unsigned char lead = byte(at);
    if (lead < 0x80)
        return lead >= 0x20 || lead == '\t' || lead == '\n' || lead == '\r' ? 1 : 0;
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4)
        return 0; // a continuation, an overlong form, or above U+10FFFF
    std::uint32_t code = lead & (0xFFu >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80)
            return 0;
        code = code << 6 | (byte(at + i) & 0x3Fu);
    }
    static const std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    const bool noCharacter = code == 0xFFFE || code == 0xFFFF;
    return code < smallest[length] || code > 0x10FFFF || surrogate || noCharacter ? 0 : length;
}

class StringWriter : public pugi::xml_writer
{
public:
    void write(const void* data, std::size_t size) override
    {
        m_text.append(static_cast<const char*>(data), size);
    }
    std::string m_text;
};

} // namespace

std::string ToXmlText(const std::string& text)
{
    std::string result;
    result.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = XmlCharacterLength(text, at);
        if (length == 0)
            result += "\xEF\xBF\xBD";
        else
            result.append(text, at, length);
        at += std::max<std::size_t>(length, 1);
    }
    return result;
}

XMLObject::~XMLObject() = default;

void XMLObject::SetAttributeNull(int field, bool isNull)
{
    if (field < 0 || field >= 32)
        return;
    const std::uint32_t bit = std::uint32_t(1) << field;
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
