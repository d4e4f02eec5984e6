// Nothing is believed that another user could have written, and nothing here is an error to anybody: what is not found
// is compiled. A file only grows, or is replaced as a whole, by rename: what readers in other threads and processes
// have seen of it stays as it is. The first write of a process sweeps the folder, and so does one that may lead beyond
// the bounds.

#include "vex_core/modules/chunk_cache_folder.h"

#include "vex/core/log.h"
#include "vex_core/base/ascii.h"
#include "vex_core/base/steady_ms.h"
#include "vex_core/base/text.h"
#include "vex_core/domain/work_folder.h"
#include "vex_core/os/error.h"
#include "vex_core/os/file_identity.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"
#include "vex_core/os/process_info.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <vector>

#include <fcntl.h>

namespace VexCore {
namespace {
constexpr std::size_t maxFiles = 1000;
constexpr std::uint64_t maxFolderBytes = static_cast<std::uint64_t>(512) << 20;
constexpr std::int64_t maxIdleSeconds = 30 * 24 * 3600;
// A writer takes milliseconds; what is older was left by one that was killed.
constexpr std::int64_t maxTemporarySeconds = 3600;
constexpr std::int64_t touchAfterSeconds = 24 * 3600;

constexpr char fileSuffix[] = ".luac";
constexpr char temporaryPrefix[] = "tmp-";

void Trace(int line, const std::string& folder, const std::string& text)
{
    if (LogTraceIsEnabled("Srvc"))
        LogTrace("Srvc", "vex_core/chunk_cache", line, "ChunkCache",
                 FromForeignBytes(folder) + ": " + FromForeignBytes(text));
}

std::int64_t NowSeconds()
{
    return static_cast<std::int64_t>(std::time(nullptr));
}

bool IsOursAlone(const struct stat& status)
{
    return status.st_uid == os::EffectiveUser() && (status.st_mode & 077) == 0;
}

// `descriptor` gets the folder when it is usable.
FolderState OpenFolder(const std::string& path, bool make, os::Descriptor& descriptor)
{
    os::GuardedPlace place(path);
    os::Descriptor folder = place.OpenFolder(make);
    if (!folder) {
        if (os::LastError() == ENOENT)
            return FolderState::Missing;
        Trace(__LINE__, path, "not used: " + place.Reason());
        WarnOfBreach(place);
        return FolderState::Refused;
    }
    struct stat status;
    if (os::FStat(folder.Get(), status) != 0 || !IsOursAlone(status)) {
        Trace(__LINE__, path, "not used: it is not ours alone");
        return FolderState::Refused;
    }
    descriptor = std::move(folder);
    return FolderState::Usable;
}

// A name that no other writer on the folder has.
std::string TemporaryName()
{
    static std::atomic<unsigned> s_count{0};
    return temporaryPrefix + std::to_string(os::ProcessId()) + "-" + std::to_string(SteadyMs()) + "-"
           + std::to_string(s_count++);
}

// --- the sweep

struct FoundFile
{
    std::string name;
    std::int64_t seconds = 0; // of its last use
    std::uint64_t bytes = 0;
    bool temporary = false;
};

// Our files in the folder; others are left alone.
std::vector<FoundFile> FilesIn(int folder)
{
    std::vector<std::string> names;
    os::ListFolder(folder, [&names](const char* name) {
        names.emplace_back(name);
        return names.size() < 10 * maxFiles;
    });
    std::vector<FoundFile> files;
    for (const std::string& name : names) {
        const bool temporary = StartsWith(name, temporaryPrefix);
        struct stat status;
        if ((!temporary && !EndsWith(name, fileSuffix)) || os::LStatAt(folder, name.c_str(), status) != 0
            || !S_ISREG(status.st_mode))
            continue;
        files.push_back(
            {name, static_cast<std::int64_t>(status.st_mtime), static_cast<std::uint64_t>(status.st_size), temporary});
    }
    return files;
}

struct Contents
{
    std::size_t files = 0;
    std::uint64_t bytes = 0;
};

// What is left in the folder.
Contents Sweep(int folder)
{
    std::vector<FoundFile> files = FilesIn(folder);
    std::sort(files.begin(), files.end(), [](const FoundFile& a, const FoundFile& b) { return a.seconds > b.seconds; });
    const std::int64_t now = NowSeconds();
    Contents left;
    for (const FoundFile& file : files) {
        const std::int64_t age = now - file.seconds;
        const bool stale = age > (file.temporary ? maxTemporarySeconds : maxIdleSeconds);
        if (stale || (!file.temporary && (left.files >= maxFiles || left.bytes + file.bytes > maxFolderBytes))) {
            (void)os::UnlinkAt(folder, file.name.c_str());
            continue;
        }
        ++left.files;
        left.bytes += file.bytes;
    }
    return left;
}

// The folders that this process has swept.
class SweptFolders
{
public:
    // Never destroyed: files are written by the exit handler too.
    static SweptFolders& Process()
    {
        static SweptFolders* const s_instance = new SweptFolders;
        return *s_instance;
    }

    // A file was written: as a new one, or in the place of one. Sweeps the folder the first time, and again when it may
    // be beyond its bounds.
    void NoteWritten(const std::string& path, int folder, bool isNewFile, std::uint64_t bytes)
    {
        const std::lock_guard lock(m_lock);
        const auto [known, isNewFolder] = m_folders.try_emplace(path);
        Contents& contents = known->second;
        contents.files += isNewFile ? 1 : 0;
        contents.bytes += bytes; // what it took the place of counts until the next sweep
        if (isNewFolder || contents.files > maxFiles || contents.bytes > maxFolderBytes)
            contents = Sweep(folder);
    }

private:
    std::mutex m_lock;
    std::map<std::string, Contents> m_folders; // guarded by m_lock
};

} // namespace

ChunkFileSearch ChunkCacheFolder::Open(const std::string& key) const
{
    os::Descriptor folder;
    ChunkFileSearch search;
    search.folder = OpenFolder(m_path, false, folder);
    if (search.folder != FolderState::Usable)
        return search;
    ChunkFile file;
    file.descriptor = os::Descriptor(
        os::OpenAt(folder.Get(), (key + fileSuffix).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!file.descriptor || os::FStat(file.descriptor.Get(), status) != 0 || !S_ISREG(status.st_mode)
        || !IsOursAlone(status) || static_cast<std::uint64_t>(status.st_size) > maxChunkFileBytes)
        return search;
    file.bytes = static_cast<std::uint64_t>(status.st_size);
    file.lastUsed = static_cast<std::int64_t>(status.st_mtime);
    search.file = std::move(file);
    return search;
}

void ChunkCacheFolder::NoteUse(const ChunkFile& file)
{
    if (NowSeconds() - file.lastUsed > touchAfterSeconds)
        (void)os::TouchFile(file.descriptor.Get());
}

bool ChunkCacheFolder::Replace(const std::string& key, const std::string& bytes) const
{
    os::Descriptor folder;
    struct stat status;
    // Whether there is to be a work folder is not for a cache to say.
    if (os::Stat(m_path.substr(0, m_path.rfind('/')).c_str(), status) != 0
        || OpenFolder(m_path, true, folder) != FolderState::Usable)
        return false;
    const std::string temporary = TemporaryName();
    const std::string name = key + fileSuffix;
    const bool isNew = os::LStatAt(folder.Get(), name.c_str(), status) != 0;
    os::Descriptor file(os::OpenAt(folder.Get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    if (!file) {
        Trace(__LINE__, m_path, "not written: " + os::ErrorText(os::LastError()));
        return false;
    }
    // Not flushed to storage, here and below: after a power loss the checksums tell what is whole.
    if (!os::WriteAll(file.Get(), bytes.data(), bytes.size())
        || os::RenameAt(folder.Get(), temporary.c_str(), folder.Get(), name.c_str()) != 0) {
        Trace(__LINE__, m_path, "not written: " + os::ErrorText(os::LastError()));
        (void)os::UnlinkAt(folder.Get(), temporary.c_str());
        return false;
    }
    SweptFolders::Process().NoteWritten(m_path, folder.Get(), isNew, bytes.size());
    return true;
}

AppendResult ChunkCacheFolder::Append(const std::string& key, ChunkFile& file, const std::string& bytes) const
{
    os::Descriptor folder;
    if (OpenFolder(m_path, false, folder) != FolderState::Usable)
        return AppendResult::Failed;
    const std::string name = key + fileSuffix;
    const os::Descriptor end(
        os::OpenAt(folder.Get(), name.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    struct stat readFrom;
    if (!end || os::FStat(end.Get(), status) != 0 || os::FStat(file.descriptor.Get(), readFrom) != 0
        || !IsOursAlone(status))
        return AppendResult::Failed;
    if (!os::IdentityOf(readFrom).IsFileOf(status) || static_cast<std::uint64_t>(status.st_size) != file.bytes)
        return AppendResult::Changed;
    if (!os::WriteAll(end.Get(), bytes.data(), bytes.size())) {
        Trace(__LINE__, m_path, "not written: " + os::ErrorText(os::LastError()));
        return AppendResult::Failed;
    }
    if (os::FStat(end.Get(), status) == 0)
        file.bytes = static_cast<std::uint64_t>(status.st_size);
    SweptFolders::Process().NoteWritten(m_path, folder.Get(), false, bytes.size());
    return AppendResult::Written;
}

} // namespace VexCore
