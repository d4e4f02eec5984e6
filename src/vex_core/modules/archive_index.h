#pragma once
// The archives that Lua modules are loaded from: opened once and indexed once in a process, whatever the number of
// interpreters, and opened anew when the file behind the path is another one.

#include "vex_core/base/steady_ms.h"
#include "vex_core/os/file_identity.h"
#include "vex_core/zip/zip_reader.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <wx/string.h>

namespace VexCore {

/// One archive as it was when it was opened. Any thread.
///
/// The names stay in memory as hashes; the open archive itself may be closed when the process has many (`Zip` opens it
/// again), so that a long search path does not eat the process's descriptors.
class ModuleArchive : public std::enable_shared_from_this<ModuleArchive>
{
public:
    /// Null with a reason in `error` as for `ZipArchive::Open`.
    static std::shared_ptr<ModuleArchive> Open(const std::string& path, const ZipLimits& limits, std::string& error);

    const std::string& Path() const { return m_path; }
    const os::FileIdentity& Identity() const { return m_identity; }
    /// A Lua file in it, by the hash of its name.
    struct LuaFile
    {
        std::uint64_t nameHash;
        std::uint32_t entry; ///< its place among the archive's entries
    };
    /// In the order of the directory.
    const std::vector<LuaFile>& LuaFiles() const { return m_luaFiles; }
    /// False: there is certainly no such Lua file. True: there very likely is; `Zip` and `ZipArchive::Find` tell. Takes
    /// its time, as it goes through all files.
    bool MayHave(std::uint64_t nameHash) const;
    /// The open archive. Null with a reason when it had to be opened again and is gone, damaged or another file by now.
    std::shared_ptr<const ZipArchive> Zip(std::string& error);
    /// Of the archive's directory; computed at the first call. Empty when `Zip` fails.
    std::string DirectorySha256();
    /// Gives the descriptor and the names back until the next `Zip`.
    void Close();

private:
    ModuleArchive() = default;
    std::string m_path;
    ZipLimits m_limits;
    os::FileIdentity m_identity;
    std::vector<LuaFile> m_luaFiles;

    std::mutex m_lock; // guards what follows
    std::shared_ptr<const ZipArchive> m_zip;
    std::string m_directorySha256;
};

/// Warnings that are logged when the object goes: one that is made before a lock is taken logs when that has been let
/// go, because whoever gets a line may take long, or look for a module himself.
class LaterWarnings
{
public:
    LaterWarnings() = default;
    ~LaterWarnings();
    LaterWarnings(const LaterWarnings&) = delete;
    LaterWarnings& operator=(const LaterWarnings&) = delete;

    void Add(const wxString& warning) { m_warnings.push_back(warning); }

private:
    std::vector<wxString> m_warnings;
};

/// A path on the search path and the archive that it leads to now. Any thread.
class ArchiveSlot
{
public:
    explicit ArchiveSlot(std::string path);

    const std::string& Path() const { return m_path; }
    /// The archive at the path, checked by one look at the file's status and opened when it was not or is another file.
    /// Null with a reason when there is none that can be used. A reason is one warning, again only when the file has
    /// changed and is still of no use.
    std::shared_ptr<ModuleArchive> Current(const ZipLimits& limits, std::string& failure, LaterWarnings& warnings);
    /// The same, and logs.
    std::shared_ptr<ModuleArchive> Current(const ZipLimits& limits, std::string& failure);
    /// Whether the last `Current` had no archive for want of descriptors or memory, which says nothing about the file.
    bool WantsAnotherLook();

private:
    void OpenAnew(const ZipLimits& limits, LaterWarnings& warnings);

    const std::string m_path;
    std::mutex m_lock; // guards what follows; held while the archive is opened, so that it is opened once
    bool m_known = false; // the four below hold what was found last
    bool m_there = false; // the path led to something
    os::FileIdentity m_identity; // of what it led to
    std::shared_ptr<ModuleArchive> m_archive;
    std::string m_failure;
    bool m_warned = false; // m_warnedFailure has been logged for m_warnedIdentity
    os::FileIdentity m_warnedIdentity;
    std::string m_warnedFailure;
};

class SearchedArchives;

/// All slots of the process, and the search paths that lead to them. Any thread.
class ArchiveIndex
{
public:
    /// Milliseconds since some time in the past.
    using Clock = std::int64_t (*)();

    /// Never destroyed: interpreters may be closed by static destructors.
    static ArchiveIndex& Process();

    std::shared_ptr<ArchiveSlot> Slot(const std::string& path);
    /// The archives at these paths, in this order: one object in a process.
    std::shared_ptr<SearchedArchives> Search(const std::vector<std::string>& paths);
    /// Drops, and so closes, the archives that no interpreter has on its path any more.
    void ForgetUnused();

    std::int64_t NowMs() const { return m_clock.load(std::memory_order_relaxed)(); }
    /// For tests, which do not wait for seconds to pass. Returns the clock before.
    Clock SetClock(Clock clock) { return m_clock.exchange(clock); }

private:
    std::shared_ptr<ArchiveSlot> SlotLocked(const std::string& path);

    std::atomic<Clock> m_clock{SteadyMs};
    std::mutex m_lock; // guards what follows
    std::unordered_map<std::string, std::shared_ptr<ArchiveSlot>> m_slots; // by path
    std::map<std::vector<std::string>, std::shared_ptr<SearchedArchives>> m_searches; // by their paths
};

} // namespace VexCore
