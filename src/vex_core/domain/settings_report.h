#pragma once
// What the files say about settings, entry by entry: which count and where they come from, and what is wrong with the
// others. Pure rules.

#include "vex_core/domain/config_text.h"
#include "vex_core/domain/known_settings.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace VexCore {

/// A setting as it counts.
struct SettingInForce
{
    enum class Origin {
        Default,
        Domain, ///< the command line, or code that runs
        File,
    };
    std::string key;
    std::string value; ///< a number in its unit and with it; empty where there is none
    Origin origin = Origin::Default;
    std::string file; ///< empty unless it comes from one
    std::size_t line = 0; ///< from 1 on
    const Setting* setting = nullptr; ///< its row of the table; null for one that only a plugin knows
};

enum class SettingFault {
    Unknown, ///< no such setting
    Unreadable,
    CommentBehind, ///< it could be read without the comment behind it
    OutOfRange,
    Misplaced, ///< it counts elsewhere, but not where it stands
    Group, ///< one whose name is nearly that of the settings
    Twice, ///< another line of the file has it as well, and counts
    NoEntry, ///< a line that is no entry, group or comment
    NotUsed, ///< the whole file: it cannot be read, is too large, or somebody else had a hand in it
};

/// The name of a fault, for programs: "out-of-range".
const char* NameOf(SettingFault fault);

/// What is wrong with one entry, line or file.
struct SettingFinding
{
    SettingFault fault = SettingFault::Unknown;
    std::string file; ///< empty when it stands in the domain
    std::size_t line = 0; ///< from 1 on; 0 for the domain and for a whole file
    std::string key; ///< or the name of the group; empty for a line that is none and for a file
    std::string value; ///< what stands there
    std::string used; ///< the value that counts instead; empty where there is none
    std::string nearest; ///< what may have been meant; empty where nothing is near
    std::string text; ///< all of this as a sentence, with the place before it
    bool toldAtStart = false; ///< the start tells of it by this text; of others the framework has told, or nobody
};

struct SettingsReport
{
    std::vector<SettingInForce> inForce; ///< sorted by key
    std::vector<SettingFinding> findings; ///< by file, the strongest first, and line
};

/// A file with settings.
struct SettingsSource
{
    enum class Role { Local, DropIn, Global };

    Role role = Role::Local;
    std::string file;
    std::string bytes;
    std::string refused; ///< a sentence on why it is not used; empty when it is
    ConfigContents contents; ///< of these bytes
};

/// `sources` in the order in which they count, the strongest first; `domain` has the keys that it has a text for.
SettingsReport ReportOn(const std::vector<SettingsSource>& sources, const std::map<std::string, std::string>& domain);

} // namespace VexCore
