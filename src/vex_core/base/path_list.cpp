#include "vex_core/base/path_list.h"

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

void AddToPathList(std::string& list, const std::string& path)
{
    list.append(list.empty() ? "" : ";").append(path);
}

} // namespace VexCore
