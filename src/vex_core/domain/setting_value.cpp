#include "vex_core/domain/setting_value.h"

#include "vex_core/base/ascii.h"
#include "vex_core/domain/dom_values.h"

#include <algorithm>
#include <cstdio>

namespace VexCore {

namespace {
struct Suffix
{
    SettingKind kind;
    char letter; // in lower case
    std::int64_t times;
};

constexpr std::int64_t kilo = 1024;
constexpr Suffix suffixes[] = {
    {SettingKind::Size, 'k', kilo},
    {SettingKind::Size, 'm', kilo* kilo},
    {SettingKind::Size, 'g', kilo* kilo* kilo},
    {SettingKind::Size, 't', kilo* kilo* kilo* kilo},
    {SettingKind::Time, 's', 1},
    {SettingKind::Time, 'm', 60},
    {SettingKind::Time, 'h', 3600},
    {SettingKind::Time, 'd', 86400},
};

bool IsReadable(const Setting& setting, std::string_view text, std::int64_t& value)
{
    if (IsInteger(setting.kind))
        return IntegerFromSetting(setting.kind, text, value);
    if (setting.kind == SettingKind::Choice)
        return ChoiceFromSetting(setting, text, value);
    bool truth = false;
    if (!IsTruth(setting.kind) || !TruthFromSetting(setting.kind, text, truth))
        return !IsTruth(setting.kind);
    value = truth;
    return true;
}

// Digits of a mode. One that lets others write is none: what they could change there we would not use.
bool ModeFromText(std::string_view text, std::int64_t& value)
{
    constexpr std::int64_t othersWrite = 022;
    constexpr std::size_t mostDigits = 5;
    if (text.empty() || text.size() > mostDigits || text.find_first_not_of("01234567") != std::string_view::npos)
        return false;
    std::int64_t mode = 0;
    for (const char digit : text)
        mode = mode * 8 + (digit - '0');
    if ((mode & othersWrite) != 0)
        return false;
    value = mode;
    return true;
}

std::string ModeText(std::int64_t mode)
{
    char text[32];
    std::snprintf(text, sizeof text, "%04llo", static_cast<unsigned long long>(mode));
    return text;
}

// The text before a comment, which the grammar of the files has on lines of their own only.
std::string_view WithoutComment(std::string_view text)
{
    for (std::size_t i = 1; i < text.size(); ++i)
        if ((text[i] == ';' || text[i] == '#') && (text[i - 1] == ' ' || text[i - 1] == '\t'))
            return text.substr(0, i);
    return text;
}

std::string ValueText(const Setting& setting, std::int64_t value)
{
    if (value == noStandard)
        return std::string();
    if (setting.kind == SettingKind::Flag)
        return value ? "true" : "false";
    if (setting.kind == SettingKind::Switch)
        return value ? "on" : "off";
    if (setting.kind == SettingKind::Mode)
        return ModeText(value);
    if (setting.kind == SettingKind::Choice)
        return std::string(ChoiceWord(setting, value));
    return *setting.unit ? std::to_string(value) + ' ' + setting.unit : std::to_string(value);
}

std::string ListOfWords(const Setting& setting)
{
    std::string list(ChoiceWord(setting, 0));
    for (std::int64_t place = 1; place <= setting.most; ++place)
        list.append(place < setting.most ? ", " : " or ").append(ChoiceWord(setting, place));
    return list;
}

} // namespace

std::string_view WithoutBlanks(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\f\v";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool IntegerFromSetting(SettingKind kind, std::string_view text, std::int64_t& value)
{
    text = WithoutBlanks(text);
    if (kind == SettingKind::Mode)
        return ModeFromText(text, value);
    std::int64_t times = 1;
    const char last = text.empty() ? '\0' : LowerAscii(text.back());
    for (const Suffix& suffix : suffixes)
        if (suffix.kind == kind && suffix.letter == last) {
            times = suffix.times;
            text.remove_suffix(1);
            break;
        }
    std::int64_t number = 0;
    if (!IntFromText(text, number) || number > unlimited / times || number < -(unlimited / times))
        return false;
    value = number * times;
    return true;
}

bool TruthFromSetting(SettingKind kind, std::string_view text, bool& value)
{
    text = WithoutBlanks(text);
    std::string word(text);
    std::transform(word.begin(), word.end(), word.begin(), LowerAscii);
    if (kind == SettingKind::Switch && (word == "on" || word == "off")) {
        value = word == "on";
        return true;
    }
    return BoolFromText(text, value);
}

bool ChoiceFromSetting(const Setting& setting, std::string_view text, std::int64_t& value)
{
    text = WithoutBlanks(text);
    for (std::int64_t place = 0; place <= setting.most; ++place)
        if (IsSameInAnyCase(text, ChoiceWord(setting, place))) {
            value = place;
            return true;
        }
    return false;
}

std::string_view ChoiceWord(const Setting& setting, std::int64_t place)
{
    std::string_view words = setting.words;
    for (; place > 0; --place)
        words.remove_prefix(words.find(' ') + 1);
    return words.substr(0, words.find(' '));
}

std::int64_t WithinRange(const Setting& setting, std::int64_t value)
{
    return value <= 0 && value < setting.least ? setting.standard : std::clamp(value, setting.least, setting.most);
}

SettingVerdict JudgeSetting(const Setting& setting, std::string_view text)
{
    std::int64_t value = 0;
    if (!IsReadable(setting, text, value)) {
        const std::string_view head = WithoutComment(text);
        return head.size() < text.size() && IsReadable(setting, head, value) ? SettingVerdict::CommentBehind
                                                                             : SettingVerdict::Unreadable;
    }
    const bool outside = IsInteger(setting.kind) && (value < setting.least || value > setting.most);
    return outside ? SettingVerdict::OutOfRange : SettingVerdict::Good;
}

std::string SettingThatCounts(const Setting& setting, std::string_view text)
{
    const bool isChoice = setting.kind == SettingKind::Choice;
    if (!IsInteger(setting.kind) && !IsTruth(setting.kind) && !isChoice)
        return std::string(text);
    std::int64_t value = 0;
    if (!IsReadable(setting, text, value))
        return StandardText(setting);
    if (IsTruth(setting.kind) || isChoice)
        return ValueText(setting, value);
    // The library that the numbers at the top of a file are for gets none that it cannot take.
    const bool inRange = value >= setting.least && value <= setting.most;
    if (setting.place == SettingPlace::TopOfFile)
        return inRange ? ValueText(setting, value) : StandardText(setting);
    return ValueText(setting, WithinRange(setting, value));
}

std::string StandardText(const Setting& setting)
{
    return ValueText(setting, setting.standard);
}

std::string WantedText(const Setting& setting)
{
    switch (setting.kind) {
    case SettingKind::Flag:
        return "true or false";
    case SettingKind::Switch:
        return "on or off";
    case SettingKind::Choice:
        return "one of " + ListOfWords(setting);
    case SettingKind::List:
    case SettingKind::Path:
    case SettingKind::Text:
        return "a text";
    case SettingKind::Mode:
        return "octal digits from " + ModeText(setting.least) + " to " + ModeText(setting.most)
               + " that let nobody but the owner write";
    case SettingKind::Number:
    case SettingKind::Size:
    case SettingKind::Time:
        break;
    }
    std::string text = "a whole number";
    if (*setting.unit)
        text += std::string(" of ") + setting.unit;
    if (setting.most != unlimited)
        text += " from " + std::to_string(setting.least) + " to " + std::to_string(setting.most);
    else if (setting.least != noStandard)
        text += " from " + std::to_string(setting.least) + " on";
    if (setting.kind == SettingKind::Size)
        text += ", or one with K, M, G or T behind it";
    if (setting.kind == SettingKind::Time)
        text += ", or one with s, m, h or d behind it";
    return text;
}

} // namespace VexCore
