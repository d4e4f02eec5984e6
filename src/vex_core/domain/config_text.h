#pragma once
// The contents of a configuration file, by the decoder and the grammar of the framework's own file configuration: the
// same file is also opened by the launcher through it, and both must see the same entries. Pure rules; nothing here
// logs, because the log asks for settings itself.

#include "vex_core/base/ascii.h"

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <wx/string.h>

namespace VexCore {

/// The file's bytes as text: by its byte-order mark (UTF-8, UTF-16 or UTF-32 of either byte order), else as UTF-8, and
/// as Latin-1 when that is not valid. Empty when the bytes are not what their mark says.
wxString DecodeConfig(std::string_view bytes);

/// Entries by name, which is the same in any case and kept as it is written.
using SettingsEntries = std::map<std::string, std::string, LessInAnyCase>;

/// What a file says, values in UTF-8 with quotes, escapes and variables of the environment resolved.
struct ConfigContents
{
    SettingsEntries settings; ///< of the group [settings]
    SettingsEntries lockedSettings; ///< those of them whose names begin with "!" in the file, without it
    SettingsEntries top; ///< before the first group: for these the launcher asks the framework
    SettingsEntries lockedTop;
};

/// Nothing when the file is beyond the bounds of a configuration file.
ConfigContents ParseConfig(std::string_view bytes);

/// Whether the file is beyond the bounds of a configuration file.
bool IsConfigTooLarge(std::string_view bytes);

/// A line of such a file that says something, or should. The framework tells nobody where it found an entry.
struct ConfigLine
{
    enum class Kind {
        Group,
        Entry,
        Neither, ///< the framework passes over it
    };
    std::size_t number = 0; ///< from 1 on
    Kind kind = Kind::Neither;
    std::string group; ///< the group that begins here or that the entry stands in; empty at the top
    std::string name; ///< of an entry, without the "!"
    bool locked = false; ///< an entry with a "!" before it
};

/// All of them, in their order.
std::vector<ConfigLine> ConfigLines(std::string_view bytes);

} // namespace VexCore
