#pragma once
// The contents of a configuration file, by the decoder and the grammar of the framework's own file configuration: the
// same file is also opened by the launcher through it, and both must see the same entries. Pure rules; nothing here
// logs, because the log asks for settings itself.

#include "vex_core/base/ascii.h"

#include <map>
#include <string>
#include <string_view>

#include <wx/string.h>

namespace VexCore {

/// The file's bytes as text: by its byte-order mark (UTF-8, UTF-16 or UTF-32 of either byte order), else as UTF-8, and
/// as Latin-1 when that is not valid. Empty when the bytes are not what their mark says.
wxString DecodeConfig(std::string_view bytes);

/// Entries by name, which is the same in any case and kept as it is written.
using SettingsEntries = std::map<std::string, std::string, LessInAnyCase>;

/// The entries of the group [settings], values in UTF-8 with quotes, escapes and variables of the environment resolved.
/// Empty when the file is beyond the bounds of a configuration file.
SettingsEntries ParseSettings(std::string_view bytes);

} // namespace VexCore
