// Each file is looked at on its own (settings_file.h); here is their order, and the folder of the drop-ins. The folder
// is listed at each look, which tells of one that came or went.

#include "vex_core/domain/settings_sources.h"

#include "vex_core/base/ascii.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"

#include <algorithm>
#include <cerrno>
#include <functional>

namespace VexCore {

namespace {
constexpr std::string_view fileSuffix = ".conf";

// The drop-ins, the last by name first. Most hosts have no such folder.
std::vector<std::string> ListDropIns(const std::string& global, std::string& refused)
{
    std::vector<std::string> paths;
    const std::string folder = DropInFolder(global);
    struct stat status = {};
    const bool isThere = !global.empty() && (os::Stat(folder.c_str(), status) == 0 || os::LastError() != ENOENT);
    const auto take = [&](const char* name) {
        if (*name != '.' && EndsWith(name, fileSuffix))
            paths.push_back(folder + '/' + name);
        return true;
    };
    refused = isThere && os::ListFolder(folder.c_str(), take) != 0 ? CannotBeUsed(folder) : std::string();
    std::sort(paths.begin(), paths.end(), std::greater<>());
    return paths;
}

} // namespace

std::string DropInFolder(const std::string& global)
{
    const bool hasSuffix = EndsWith(global, fileSuffix);
    return global.substr(0, global.size() - (hasSuffix ? fileSuffix.size() : 0)) + ".d";
}

bool SettingsSources::Find(const SettingsPaths& paths, std::string_view name, std::string& value)
{
    const std::lock_guard lock(m_lock);
    Look(paths);
    const auto found = m_entries.find(name);
    if (found == m_entries.end())
        return false;
    value = found->second;
    return true;
}

std::vector<std::string> SettingsSources::NamesThatBegin(const SettingsPaths& paths, std::string_view start)
{
    const std::lock_guard lock(m_lock);
    Look(paths);
    std::vector<std::string> names;
    for (auto entry = m_entries.lower_bound(start); entry != m_entries.end(); ++entry) {
        if (!IsSameInAnyCase(start, std::string_view(entry->first).substr(0, start.size())))
            break;
        names.push_back(entry->first);
    }
    return names;
}

std::uint64_t SettingsSources::Generation(const SettingsPaths& paths)
{
    const std::lock_guard lock(m_lock);
    Look(paths);
    return m_generation;
}

std::vector<SettingsSource> SettingsSources::Sources(const SettingsPaths& paths)
{
    const std::lock_guard lock(m_lock);
    Look(paths);
    std::vector<SettingsSource> sources;
    const auto add = [&sources](SettingsSource::Role role, const SettingsFile& file) {
        if (file.IsRead() || !file.Refused().empty())
            sources.push_back({role, file.Path(), file.Bytes(), file.Refused(), file.Contents()});
    };
    add(SettingsSource::Role::Local, m_local);
    if (!m_folderRefused.empty())
        sources.push_back({SettingsSource::Role::DropIn, DropInFolder(paths.global), {}, m_folderRefused, {}});
    for (const auto& dropIn : m_dropIns)
        add(SettingsSource::Role::DropIn, *dropIn);
    add(SettingsSource::Role::Global, m_global);
    return sources;
}

void SettingsSources::Look(const SettingsPaths& paths)
{
    bool changed = m_local.Look(paths.local);
    const std::time_t now = m_now();
    if (now != m_seen || paths.global != m_globalPath) {
        m_seen = now;
        m_globalPath = paths.global;
        changed = m_global.Look(paths.global) || changed;
        changed = LookAtDropIns(paths.global) || changed;
    }
    if (changed)
        Merge();
}

// Whether any of them came, changed or went.
bool SettingsSources::LookAtDropIns(const std::string& global)
{
    const std::vector<std::string> paths = ListDropIns(global, m_folderRefused);
    bool changed = paths.size() != m_dropIns.size();
    std::vector<std::unique_ptr<SettingsFile>> now;
    for (const std::string& path : paths) {
        const auto known = std::find_if(m_dropIns.begin(), m_dropIns.end(),
                                        [&path](const auto& file) { return file && file->Path() == path; });
        now.push_back(known == m_dropIns.end() ? std::make_unique<SettingsFile>(SettingsFile::Place::System)
                                               : std::move(*known));
        changed = now.back()->Look(path) || changed;
    }
    m_dropIns = std::move(now);
    return changed;
}

void SettingsSources::Merge()
{
    SettingsEntries entries = m_global.Contents().lockedSettings; // the first to have a name keeps it
    const auto add = [&entries](const SettingsFile& file) {
        entries.insert(file.Contents().settings.begin(), file.Contents().settings.end());
    };
    add(m_local);
    for (const auto& dropIn : m_dropIns)
        add(*dropIn);
    add(m_global);
    if (entries == m_entries)
        return;
    m_entries = std::move(entries);
    ++m_generation;
}

} // namespace VexCore
