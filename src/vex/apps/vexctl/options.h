#pragma once
// Options that several subcommands have.

#include <cstdint>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace Vexctl {

/// What is asked for by "--since" and "--until".
struct TimeSpan
{
    std::string since, until;

    void AddTo(CLI::App& app);
    /// Absent where the option was not given.
    std::optional<std::int64_t> SinceMs() const;
    std::optional<std::int64_t> UntilMs() const;
    bool Given() const { return !since.empty() || !until.empty(); }
};

/// For texts that are a length of time, such as "90s".
CLI::Validator IsDuration();

} // namespace Vexctl
