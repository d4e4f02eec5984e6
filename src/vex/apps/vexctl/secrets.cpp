#include "vex/apps/vexctl/secrets.h"

#include "vex_core/base/ascii.h"

#include <algorithm>
#include <array>

namespace Vexctl {

namespace {
constexpr std::array<std::string_view, 12> secretWords = {"password",   "passwd",        "passphrase", "passcode",
                                                          "pwd",        "secret",        "token",      "key",
                                                          "credential", "authorization", "community",  "cookie"};
// Which letters a word begins with: most places of a name are passed with one look.
constexpr std::array<bool, 256> firstLetters = [] {
    std::array<bool, 256> letters = {};
    for (const std::string_view word : secretWords)
        letters[static_cast<unsigned char>(word.front())] = true;
    return letters;
}();
constexpr std::string_view schemes[] = {"basic", "bearer", "digest", "negotiate"};

constexpr std::array<bool, 256> nameCharacters = [] {
    std::array<bool, 256> characters = {};
    for (const char c : std::string_view("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-."))
        characters[static_cast<unsigned char>(c)] = true;
    return characters;
}();

bool IsNameCharacter(char c)
{
    return nameCharacters[static_cast<unsigned char>(c)];
}

std::string Lower(std::string_view text)
{
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), VexCore::LowerAscii);
    return lower;
}

bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

std::size_t SkipBlanks(std::string_view line, std::size_t at)
{
    while (at < line.size() && IsBlank(line[at]))
        ++at;
    return at;
}

// Where a value ends that begins at `at`: with its quotation mark where it begins with one.
std::size_t EndOfValue(std::string_view line, std::size_t at)
{
    if (at < line.size() && (line[at] == '"' || line[at] == '\'')) {
        for (std::size_t i = at + 1; i < line.size(); ++i) {
            if (line[i] == '\\')
                ++i;
            else if (line[i] == line[at])
                return i + 1;
        }
        return line.size();
    }
    while (at < line.size() && !IsBlank(line[at])
           && std::string_view(",;&\"'}])>").find(line[at]) == std::string_view::npos)
        ++at;
    return at;
}

// Where the value behind a secret name begins, whose end is `at`: behind "=" or ":", or behind blanks for an option.
std::size_t FindValue(std::string_view line, std::size_t begin, std::size_t at)
{
    const bool isOption = line[begin] == '-';
    std::size_t next = at;
    if (next < line.size() && (line[next] == '"' || line[next] == '\''))
        ++next; // of a name in quotation marks
    next = SkipBlanks(line, next);
    if (next < line.size() && (line[next] == '=' || line[next] == ':'))
        return SkipBlanks(line, next + 1);
    return isOption && next > at ? next : std::string_view::npos;
}

void MaskValue(std::string_view line, std::size_t& at, std::string& masked)
{
    std::size_t end = EndOfValue(line, at);
    if (std::find(std::begin(schemes), std::end(schemes), Lower(line.substr(at, end - at))) != std::end(schemes))
        end = EndOfValue(line, SkipBlanks(line, end));
    if (end > at) {
        const bool isQuoted = line[at] == '"' || line[at] == '\'';
        const std::string quote(isQuoted ? 1 : 0, line[at]);
        masked += quote + maskedText + quote;
    }
    at = end;
}

// "//user:password@host"
std::size_t EndOfAddressPassword(std::string_view line, std::size_t colon)
{
    std::size_t at = colon + 1;
    while (at < line.size() && !IsBlank(line[at]) && line[at] != '/' && line[at] != '"' && line[at] != '@')
        ++at;
    return at < line.size() && line[at] == '@' && at > colon + 1 ? at : std::string_view::npos;
}

std::string MaskLine(std::string_view line)
{
    std::string masked;
    bool isInAddress = false; // between "//" and the next "/"
    for (std::size_t at = 0; at < line.size();) {
        if (IsNameCharacter(line[at])) {
            std::size_t end = at;
            while (end < line.size() && IsNameCharacter(line[end]))
                ++end;
            std::size_t value = FindValue(line, at, end);
            if (value != std::string_view::npos && !IsSecretName(line.substr(at, end - at)))
                value = std::string_view::npos;
            masked.append(line.substr(at, (value == std::string_view::npos ? end : value) - at));
            at = value == std::string_view::npos ? end : value;
            if (value != std::string_view::npos)
                MaskValue(line, at, masked);
            continue;
        }
        if (VexCore::StartsWith(line.substr(at), "//")) {
            isInAddress = true;
            masked += "//";
            at += 2;
            continue;
        }
        const std::size_t end =
            isInAddress && line[at] == ':' ? EndOfAddressPassword(line, at) : std::string_view::npos;
        isInAddress = isInAddress && line[at] != '/' && !IsBlank(line[at]) && end == std::string_view::npos;
        masked += line[at];
        if (end != std::string_view::npos) {
            masked += maskedText;
            at = end;
        } else {
            ++at;
        }
    }
    return masked;
}

// Each line through `mask`; a private key as a whole.
template <typename Mask>
std::string MaskLines(std::string_view text, const Mask& mask)
{
    std::string masked;
    masked.reserve(text.size());
    bool isInKey = false;
    while (!text.empty()) {
        const std::size_t size = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, size);
        const bool isMark = line.find("PRIVATE KEY-----") != std::string_view::npos;
        const bool begins = isMark && line.find("-----BEGIN ") != std::string_view::npos;
        if (begins)
            masked += maskedText;
        else if (!isInKey)
            masked += mask(line);
        isInKey = begins || (isInKey && !isMark);
        if (size < text.size() && !isInKey)
            masked += '\n';
        text.remove_prefix(std::min(size + 1, text.size()));
    }
    return masked;
}

std::string MaskSetting(std::string_view line)
{
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos || !IsSecretName(line.substr(0, equals)))
        return MaskLine(line);
    return std::string(line.substr(0, equals + 1)) + " " + maskedText;
}

} // namespace

bool IsSecretName(std::string_view name)
{
    for (; !name.empty(); name.remove_prefix(1)) {
        if (!firstLetters[static_cast<unsigned char>(VexCore::LowerAscii(name.front()))])
            continue;
        for (const std::string_view word : secretWords)
            if (name.size() >= word.size()
                && std::equal(word.begin(), word.end(), name.begin(),
                              [](char letter, char c) { return letter == VexCore::LowerAscii(c); }))
                return true;
    }
    return false;
}

std::string MaskSecrets(std::string_view text)
{
    return MaskLines(text, MaskLine);
}

std::string MaskSettings(std::string_view text)
{
    return MaskLines(text, MaskSetting);
}

Json MaskedJson(const Json& json)
{
    Json masked = json;
    if (json.is_string()) {
        masked = MaskSecrets(json.get_ref<const std::string&>());
    } else if (json.is_structured()) {
        for (auto entry = masked.begin(); entry != masked.end(); ++entry) {
            const bool isSecret = json.is_object() && IsSecretName(entry.key()) && !entry->is_null();
            *entry = isSecret ? Json(maskedText) : MaskedJson(*entry);
        }
    }
    return masked;
}

} // namespace Vexctl
