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
    // A name stands before each value, and what follows is something else.
    CLI::Option* const option = m_app.add_option(names, values, help);
    return Option(*names == '-' ? option->allow_extra_args(false) : option);
}

Option Options::Count(const char* names, std::size_t& value, const char* help)
{
    return Option(m_app.add_option(names, value, help)->check(CLI::NonNegativeNumber));
}

Option Options::Count(const char* names, std::optional<std::size_t>& value, const char* help)
{
    return Option(m_app.add_option(names, value, help)->check(CLI::NonNegativeNumber));
}

// --- the words of all of them

namespace {
// "{running,stopped}" in the description of what it takes.
std::vector<std::string> ChoicesOf(const CLI::Option& option)
{
    const std::string type = option.get_type_name();
    const std::size_t begin = type.find('{');
    const std::size_t end = type.find('}');
    if (begin == std::string::npos || end == std::string::npos)
        return {};
    return CLI::detail::split(type.substr(begin + 1, end - begin - 1), ',');
}

CommandWords WordsOf(const CLI::App& app)
{
    CommandWords words;
    words.name = app.get_name();
    words.help = app.get_description();
    for (const CLI::Option* const option : app.get_options()) {
        std::vector<std::string>& names = option->get_items_expected_max() == 0 ? words.flags : words.options;
        for (const std::string& name : option->get_lnames())
            names.push_back("--" + name);
        for (const std::string& name : option->get_snames())
            names.push_back("-" + name);
        if (!option->get_positional())
            continue;
        const std::string type = option->get_type_name();
        words.takesFiles = words.takesFiles || type == "FILE" || type == "FOLDER";
        const std::vector<std::string> choices = ChoicesOf(*option);
        words.choices.insert(words.choices.end(), choices.begin(), choices.end());
    }
    return words;
}

} // namespace

std::vector<CommandWords> Options::AllCommands() const
{
    const CLI::App& root = *m_app.get_parent();
    std::vector<CommandWords> all = {WordsOf(root)};
    for (const CLI::App* const app : root.get_subcommands(nullptr))
        all.push_back(WordsOf(*app));
    return all;
}

// --- times

std::string WhyNoTime(const std::string& text)
{
    return ParseWhen(text, VexCore::TimeNowMillis())
               ? std::string()
               : "'" + text
                     + "' is no time: give one as 2026-01-31, 2026-01-31T10:20:30 or 2026-01-31T10:20Z, or 90s, 10m, "
                       "1h, 2d for so long ago";
}

namespace {
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
