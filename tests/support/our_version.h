#pragma once
// Texts of tests that have the agent's own version in them.

#include "vex/apps/vex/version.h"

#include <string>

namespace Test {

/// The text with {version} (three numbers), {build}, and {other}, a version that is not ours, put in.
inline std::string Ours(std::string text)
{
    const auto numbers = [](int patch) {
        return std::to_string(VEX_VERSION_MAJOR) + "." + std::to_string(VEX_VERSION_MINOR) + "."
               + std::to_string(patch);
    };
    const std::string pairs[][2] = {{"{version}", numbers(VEX_VERSION_PATCH)},
                                    {"{other}", numbers(VEX_VERSION_PATCH + 1)},
                                    {"{build}", std::to_string(VEX_VERSION_BUILD)}};
    for (const auto& [mark, value] : pairs)
        for (std::size_t at; (at = text.find(mark)) != std::string::npos;)
            text.replace(at, mark.size(), value);
    return text;
}

} // namespace Test
