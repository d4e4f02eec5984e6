#include "vex/apps/vexctl/event_key.h"

#include "vex_core/base/ascii.h"

#include <algorithm>
#include <cstdio>

namespace Vexctl {

namespace {
constexpr std::size_t hashDigits = 16;
constexpr std::size_t storedDigits = 32;

bool AreHexDigits(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return VexCore::IsDigit(c) || (c >= 'a' && c <= 'f'); });
}

// One or more digits, no longer than a number can be.
bool IsHexNumber(std::string_view text)
{
    return !text.empty() && text.size() <= 16 && AreHexDigits(text);
}

std::uint64_t Fnv1a(std::string_view bytes)
{
    std::uint64_t hash = 0xcbf29ce484222325u;
    for (const char byte : bytes)
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3u;
    return hash;
}

} // namespace

std::string EventKey(std::int64_t id, std::string_view xml)
{
    char hash[hashDigits + 1];
    std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(Fnv1a(xml)));
    return std::to_string(id) + "-" + hash;
}

std::optional<std::int64_t> IdOfEventKey(std::string_view key)
{
    const std::size_t dash = key.find('-');
    if (dash == 0 || dash > 18 || key.size() != dash + 1 + hashDigits
        || key.substr(0, dash).find_first_not_of("0123456789") != std::string_view::npos
        || !AreHexDigits(key.substr(dash + 1)))
        return std::nullopt;
    return std::stoll(std::string(key.substr(0, dash)));
}

// Digits of the time and random ones; or time, process and number where the agent found no random ones.
bool IsStoredEventKey(std::string_view key)
{
    const std::size_t first = key.find('-');
    if (first == std::string_view::npos)
        return key.size() == storedDigits && AreHexDigits(key);
    const std::size_t second = key.find('-', first + 1);
    return second != std::string_view::npos && IsHexNumber(key.substr(0, first))
           && IsHexNumber(key.substr(first + 1, second - first - 1)) && IsHexNumber(key.substr(second + 1));
}

} // namespace Vexctl
