#pragma once
// What subcommands take from the command line. The library behind it costs each source that includes it ten seconds of
// the compiler, so options.cpp and command_line.cpp alone do.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace Vexctl {

/// Says why a text is not what an option takes; empty when it is.
using ArgumentCheck = std::function<std::string(const std::string&)>;

/// An option that was added; it lives as long as its subcommand.
class Option
{
public:
    explicit Option(CLI::Option* option) : m_option(option) {}

    Option& Check(const ArgumentCheck& whyNot);
    Option& OneOf(const std::vector<std::string>& words);
    /// What stands for its value in the help.
    Option& Type(const char* name);
    /// Lets the help tell the value that it has now.
    Option& TellStandard();
    Option& Required();
    Option& Excludes(const Option& other);

private:
    CLI::Option* m_option;
};

/// The words of a command line, for shells that complete them.
struct CommandWords
{
    std::string name, help;
    std::vector<std::string> flags; ///< options without a value
    std::vector<std::string> options; ///< options with one
    std::vector<std::string> choices; ///< what its first argument may be
    bool takesFiles = false; ///< as its argument, or behind the first where that is one of the choices
};

/// The options of one subcommand. What a value is written to outlives the reading of the command line. Names are
/// "-n,--number", or a bare word for what stands without one.
class Options
{
public:
    explicit Options(CLI::App& app) : m_app(app) {}

    Option Flag(const char* names, bool& value, const char* help);
    Option Text(const char* names, std::string& value, const char* help);
    Option Texts(const char* names, std::vector<std::string>& values, const char* help);
    Option Count(const char* names, std::size_t& value, const char* help);
    Option Count(const char* names, std::optional<std::size_t>& value, const char* help);

    /// Those of the program itself, then those of each subcommand.
    std::vector<CommandWords> AllCommands() const;

private:
    CLI::App& m_app;
};

/// What is asked for by "--since" and "--until".
struct TimeSpan
{
    std::string since, until;

    void AddTo(Options& options);
    /// Absent where the option was not given.
    std::optional<std::int64_t> SinceMs() const;
    std::optional<std::int64_t> UntilMs() const;
    bool Given() const { return !since.empty() || !until.empty(); }
};

/// For texts that are a point in time, as ParseWhen has it.
std::string WhyNoTime(const std::string& text);
/// For texts that are a length of time, such as "90s".
std::string WhyNoDuration(const std::string& text);

} // namespace Vexctl
