#pragma once
// What an operator may have meant by a name that is no setting. Pure rules.

#include <string>
#include <string_view>

namespace VexCore {

/// How many letters have to be changed, added, left out or exchanged with the next one; in any case.
std::size_t EditDistance(std::string_view a, std::string_view b);

/// Whether a name of the group [settings] can only be meant for the host, known or not.
bool IsNameOfHost(std::string_view name);

/// The key that is nearest to a name of the group [settings], or to one before the first group; empty where none is
/// near.
std::string NearestSetting(std::string_view name);
std::string NearestAtTop(std::string_view name);

/// Whether a group's name is nearly, but not quite, that of the settings.
bool IsNearSettingsGroup(std::string_view group);

} // namespace VexCore
