#pragma once
// An agent event with a value in every field.

#include "vex/core/agentevent.h"

#include <string>

namespace Test {

inline VexCore::CAgentEvent SampleEvent(const std::string& text)
{
    using VexCore::CAgentEvent;
    CAgentEvent event;
    event.m_text = text;
    event.m_timeMillis = 1700000000123;
    event.m_timeSeconds = 1700000000;
    event.m_number = 5101;
    event.m_severity = 5;
    for (int field = CAgentEvent::FieldText; field <= CAgentEvent::FieldSeverity; ++field)
        event.SetAttributeNull(field, false);
    return event;
}

} // namespace Test
