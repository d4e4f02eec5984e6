#include "vex_core/modules/loader_settings.h"

#include "vex_core/modules/path_list.h"

#include <unordered_set>

namespace VexCore {

void LoaderSettings::Read()
{
    ReadSearchPath();
    ReadFile();
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
    m_fileRead = 0; // what is opened next is opened by the settings of now
}

/// At most once a second, because a file may have to be looked at, and a start requires thousands of modules in one.
void LoaderSettings::ReadFile()
{
    const std::time_t now = std::time(nullptr);
    if (now == m_fileRead)
        return;
    m_fileRead = now;
    std::int64_t limit = 0;
    m_limits = ZipLimits();
    if (m_dom.GetSetting("app.unzip.maxbytes", limit) && limit > 0)
        m_limits.maxBytes = static_cast<std::uint64_t>(limit);
    if (m_dom.GetSetting("app.unzip.maxentries", limit) && limit > 0)
        m_limits.maxEntries = static_cast<std::uint64_t>(limit);
    m_cacheWanted = true;
    m_dom.GetSetting("app.lua.cache", m_cacheWanted);
}

std::string LoaderSettings::CacheFolder() const
{
    bool wanted = m_cacheWanted;
    m_dom.Get("app.lua.cache", wanted);
    const std::string work = m_dom.Get("app.path.work");
    return wanted && !work.empty() ? work + "/cache" : std::string();
}

std::string LoaderSettings::CoreFolder() const
{
    return m_dom.Get("app.path.bin") + "/vex_core";
}

std::string LoaderSettings::GivenPath() const
{
    return m_dom.Get("app.lua.path");
}

} // namespace VexCore
