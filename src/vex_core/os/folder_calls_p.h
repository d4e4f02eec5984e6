#pragma once
// Shared by the files of the doorway only.

namespace VexCore::os {

/// Asks the observer, where there is one. False: the call is not to be made, errno says with what it failed.
bool MayCall(const char* name, int descriptor, const char* path = nullptr, const char* newPath = nullptr);

} // namespace VexCore::os
