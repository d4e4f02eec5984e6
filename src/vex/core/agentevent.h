#pragma once
// Agent events: what happened to this host's agent, kept for its operators.

#include "vex/core/export.h"

#include <cstdint>
#include <string>

namespace VexCore {

/// A record that can be written as XML. A field is absent until it is marked present. One thread at a time.
class VEX_CORE_API XMLObject
{
public:
    virtual ~XMLObject();

    /// Marks a field as absent (true) or present (false). The field's number is the derived class's. Out of range is
    /// ignored.
    void SetAttributeNull(int field, bool isNull);
    bool IsAttributeNull(int field) const;

    /// One element, well formed for any content; fields that are absent are left out. Bytes that are not UTF-8 and
    /// characters that XML cannot hold become U+FFFD.
    virtual std::string ToXml() const = 0;

protected:
    XMLObject() = default;

private:
    std::uint32_t m_present = 0; // bit n: field n is present
};

/// One event. Set a field, then mark it present.
class VEX_CORE_API CAgentEvent : public XMLObject
{
public:
    enum Field { FieldText, FieldTimeMillis, FieldTimeSeconds, FieldNumber, FieldSeverity };

    CAgentEvent();
    ~CAgentEvent() override;

    std::string m_text; ///< UTF-8
    std::int64_t m_timeMillis = 0; ///< since the epoch
    std::int32_t m_timeSeconds = 0; ///< since the epoch
    std::int32_t m_number = 0; ///< which kind of event; docs/FORMATS.md, "Agent events", lists them
    std::int32_t m_severity = 0; ///< as `ToSeverity` gives it

    /// The severity to store for a level: the syslog severity of that number, 0 (emergency) to 7 (debug); what lies
    /// outside is clamped.
    static std::int32_t ToSeverity(int level);

    std::string ToXml() const override;
};

} // namespace VexCore
