#pragma once
// What a text says as the value of a setting. Pure rules.

#include "vex_core/domain/known_settings.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace VexCore {

/// A value of a file keeps the blanks behind it, as the framework has it. They are no part of a number.
std::string_view WithoutBlanks(std::string_view text);

/// A whole number, for a size or a time with its suffix in either case, for a mode in octal digits. Anything else, and
/// what does not fit or lets others write, answers false and leaves `value` alone. Blanks around it do not count.
bool IntegerFromSetting(SettingKind kind, std::string_view text, std::int64_t& value);
/// The same for a flag or a switch.
bool TruthFromSetting(SettingKind kind, std::string_view text, bool& value);
/// The same for a choice: which of its words it is, from 0, in any case.
bool ChoiceFromSetting(const Setting& setting, std::string_view text, std::int64_t& value);
/// The word at that place.
std::string_view ChoiceWord(const Setting& setting, std::int64_t place);

/// One rule for all integers: 0 or below where the range begins above means nothing, so the default counts; another
/// value outside the range counts as its nearest bound.
std::int64_t WithinRange(const Setting& setting, std::int64_t value);

enum class SettingVerdict { Good, CommentBehind, Unreadable, OutOfRange };

/// What is wrong with the text as the value of this setting.
SettingVerdict JudgeSetting(const Setting& setting, std::string_view text);

/// The value that counts where this text stands, as text: a number in its unit and with it, "true" or "on", the word
/// of a choice as the table has it, or the text itself. Empty where nothing counts.
std::string SettingThatCounts(const Setting& setting, std::string_view text);
/// The default in the same form.
std::string StandardText(const Setting& setting);

/// What is wanted there, for a sentence: "a whole number from 1 to 10000".
std::string WantedText(const Setting& setting);

} // namespace VexCore
