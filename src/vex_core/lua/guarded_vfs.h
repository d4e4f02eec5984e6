#pragma once
// How databases of Lua code find their files, also those that a statement names: ATTACH, and VACUUM INTO.

namespace VexCore {

/// The name of SQLite's own way to files, but for the rule of the work folder: a file below it is opened only where
/// nobody else can have made it what it is, and is for its owner alone. What breaks the rule is logged, and cannot be
/// opened. A statement that names a way of its own, in "file:NAME?vfs=WAY", has it. SQLite knows the name, or opens
/// nothing by it. Any thread.
const char* GuardedVfs();

} // namespace VexCore
