#pragma once
// Lists of paths with ";" between them: "app.lua.zippath", "app.lua.path" and package.path.

#include <string>
#include <vector>

namespace VexCore {

/// Without the empty ones.
std::vector<std::string> SplitPathList(const std::string& list);
/// Adds a path behind the others of a list.
void AddToPathList(std::string& list, const std::string& path);

} // namespace VexCore
