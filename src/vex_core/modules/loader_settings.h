#pragma once
// What the domain and the settings file say about the loading of modules. The one place of this room that asks them.

#include "vex/core/dom.h"
#include "vex_core/domain/settings.h"
#include "vex_core/zip/zip_reader.h"

#include <string>
#include <vector>

namespace VexCore {

/// The settings of one interpreter's loader. The domain must outlive it. One thread.
class LoaderSettings
{
public:
    explicit LoaderSettings(CDom& dom)
        : m_dom(dom), m_watch(dom, {"app.lua.zippath", "app.lua.path", "app.lua.cache", "app.path.work",
                                    "app.unzip.maxbytes", "app.unzip.maxentries"})
    {}

    /// Takes over what changed since the last time.
    void Read();
    /// The full paths of the archives to search, in their order, each once.
    const std::vector<std::string>& SearchPath() const { return m_searchPath; }
    /// Another number with each search path; 0 before the first one that names an archive.
    unsigned SearchPathNumber() const { return m_searchPathNumber; }
    const ZipLimits& Limits() const { return m_limits; }
    /// The folder of compiled chunks; empty when none are to be kept.
    const std::string& CacheFolder() const { return m_cacheFolder; }
    /// The folder of the archives that come with the launcher.
    std::string CoreFolder() const;
    /// The templates of package.path that are searched before the archives.
    const std::string& GivenPath() const { return m_givenPath; }

private:
    void ReadSearchPath();

    CDom& m_dom;
    std::string m_searchPathText; // that m_searchPath was made from
    std::vector<std::string> m_searchPath;
    unsigned m_searchPathNumber = 0;
    ZipLimits m_limits;
    std::string m_cacheFolder;
    std::string m_givenPath;
    SettingsWatch m_watch;
};

} // namespace VexCore
