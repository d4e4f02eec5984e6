#pragma once
// What the disk log asks of the system beside the calls of files.

#include <cstddef>

#include <sys/types.h>

namespace VexCore::os {

/// Makes `descriptor` lead where `from` leads, close-on-exec, and closes `from`. False with errno; then `from` stays open.
bool ReplaceDescriptor(int from, int descriptor);

/// Where the last write through `descriptor` ended; -1 with errno.
off_t FilePosition(int descriptor);

bool IsTerminal(int descriptor);

/// Writes all of it as far as that works; for standard error, where nobody can be told about a failure. Keeps errno.
void WriteBestEffort(int descriptor, const char* data, std::size_t size);

} // namespace VexCore::os
