#pragma once
// Unpacking ZIP archives into a folder, safely.

#include "vex/core/export.h"

class wxFileName;
class wxString;
class wxZipEntry;

namespace VexCore {

/// Asked for each entry, on the thread that called `Unzip`: `entry` is only for looking at and may be null,
/// `destination` is the full path at which it would be written; both are gone after the call. True writes
/// the entry, false skips it. Where others can exchange folders on the way to a file that is there, the path leads
/// through the open folder, so that a callback that removes the file removes no other.
using UnzipCallback = bool (*)(void* context, const wxZipEntry* entry, const wxString* destination);

/// Walks `archive` and writes the entries that `callback` answers true for below `folder`, which must exist. True: the
/// whole archive was processed and everything written is on stable storage. False: one log line says which archive,
/// which entry and why; an archive that is damaged or hostile by its headers has changed nothing and the callback was
/// not called. Each file is old or new at any moment, never a mixture. Any thread; blocks. Throws only what the
/// callback throws. Format and limits: docs/FORMATS.md, "ZIP archives".
VEX_CORE_API bool Unzip(const wxFileName& archive, const wxFileName& folder, UnzipCallback callback, void* context);

} // namespace VexCore
