// Names of temporary files, the list that leads to them, and the sweep after a run that was killed.
#include "vex_core/zip/unzip_temporaries.h"

#include "vex_core/base/ascii.h"
#include "vex_core/os/error.h"
#include "vex_core/os/file_lock.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"
#include "vex_core/os/process_info.h"
#include "vex_core/zip/zip_names.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <set>

#include <fcntl.h>

namespace VexCore {
namespace {
constexpr std::string_view temporaryPrefix = ".vex-unzip-";
constexpr std::string_view listSuffix = ".list";
constexpr std::string_view listFirstLine = "temporary files may be in";

// The runs of this process. The lock of a list tells other processes that the run lives, but says nothing inside its
// own process, where even a look at the file would give the lock up.
class LiveRuns
{
public:
    // Never destroyed: a thread may still unpack while the process exits.
    static LiveRuns& Process()
    {
        static LiveRuns* const s_instance = new LiveRuns;
        return *s_instance;
    }

    void Add(const std::string& id)
    {
        const std::lock_guard lock(m_lock);
        m_ids.insert(id);
    }
    void Remove(const std::string& id)
    {
        const std::lock_guard lock(m_lock);
        m_ids.erase(id);
    }
    bool Has(const std::string& id)
    {
        const std::lock_guard lock(m_lock);
        return m_ids.count(id) != 0;
    }

private:
    std::mutex m_lock;
    std::set<std::string> m_ids; // guarded by m_lock
};

std::string NewId()
{
    static std::atomic<unsigned> s_counter{0};
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    char text[64];
    std::snprintf(text, sizeof text, "%llx-%lx-%x",
                  static_cast<unsigned long long>(std::chrono::duration_cast<std::chrono::microseconds>(now).count()),
                  static_cast<unsigned long>(os::ProcessId()), s_counter.fetch_add(1));
    return text;
}

std::string ListName(const std::string& id)
{
    return std::string(temporaryPrefix) + id + std::string(listSuffix);
}

bool IsListName(std::string_view name)
{
    return StartsWith(name, temporaryPrefix) && name.size() > temporaryPrefix.size() + listSuffix.size()
           && EndsWith(name, listSuffix);
}

// The folders that files of the archive go to, one a line; names have no line ends.
std::string ListText(const ZipArchive& archive)
{
    std::set<std::string_view> folders;
    for (const ZipEntry& entry : archive.Entries())
        if (!entry.isFolder)
            folders.insert(FolderOf(entry.name));
    std::string text(listFirstLine);
    text += '\n';
    for (const std::string_view folder : folders)
        text.append(folder).append("\n");
    return text;
}

std::vector<std::string> NamesThatStartWith(int folder, const std::string& prefix)
{
    std::vector<std::string> names;
    const auto add = [&](const char* name) {
        if (StartsWith(name, prefix))
            names.emplace_back(name);
        return true;
    };
    if (os::ListFolder(folder, add) != 0)
        throw UnzipFailure("cannot look for files of an earlier run", os::LastError());
    return names;
}

[[noreturn]] void FailToCleanUp(const std::string& name, int error)
{
    throw UnzipFailure("cannot clean up \"" + EscapeForLog(name) + "\" of an earlier run", error);
}

std::string ReadWhole(int file, const std::string& name)
{
    std::string text;
    for (;;) {
        char chunk[16 * 1024];
        const ssize_t size = os::PReadFull(file, chunk, sizeof chunk, static_cast<off_t>(text.size()));
        if (size < 0)
            FailToCleanUp(name, os::LastError());
        text.append(chunk, static_cast<std::size_t>(size));
        if (static_cast<std::size_t>(size) < sizeof chunk)
            return text;
    }
}

} // namespace

bool IsReservedForUnzip(std::string_view name)
{
    return StartsWith(name, temporaryPrefix) || name.find("/" + std::string(temporaryPrefix)) != std::string_view::npos;
}

UnzipTemporaries::~UnzipTemporaries()
{
    m_list.Reset(); // before another run of this process may look at the file
    if (!m_id.empty())
        LiveRuns::Process().Remove(m_id);
}

std::string UnzipTemporaries::NewName()
{
    if (!m_list)
        MakeList();
    return std::string(temporaryPrefix) + m_id + "-" + std::to_string(m_count++);
}

void UnzipTemporaries::MakeList()
{
    const std::string text = ListText(m_archive);
    constexpr int maxAttempts = 100;
    for (int attempt = 0; attempt < maxAttempts; ++attempt)
        if (TryMakeList(text))
            return;
    throw UnzipFailure("cannot make a list of temporary files: every name is taken");
}

// False: the name was taken, or a sweep of another process was faster than our lock.
bool UnzipTemporaries::TryMakeList(const std::string& text)
{
    const int root = m_folders.Find("");
    const std::string id = NewId();
    const std::string name = ListName(id);
    LiveRuns::Process().Add(id); // before the file is there: no other thread may look at it
    m_id = id;
    const auto fail = [&](int error) {
        os::UnlinkAt(root, name.c_str());
        throw UnzipFailure("cannot make a list of temporary files", error);
    };
    m_list = os::Descriptor(os::OpenAt(root, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    if (!m_list && os::LastError() != EEXIST)
        throw UnzipFailure("cannot make a list of temporary files", os::LastError());
    struct stat status = {};
    const bool locked = m_list && os::TryLock(m_list.Get()) == 0;
    if (m_list && !locked && os::LastError() != EAGAIN)
        fail(os::LastError());
    if (locked && os::FStat(m_list.Get(), status) != 0)
        fail(os::LastError());
    if (!locked || status.st_nlink == 0) {
        // The sweep removes it too; the name is ours alone, so no other file can have it by now.
        if (m_list)
            os::UnlinkAt(root, name.c_str());
        m_list.Reset();
        LiveRuns::Process().Remove(id);
        m_id.clear();
        return false;
    }
    m_folders.NoteChange("");
    if (!os::WriteAll(m_list.Get(), text.data(), text.size()) || os::FSync(m_list.Get()) != 0 || os::FSync(root) != 0)
        fail(os::LastError());
    return true;
}

void UnzipTemporaries::RemoveList()
{
    if (!m_list || m_keepList)
        return;
    if (os::UnlinkAt(m_folders.Find(""), ListName(m_id).c_str()) != 0 && os::LastError() != ENOENT)
        throw UnzipFailure("cannot remove the list of temporary files", os::LastError());
    m_folders.NoteChange("");
}

void UnzipTemporaries::SweepOldRuns()
{
    for (const std::string& name : NamesThatStartWith(m_folders.Find(""), std::string(temporaryPrefix)))
        if (IsListName(name))
            SweepRun(name);
    m_folders.Close();
}

void UnzipTemporaries::SweepRun(const std::string& listName)
{
    const std::string id =
        listName.substr(temporaryPrefix.size(), listName.size() - temporaryPrefix.size() - listSuffix.size());
    if (LiveRuns::Process().Has(id))
        return;
    const int root = m_folders.Find("");
    struct stat status;
    const os::Descriptor list(os::OpenAt(root, listName.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (!list) {
        if (os::LastError() == ENOENT || os::LastError() == ELOOP || os::LastError() == EISDIR)
            return; // swept by another process, or not one of ours
        FailToCleanUp(listName, os::LastError());
    }
    if (os::FStat(list.Get(), status) != 0)
        FailToCleanUp(listName, os::LastError());
    if (!S_ISREG(status.st_mode))
        return;
    if (os::TryLock(list.Get()) != 0) {
        if (os::LastError() == EAGAIN)
            return; // that run lives
        FailToCleanUp(listName, os::LastError());
    }
    // A list that was cut short is from a run that made no temporary file yet.
    const std::string text = ReadWhole(list.Get(), listName);
    const std::string prefix = std::string(temporaryPrefix) + id + "-";
    std::size_t start = std::min(text.find('\n'), text.size() - 1) + 1;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        SweepFolder(text.substr(start, end - start), prefix);
    if (os::UnlinkAt(root, listName.c_str()) != 0 && os::LastError() != ENOENT)
        FailToCleanUp(listName, os::LastError());
    m_folders.NoteChange("");
}

void UnzipTemporaries::SweepFolder(const std::string& path, const std::string& prefix)
{
    if (!path.empty() && Zip::WhyNameIsRefused(path))
        return; // a list that is not ours
    constexpr std::size_t maxOpen = 64;
    if (m_folders.OpenCount() > maxOpen)
        m_folders.Close();
    int folder = -1;
    try {
        folder = m_folders.Find(path);
    } catch (const UnzipBlocked&) {
        return; // that run's folder is gone, and what stands in its place is not ours to look into
    }
    if (folder < 0)
        return;
    for (const std::string& name : NamesThatStartWith(folder, prefix))
        if (os::UnlinkAt(folder, name.c_str()) != 0 && os::LastError() != ENOENT)
            FailToCleanUp(path + "/" + name, os::LastError());
}

} // namespace VexCore
