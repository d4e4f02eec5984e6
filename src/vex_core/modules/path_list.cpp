#include "vex_core/modules/path_list.h"

#include <algorithm>

namespace VexCore {

std::vector<std::string> SplitPathList(const std::string& list)
{
    std::vector<std::string> items;
    for (std::size_t begin = 0; begin <= list.size();) {
        const std::size_t end = std::min(list.find(';', begin), list.size());
        if (end > begin)
            items.push_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    return items;
}

void PackagePathParts::Cut(const std::string& packagePath, const std::string& given)
{
    if (packagePath == m_packagePath && given == m_given)
        return;
    PackagePathParts parts;
    const std::vector<std::string> first = SplitPathList(given);
    for (const std::string& item : SplitPathList(packagePath)) {
        std::string& part = std::find(first.begin(), first.end(), item) != first.end() ? parts.m_before : parts.m_after;
        part.append(part.empty() ? "" : ";").append(item);
    }
    parts.m_packagePath = packagePath;
    parts.m_given = given;
    *this = std::move(parts);
}

} // namespace VexCore
