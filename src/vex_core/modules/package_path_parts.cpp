#include "vex_core/modules/package_path_parts.h"

#include "vex_core/base/path_list.h"

#include <algorithm>
#include <vector>

namespace VexCore {

void PackagePathParts::Cut(std::string_view packagePath, const std::string& given)
{
    if (packagePath == m_packagePath && given == m_given)
        return;
    PackagePathParts parts;
    const std::vector<std::string> first = SplitPathList(given);
    for (const std::string& item : SplitPathList(std::string(packagePath))) {
        std::string& part = std::find(first.begin(), first.end(), item) != first.end() ? parts.m_before : parts.m_after;
        AddToPathList(part, item);
    }
    parts.m_packagePath = packagePath;
    parts.m_given = given;
    *this = std::move(parts);
}

} // namespace VexCore
