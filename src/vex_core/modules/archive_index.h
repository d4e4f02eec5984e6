#pragma once
// The archives that Lua modules are loaded from: opened once and indexed once in a process, whatever the number of
// interpreters, and opened anew when the file behind the path is another one.

#include "vex_core/os/file_identity.h"
#include "vex_core/zip/zip_reader.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

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
    /// False: there is certainly no such Lua file. True: there very likely is; `Zip` and `ZipArchive::Find` tell.
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
    std::vector<std::uint64_t> m_hashes; // of the names that end in .lua, sorted

    std::mutex m_lock; // guards what follows
    std::shared_ptr<const ZipArchive> m_zip;
    std::string m_directorySha256;
};

/// A path on the search path and the archive that it leads to now. Any thread.
class ArchiveSlot
{
public:
    explicit ArchiveSlot(std::string path);

    const std::string& Path() const { return m_path; }
    /// The archive at the path, checked by one look at the file's status and opened when it was not or is another file.
    /// Null with a reason when there is none that can be used. A reason is logged as one warning, again only when the
    /// file has changed and is still of no use.
    std::shared_ptr<ModuleArchive> Current(const ZipLimits& limits, std::string& failure);
    /// The reason that the last `Current` gave, empty when it gave an archive. Looks at nothing.
    std::string LastFailure();

private:
    void OpenAnew(const ZipLimits& limits);

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

/// All slots of the process. Any thread.
class ArchiveIndex
{
public:
    /// Never destroyed: interpreters may be closed by static destructors.
    static ArchiveIndex& Process();

    std::shared_ptr<ArchiveSlot> Slot(const std::string& path);
    /// Drops, and so closes, the archives that no interpreter has on its path any more.
    void ForgetUnused();

private:
    std::mutex m_lock;
    std::unordered_map<std::string, std::shared_ptr<ArchiveSlot>> m_slots; // guarded by m_lock
};

} // namespace VexCore
