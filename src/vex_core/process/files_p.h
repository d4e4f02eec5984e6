#pragma once

#include <string>

namespace VexCore {

/// Makes a folder and its missing parents, each with mode 0700. False with errno; a folder that is there already is fine.
bool MakePrivateFolders(const std::string& path);

} // namespace VexCore
