#pragma once
// What is put right before `main`, by a static initialiser, so that every host gets it without a line of its own.

namespace VexCore {

/// Opens /dev/null on each of the descriptors 0 to 2 that is closed; where that is missing the root folder, which
/// nothing can be read from or written to. Otherwise the next file opened, a database say, would get such a number, and
/// what is meant for standard error would be written into it.
void OpenStandardDescriptors();

/// A write beyond the limit of a file's size is an error of that write, as on a full disk, and does not end the
/// process.
void IgnoreFileSizeSignal();

/// Makes text UTF-8 where the environment asks for no character set at all: when the locale's set is ASCII (LANG unset
/// or "C", or a locale that is not installed), LC_CTYPE becomes C.UTF-8 where that exists. And makes LC_NUMERIC "C"
/// whatever the environment says, so that 1.5 is 1.5 in Lua, JSON and settings.
///
/// Both are set in the process and in the environment: the framework's locale object asks the environment again
/// (setlocale(LC_ALL, "")), and so a host need do nothing to keep them. LC_ALL, which would override both, is taken
/// apart into the categories that it stands for. Single-threaded.
void SettleLocale();

} // namespace VexCore
