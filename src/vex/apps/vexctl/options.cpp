#include "vex/apps/vexctl/options.h"

#include "vex/apps/vexctl/times.h"

#include "vex/core/clock.h"

namespace Vexctl {

namespace {
CLI::Validator IsTime()
{
    return CLI::Validator(
        [](std::string& text) {
            return ParseWhen(text, VexCore::TimeNowMillis())
                       ? std::string()
                       : "'" + text
                             + "' is no time: give one as 2026-01-31, 2026-01-31T10:20:30 or 2026-01-31T10:20Z, or "
                               "90s, "
                               "10m, 1h, 2d for so long ago";
        },
        std::string());
}

std::optional<std::int64_t> TimeMs(const std::string& text)
{
    return text.empty() ? std::nullopt : ParseWhen(text, VexCore::TimeNowMillis());
}

} // namespace

void TimeSpan::AddTo(CLI::App& app)
{
    app.add_option("--since", since, "From this time on: 2026-01-31T10:20, or 10m, 1h, 2d for so long ago")
        ->check(IsTime())
        ->type_name("TIME");
    app.add_option("--until", until, "Up to this time")->check(IsTime())->type_name("TIME");
}

std::optional<std::int64_t> TimeSpan::SinceMs() const
{
    return TimeMs(since);
}

std::optional<std::int64_t> TimeSpan::UntilMs() const
{
    return TimeMs(until);
}

CLI::Validator IsDuration()
{
    return CLI::Validator(
        [](std::string& text) {
            return ParseDuration(text) ? std::string()
                                       : "'" + text + "' is no length of time: give one as 90s, 10m, 1h or 1h30m";
        },
        std::string());
}

} // namespace Vexctl
