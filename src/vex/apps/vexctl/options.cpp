#include "vex/apps/vexctl/options.h"

#include "vex/apps/vexctl/times.h"

#include "vex/core/clock.h"

#include <CLI/CLI.hpp>

namespace Vexctl {

// --- one option

Option& Option::Check(const ArgumentCheck& whyNot)
{
    m_option->check(CLI::Validator([whyNot](std::string& text) { return whyNot(text); }, std::string()));
    return *this;
}

Option& Option::OneOf(const std::vector<std::string>& words)
{
    m_option->check(CLI::IsMember(words));
    return *this;
}

Option& Option::Type(const char* name)
{
    m_option->type_name(name);
    return *this;
}

Option& Option::TellStandard()
{
    m_option->capture_default_str();
    return *this;
}

Option& Option::Required()
{
    m_option->required();
    return *this;
}

Option& Option::Excludes(const Option& other)
{
    m_option->excludes(other.m_option);
    return *this;
}

// --- those of a subcommand

Option Options::Flag(const char* names, bool& value, const char* help)
{
    return Option(m_app.add_flag(names, value, help));
}

Option Options::Text(const char* names, std::string& value, const char* help)
{
    return Option(m_app.add_option(names, value, help));
}

Option Options::Texts(const char* names, std::vector<std::string>& values, const char* help)
{
    return Option(m_app.add_option(names, values, help));
}

Option Options::Count(const char* names, std::size_t& value, const char* help)
{
    return Option(m_app.add_option(names, value, help)->check(CLI::NonNegativeNumber));
}

Option Options::Count(const char* names, std::optional<std::size_t>& value, const char* help)
{
    return Option(m_app.add_option(names, value, help)->check(CLI::NonNegativeNumber));
}

// --- times

namespace {
std::string WhyNoTime(const std::string& text)
{
    return ParseWhen(text, VexCore::TimeNowMillis())
               ? std::string()
               : "'" + text
                     + "' is no time: give one as 2026-01-31, 2026-01-31T10:20:30 or 2026-01-31T10:20Z, or 90s, 10m, "
                       "1h, 2d for so long ago";
}

std::optional<std::int64_t> TimeMs(const std::string& text)
{
    return text.empty() ? std::nullopt : ParseWhen(text, VexCore::TimeNowMillis());
}

} // namespace

void TimeSpan::AddTo(Options& options)
{
    options.Text("--since", since, "From this time on: 2026-01-31T10:20, or 10m, 1h, 2d for so long ago")
        .Check(WhyNoTime)
        .Type("TIME");
    options.Text("--until", until, "Up to this time").Check(WhyNoTime).Type("TIME");
}

std::optional<std::int64_t> TimeSpan::SinceMs() const
{
    return TimeMs(since);
}

std::optional<std::int64_t> TimeSpan::UntilMs() const
{
    return TimeMs(until);
}

std::string WhyNoDuration(const std::string& text)
{
    return ParseDuration(text) ? std::string()
                               : "'" + text + "' is no length of time: give one as 90s, 10m, 1h or 1h30m";
}

} // namespace Vexctl
