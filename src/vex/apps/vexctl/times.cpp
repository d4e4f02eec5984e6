#include "vex/apps/vexctl/times.h"

#include "vex_core/base/ascii.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <limits>

namespace Vexctl {

namespace {
constexpr std::int64_t secondMs = 1000;
constexpr std::int64_t minuteMs = 60 * secondMs;
constexpr std::int64_t hourMs = 60 * minuteMs;
constexpr std::int64_t dayMs = 24 * hourMs;

using VexCore::IsDigit;

std::int64_t UnitMs(char unit)
{
    switch (unit) {
    case 's':
        return secondMs;
    case 'm':
        return minuteMs;
    case 'h':
        return hourMs;
    case 'd':
        return dayMs;
    case 'w':
        return 7 * dayMs;
    default:
        return 0;
    }
}

// Takes exactly so many digits off the text.
bool TakeNumber(std::string_view& text, std::size_t digits, int& value)
{
    value = 0;
    if (text.size() < digits)
        return false;
    for (std::size_t i = 0; i < digits; ++i) {
        if (!IsDigit(text[i]))
            return false;
        value = value * 10 + (text[i] - '0');
    }
    text.remove_prefix(digits);
    return true;
}

bool TakeCharacter(std::string_view& text, char wanted)
{
    if (text.empty() || text.front() != wanted)
        return false;
    text.remove_prefix(1);
    return true;
}

// Takes ".123" off the text; without a point there are none.
bool TakeFraction(std::string_view& text, int& milliseconds)
{
    milliseconds = 0;
    if (!TakeCharacter(text, '.'))
        return true;
    int worth = 100;
    bool any = false;
    while (!text.empty() && IsDigit(text.front())) {
        milliseconds += (text.front() - '0') * worth;
        worth /= 10;
        any = true;
        text.remove_prefix(1);
    }
    return any;
}

bool TakeTimeOfDay(std::string_view& text, struct tm& time, int& milliseconds)
{
    milliseconds = 0;
    if (!TakeNumber(text, 2, time.tm_hour) || !TakeCharacter(text, ':') || !TakeNumber(text, 2, time.tm_min))
        return false;
    if (TakeCharacter(text, ':') && (!TakeNumber(text, 2, time.tm_sec) || !TakeFraction(text, milliseconds)))
        return false;
    return time.tm_hour < 24 && time.tm_min < 60 && time.tm_sec <= 60;
}

// What is behind the time of day: nothing, "Z", "+01:00" or "+0100". The offset counts east of Greenwich.
bool TakeZone(std::string_view text, std::optional<int>& offsetSeconds)
{
    offsetSeconds.reset();
    if (text.empty())
        return true;
    if (text == "Z" || text == "z") {
        offsetSeconds = 0;
        return true;
    }
    const int sign = text.front() == '-' ? -1 : 1;
    int hours = 0;
    int minutes = 0;
    if (!TakeCharacter(text, '+') && !TakeCharacter(text, '-'))
        return false;
    if (!TakeNumber(text, 2, hours))
        return false;
    TakeCharacter(text, ':');
    if (!TakeNumber(text, 2, minutes) || !text.empty() || hours > 14 || minutes > 59)
        return false;
    offsetSeconds = sign * (hours * 3600 + minutes * 60);
    return true;
}

// The day must be one of the calendar: mktime would make the 3rd of March of the 31st of February.
bool IsDate(int year, int month, int day)
{
    static constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month >= 1 && month <= 12 && day >= 1 && day <= days[month - 1] + (month == 2 && leap ? 1 : 0);
}

std::optional<std::int64_t> ParseIso(std::string_view text)
{
    struct tm time = {};
    int year = 0;
    int month = 0;
    if (!TakeNumber(text, 4, year) || !TakeCharacter(text, '-') || !TakeNumber(text, 2, month)
        || !TakeCharacter(text, '-') || !TakeNumber(text, 2, time.tm_mday) || !IsDate(year, month, time.tm_mday))
        return std::nullopt;
    time.tm_year = year - 1900;
    time.tm_mon = month - 1;
    time.tm_isdst = -1;
    int milliseconds = 0;
    std::optional<int> offset;
    if (!text.empty()) {
        if (!TakeCharacter(text, 'T') && !TakeCharacter(text, ' '))
            return std::nullopt;
        if (!TakeTimeOfDay(text, time, milliseconds) || !TakeZone(text, offset))
            return std::nullopt;
    }
    const std::time_t seconds = offset ? ::timegm(&time) - *offset : std::mktime(&time);
    return static_cast<std::int64_t>(seconds) * secondMs + milliseconds;
}

struct tm BrokenDown(std::int64_t timeMs, bool utc)
{
    // What no agent writes is shown as the first or the last time that four digits have for a year.
    constexpr std::int64_t firstSecond = -30'610'224'000;
    constexpr std::int64_t lastSecond = 253'402'300'799;
    const auto seconds = static_cast<std::time_t>(
        std::clamp(timeMs / secondMs - (timeMs % secondMs < 0 ? 1 : 0), firstSecond, lastSecond));
    struct tm time = {};
    if (utc)
        ::gmtime_r(&seconds, &time);
    else
        ::localtime_r(&seconds, &time);
    return time;
}

} // namespace

std::optional<std::int64_t> ParseDuration(std::string_view text)
{
    if (text.empty())
        return std::nullopt;
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max() / 4;
    std::int64_t total = 0;
    while (!text.empty()) {
        std::int64_t number = 0;
        std::size_t digits = 0;
        for (; digits < text.size() && IsDigit(text[digits]); ++digits) {
            number = number * 10 + (text[digits] - '0');
            if (number > most / (7 * dayMs))
                return std::nullopt;
        }
        if (digits == 0 || digits == text.size())
            return std::nullopt;
        const std::int64_t unit = UnitMs(text[digits]);
        if (unit == 0)
            return std::nullopt;
        total += number * unit;
        if (total > most)
            return std::nullopt;
        text.remove_prefix(digits + 1);
    }
    return total;
}

std::optional<std::int64_t> ParseWhen(std::string_view text, std::int64_t nowMs)
{
    if (text == "now")
        return nowMs;
    if (const std::optional<std::int64_t> before = ParseDuration(text))
        return nowMs - *before;
    return ParseIso(text);
}

std::string LocalTime(std::int64_t timeMs)
{
    const struct tm time = BrokenDown(timeMs, false);
    char text[64];
    return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &time));
}

std::string UtcTime(std::int64_t timeMs)
{
    const struct tm time = BrokenDown(timeMs, true);
    std::string text = "0000-00-00T00:00:00.000Z";
    // By hand: strftime takes longer than all else that a line of JSON needs.
    const auto put = [&text](std::size_t lastDigit, int number) {
        for (; number > 0; number /= 10)
            text[lastDigit--] = static_cast<char>('0' + number % 10);
    };
    put(3, time.tm_year + 1900);
    put(6, time.tm_mon + 1);
    put(9, time.tm_mday);
    put(12, time.tm_hour);
    put(15, time.tm_min);
    put(18, time.tm_sec);
    put(22, static_cast<int>((timeMs % secondMs + secondMs) % secondMs));
    return text;
}

std::string DurationText(std::int64_t durationMs)
{
    const auto parts = [](std::int64_t large, const char* largeUnit, std::int64_t small, const char* smallUnit) {
        std::string text = std::to_string(large) + " " + largeUnit;
        return small == 0 ? text : text + " " + std::to_string(small) + " " + smallUnit;
    };
    if (durationMs >= dayMs)
        return parts(durationMs / dayMs, "d", durationMs % dayMs / hourMs, "h");
    if (durationMs >= hourMs)
        return parts(durationMs / hourMs, "h", durationMs % hourMs / minuteMs, "min");
    if (durationMs >= minuteMs)
        return parts(durationMs / minuteMs, "min", durationMs % minuteMs / secondMs, "s");
    return std::to_string(durationMs / secondMs) + " s";
}

} // namespace Vexctl
