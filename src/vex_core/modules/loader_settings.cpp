#include "vex_core/modules/loader_settings.h"

#include "vex_core/base/path_list.h"

#include <unordered_set>

namespace VexCore {

void LoaderSettings::Read()
try {
    if (!m_watch.TakeChange(m_dom))
        return;
    ReadSearchPath();
    m_limits.maxBytes = static_cast<std::uint64_t>(IntSetting(m_dom, "app.unzip.maxbytes"));
    m_limits.maxEntries = static_cast<std::uint64_t>(IntSetting(m_dom, "app.unzip.maxentries"));
    m_givenPath = m_dom.Get("app.lua.path");
    const std::string work = m_dom.Get("app.path.work");
    m_cacheFolder = BoolSetting(m_dom, "app.lua.cache") && !work.empty() ? work + "/cache" : std::string();
} catch (...) {
    m_watch.Forget(); // without memory for it, a change would be lost
    throw;
}

void LoaderSettings::ReadSearchPath()
{
    std::string text = m_dom.Get("app.lua.zippath");
    if (text == m_searchPathText)
        return;
    std::vector<std::string> paths;
    std::unordered_set<std::string> seen;
    for (const std::string& item : SplitPathList(text)) {
        std::string path = item.front() == '/' ? item : m_dom.Get("app.path.bin") + "/" + item;
        if (seen.insert(path).second)
            paths.push_back(std::move(path));
    }
    m_searchPath = std::move(paths);
    m_searchPathText = std::move(text);
    ++m_searchPathNumber;
}

std::string LoaderSettings::CoreFolder() const
{
    return m_dom.Get("app.path.bin") + "/vex_core";
}

} // namespace VexCore
