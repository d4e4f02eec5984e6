// A name that is accepted means the same on every system and in every reader, and stays below the folder that an
// archive is unpacked to. Pure rules.

#include "vex_core/zip/zip_names.h"

#include "vex_core/base/ascii.h"
#include "vex_core/base/utf8.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace VexCore {
namespace Zip {
namespace {
bool IsControl(char32_t character)
{
    return character < 0x20 || (character >= 0x7f && character < 0xa0);
}

// What nearly all names are made of, and needs no decoding.
bool IsPlain(char c)
{
    return c >= ' ' && c <= '~' && c != '\\' && c != ':';
}

const char* WhyCharactersAreRefused(std::string_view name)
{
    for (;;) {
        while (!name.empty() && IsPlain(name.front()))
            name.remove_prefix(1);
        if (name.empty())
            return nullptr;
        char32_t character = 0;
        const std::size_t length = DecodeUtf8(name, character);
        if (length == 0)
            return "its name is not valid UTF-8";
        if (IsControl(character))
            return "its name has a control character";
        if (character == U'\\')
            return "its name has a backslash";
        if (character == U':')
            return "its name has a colon";
        name.remove_prefix(length);
    }
}

const char* WhyComponentIsRefused(std::string_view component)
{
    if (component.empty())
        return "its name has an empty component";
    if (component == "." || component == "..")
        return "its name has a component \".\" or \"..\"";
    if (component.size() > maxComponent)
        return "its name has a component of more than 255 bytes";
    return nullptr;
}

// How many bytes are equal from the first on, of `size`. By words: to open an archive is for the most part to compare
// names, and those that are compared begin alike.
std::size_t EqualBytes(const char* left, const char* right, std::size_t size)
{
    std::size_t at = 0;
    for (std::uint64_t a = 0, b = 0; size - at >= sizeof a; at += sizeof a) {
        std::memcpy(&a, left + at, sizeof a);
        std::memcpy(&b, right + at, sizeof b);
        if (a != b)
            break;
    }
    while (at < size && left[at] == right[at])
        ++at;
    return at;
}

} // namespace

const char* WhyNameIsRefused(std::string_view name)
{
    if (name.empty())
        return "its name is empty";
    if (name.front() == '/')
        return "its name is absolute";
    if (const char* const why = WhyCharactersAreRefused(name))
        return why;
    std::string_view rest = PathOf(name);
    if (rest.size() > maxPath)
        return "its name has more than 1024 bytes";
    for (std::size_t depth = 1;; ++depth) {
        const std::size_t slash = rest.find('/');
        if (const char* const why = WhyComponentIsRefused(rest.substr(0, slash)))
            return why;
        if (depth > maxDepth)
            return "its name is more than 32 levels deep";
        if (slash == std::string_view::npos)
            return nullptr;
        rest.remove_prefix(slash + 1);
    }
}

std::string_view PathOf(std::string_view name)
{
    if (!name.empty() && name.back() == '/')
        name.remove_suffix(1);
    return name;
}

int ComparePaths(std::string_view left, std::string_view right)
{
    const std::size_t common = std::min(left.size(), right.size());
    const std::size_t at = EqualBytes(left.data(), right.data(), common);
    if (at == common)
        return left.size() < right.size() ? -1 : static_cast<int>(left.size() > right.size());
    const auto weight = [](char c) { return c == '/' ? 0 : static_cast<int>(static_cast<unsigned char>(c)); };
    return weight(left[at]) - weight(right[at]);
}

bool LiesBelow(std::string_view path, std::string_view folder)
{
    return path.size() > folder.size() && path[folder.size()] == '/' && StartsWith(path, folder);
}

} // namespace Zip

std::string EscapeForLog(std::string_view text)
{
    constexpr std::size_t maxShown = 300;
    std::string shown;
    while (!text.empty()) {
        if (shown.size() >= maxShown)
            return shown + "...";
        char32_t character = 0;
        std::size_t length = DecodeUtf8(text, character);
        const bool plain = length != 0 && !Zip::IsControl(character) && character != 0x2028 && character != 0x2029;
        if (length == 0)
            length = 1;
        for (const char c : text.substr(0, length)) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
            shown += plain ? std::string(1, c) : std::string(hex);
        }
        text.remove_prefix(length);
    }
    return shown;
}

} // namespace VexCore
