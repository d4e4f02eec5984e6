#include "vex/core/agentevent.h"
#include "vex_core/events/xml_text.h"

#include <algorithm>

#include <pugixml.hpp>

namespace VexCore {
namespace {
class StringWriter : public pugi::xml_writer
{
public:
    void write(const void* data, std::size_t size) override { m_text.append(static_cast<const char*>(data), size); }
    std::string m_text;
};

} // namespace

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
