#pragma once
// Start and stop of the database layer.

#include "vex/core/export.h"

namespace VexCore {

class CDom;

class VEX_CORE_API CSqliteDatabase
{
public:
    /// Configures SQLite from the domain's keys below "sqlite.config" (docs/SETTINGS.md, "Databases"; an unknown one is
    /// one warning) and initialises it. Opens no database and starts no thread: the supervisor forks afterwards. Main
    /// thread, once. False, after an error line in the log, when SQLite could not be initialised.
    static bool InitializeSQLite(CDom* dom);

    /// Closes what the core library holds open and shuts SQLite down. When no other thread uses a database any more.
    static void ShutdownSQLite();
};

} // namespace VexCore
