#include "vex/apps/vexctl/event_formats.h"

#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/shown_text.h"
#include "vex/apps/vexctl/times.h"

#include "vex_core/base/utf8.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

namespace Vexctl {

namespace {
// 0 to 7, where an event has one of syslog's.
std::optional<std::size_t> SeverityOf(const Event& event)
{
    const bool isKnown = event.severity && *event.severity >= 0 && *event.severity < 8;
    return isKnown ? std::optional(static_cast<std::size_t>(*event.severity)) : std::nullopt;
}

// --- OpenTelemetry

// By the table that its model of logs has for syslog.
constexpr std::array<int, 8> otlpSeverities = {21, 19, 18, 17, 13, 10, 9, 5};

// Nanoseconds, which its JSON has as text because they do not fit a double. Absent where they do not fit 64 bits.
std::optional<std::string> Nanoseconds(std::int64_t timeMs)
{
    constexpr std::int64_t latestMs = INT64_MAX / 1000000;
    if (timeMs <= 0 || timeMs > latestMs) // 0 is the format's word for "unknown"
        return std::nullopt;
    return std::to_string(timeMs * 1000000);
}

void AddText(Json& attributes, const char* key, const std::string& text)
{
    if (!text.empty())
        attributes.push_back({{"key", key}, {"value", {{"stringValue", text}}}});
}

void AddNumber(Json& attributes, const char* key, std::int64_t number)
{
    attributes.push_back({{"key", key}, {"value", {{"intValue", std::to_string(number)}}}});
}

Json ResourceOf(const EventSource& source)
{
    Json attributes = Json::array();
    AddText(attributes, "host.id", source.hostId);
    AddText(attributes, "host.name", source.hostName);
    AddText(attributes, "service.name", source.agent);
    AddText(attributes, "service.version", source.version);
    return {{"attributes", attributes}};
}

Json LogRecordOf(const Event& event, std::int64_t observedMs)
{
    Json record = Json::object();
    if (const auto time = event.timeMs ? Nanoseconds(*event.timeMs) : std::nullopt)
        record["timeUnixNano"] = *time;
    if (const auto observed = Nanoseconds(observedMs))
        record["observedTimeUnixNano"] = *observed;
    if (const auto severity = SeverityOf(event)) {
        record["severityNumber"] = otlpSeverities[*severity];
        record["severityText"] = SeverityWord(event);
    }
    record["body"] = {{"stringValue", event.text}};
    Json attributes = Json::array();
    AddText(attributes, "event.key", event.Key());
    AddNumber(attributes, "event.id", event.id);
    if (event.number)
        AddNumber(attributes, "event.number", *event.number);
    record["attributes"] = attributes;
    return record;
}

// --- syslog

constexpr int daemonFacility = 3;
constexpr std::size_t noticeSeverity = 5;
constexpr const char* byteOrderMark = "\xef\xbb\xbf";

// UTF-8, with U+FFFD in place of each byte that is none, and control characters as the log shows them.
std::string LineText(std::string_view text)
{
    std::string valid;
    while (!text.empty()) {
        char32_t character = 0;
        const std::size_t length = VexCore::DecodeUtf8(text, character);
        if (length == 0)
            valid += "\xef\xbf\xbd";
        else
            valid.append(text.substr(0, length));
        text.remove_prefix(std::max<std::size_t>(1, length));
    }
    return Shown(valid);
}

// A field of the header: visible ASCII, not more of it than the format allows.
std::string HeaderField(std::string_view text, std::size_t maxBytes)
{
    std::string field(text.substr(0, maxBytes));
    for (char& c : field)
        if (c <= ' ' || c > '~')
            c = '_';
    return field.empty() ? "-" : field;
}

// Four digits of a year; what no clock of an agent has said is none.
std::string TimeField(const Event& event)
{
    constexpr std::int64_t lastMs = 253'402'300'799'999;
    const bool isTold = event.timeMs && *event.timeMs >= 0 && *event.timeMs <= lastMs;
    return isTold ? UtcTime(*event.timeMs) : "-";
}

void AddParameter(std::string& element, const char* name, const std::string& value)
{
    if (value.empty())
        return;
    element += std::string(" ") + name + "=\"";
    for (const char c : LineText(value)) {
        if (c == '"' || c == '\\' || c == ']')
            element += '\\';
        element += c;
    }
    element += '"';
}

} // namespace

std::string OtlpLine(const Event& event, const EventSource& source, std::int64_t observedMs)
{
    Json scope = {{"name", "agent_event"}};
    const Json logs = {{"scope", scope}, {"logRecords", Json::array({LogRecordOf(event, observedMs)})}};
    const Json resource = {{"resource", ResourceOf(source)}, {"scopeLogs", Json::array({logs})}};
    return JsonText({{"resourceLogs", Json::array({resource})}});
}

std::string SyslogRecord(const Event& event, const EventSource& source)
{
    constexpr std::size_t maxHostName = 255, maxAppName = 48, maxMessageId = 32, maxVersion = 32;
    const std::size_t priority = daemonFacility * 8 + SeverityOf(event).value_or(noticeSeverity);
    std::string number, origin = "[origin", own = "[vex@32473";
    if (event.number)
        number = std::to_string(*event.number);
    AddParameter(origin, "software", source.agent.substr(0, maxAppName));
    AddParameter(origin, "swVersion", source.version.substr(0, maxVersion));
    AddParameter(own, "key", event.Key());
    AddParameter(own, "id", std::to_string(event.id));
    AddParameter(own, "number", number);
    AddParameter(own, "host_id", source.hostId);
    std::string record = "<" + std::to_string(priority) + ">1 " + TimeField(event) + " "
                         + HeaderField(source.hostName, maxHostName) + " " + HeaderField(source.agent, maxAppName)
                         + " - " + HeaderField(number, maxMessageId) + " " + origin + "]" + own + "]";
    if (!event.text.empty())
        record += " " + std::string(byteOrderMark) + LineText(event.text);
    return record;
}

} // namespace Vexctl
