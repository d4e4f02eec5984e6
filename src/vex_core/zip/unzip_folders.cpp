// Opens and makes the folders below the destination of an `Unzip`.
#include "vex_core/zip/unzip_folders.h"

#include "vex_core/base/text.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"
#include "vex_core/os/guarded_place.h"
#include "vex_core/os/process_info.h"
#include "vex_core/zip/zip_names.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <iterator>
#include <set>
#include <utility>

#include <fcntl.h>
#include <wx/log.h>

namespace VexCore {

UnzipFailure::UnzipFailure(const std::string& what, int error) : std::runtime_error(what + ": " + os::ErrorText(error))
{}

namespace {
#ifdef VEX_SMALL_LIMITS
constexpr std::size_t manyFolders = 3;
#else
constexpr std::size_t manyFolders = 16;
#endif

std::string Quoted(std::string_view path)
{
    return "\"" + EscapeForLog(path) + "\"";
}

[[noreturn]] void FailAtComponent(std::string_view path, int error)
{
    if (error == ELOOP || error == ENOTDIR)
        throw UnzipBlocked(Quoted(path) + " is on its way and is a symbolic link or no folder");
    throw UnzipFailure("cannot open the folder " + Quoted(path), error);
}

} // namespace

std::string_view FolderOf(std::string_view path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string LastOf(std::string_view path)
{
    const std::size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

UnzipFolders::UnzipFolders(const std::string& root) : m_root(root)
{
    Folder folder;
    folder.file = os::Descriptor(os::Open(root.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!folder.file || os::FStat(folder.file.Get(), status) != 0)
        throw UnzipFailure("cannot open the destination " + Quoted(root), os::LastError());
    if (!S_ISDIR(status.st_mode))
        throw UnzipFailure("the destination " + Quoted(root) + " is no folder");
    folder.identity = os::IdentityOf(status);
    folder.othersMayExchange = OthersMayWrite(status, m_root);
    for (std::size_t end = root.size(); end > 0 && end != std::string::npos; end = root.rfind('/', end - 1)) {
        const std::string above = root.substr(0, root.rfind('/', end - 1) + 1);
        if (os::Stat(above.c_str(), status) != 0)
            throw UnzipFailure("cannot look at the folder " + Quoted(above), os::LastError());
        folder.othersMayExchange = OthersMayWrite(status, above) || folder.othersMayExchange;
    }
    m_open.emplace("", std::move(folder));
}

// By its owner or its mode. In a folder that all may write under the sticky bit nobody can move what is not his.
bool UnzipFolders::OthersMayWrite(const struct stat& status, std::string_view path)
{
    const bool isOurs = status.st_uid == 0 || status.st_uid == os::EffectiveUser();
    const bool isShared = os::MayOthersWrite(status) && (status.st_mode & S_ISVTX) == 0;
    if (isOurs && !isShared)
        return false;
    static std::atomic<bool> s_told{false}; // one line a start
    if (!s_told.exchange(true)) {
        const std::string shown = EscapeForLog(path);
        wxLogWarning(
            "Others than root and this user can write in \"%s\": archives are unpacked there all the same, but "
            "who can write there decides what is run. Give the folder to root and take the others' right to "
            "write",
            FromForeignBytes(shown));
    }
    return true;
}

bool UnzipFolders::OthersMayExchange(std::string_view path) const
{
    return m_open.find(path)->second.othersMayExchange;
}

int UnzipFolders::Find(std::string_view path)
{
    const Folder* const folder = Walk(path, false);
    return folder ? folder->file.Get() : -1;
}

int UnzipFolders::Make(std::string_view path)
{
    const auto known = m_open.find(path);
    return known == m_open.end() ? Walk(path, true)->file.Get() : known->second.file.Get();
}

const UnzipFolders::Folder* UnzipFolders::Walk(std::string_view path, bool make)
{
    Folder* folder = &m_open.begin()->second;
    for (std::size_t end = 0; end < path.size();) {
        const std::size_t start = end == 0 ? 0 : end + 1;
        end = std::min(path.find('/', start), path.size());
        const std::string_view step = path.substr(0, end);
        const auto known = m_open.find(step);
        if (known != m_open.end()) {
            CheckSame(*folder, step, known->second);
            folder = &known->second;
            continue;
        }
        const std::string name(path.substr(start, end - start));
        if (!OpenBelow(*folder, step, name, make))
            return nullptr;
        folder = &m_open.find(step)->second;
    }
    return folder;
}

const UnzipFolders::Folder* UnzipFolders::OpenBelow(Folder& parent, std::string_view path, const std::string& name,
                                                    bool make)
{
    os::Descriptor opened(os::OpenFolderAt(parent.file.Get(), name.c_str()));
    const bool missing = !opened && os::LastError() == ENOENT;
    if (missing && !make)
        return nullptr;
    if (missing) {
        if (os::MkdirAt(parent.file.Get(), name.c_str(), 0755) != 0 && os::LastError() != EEXIST)
            throw UnzipFailure("cannot make the folder " + Quoted(path), os::LastError());
        parent.changed = true;
        opened = os::Descriptor(os::OpenFolderAt(parent.file.Get(), name.c_str()));
    }
    if (!opened)
        FailAtComponent(path, os::LastError());
    struct stat status;
    // The mode once more: the umask took its part of it.
    if (os::FStat(opened.Get(), status) != 0 || (missing && os::FChmod(opened.Get(), 0755) != 0))
        FailAtComponent(path, os::LastError());
    const bool others = OthersMayWrite(status, m_root + '/' + std::string(path)) || parent.othersMayExchange;
    return &m_open.emplace(path, Folder{std::move(opened), os::IdentityOf(status), others, missing}).first->second;
}

void UnzipFolders::CheckSame(const Folder& parent, std::string_view path, const Folder& folder)
{
    struct stat status = {}; // stays no folder's when nothing is there
    if (os::LStatAt(parent.file.Get(), LastOf(path).c_str(), status) != 0 && os::LastError() != ENOENT)
        throw UnzipFailure("cannot look at the folder " + Quoted(path), os::LastError());
    if (!folder.identity.IsFileOf(status))
        throw UnzipFailure("the folder " + Quoted(path) + " was replaced meanwhile");
}

void UnzipFolders::NoteChange(std::string_view path)
{
    m_open.find(path)->second.changed = true;
}

void UnzipFolders::NoteRename(std::string_view path)
{
    Folder& folder = m_open.find(path)->second;
    folder.changed = folder.renamed = true;
}

void UnzipFolders::CheckAll()
{
    for (const auto& [path, folder] : m_open)
        if (!path.empty())
            CheckSame(m_open.find(FolderOf(path))->second, path, folder);
}

void UnzipFolders::Flush()
{
    std::vector<std::string_view> changed;
    for (const auto& [path, folder] : m_open)
        if (folder.changed)
            changed.push_back(path);
    if (changed.size() > manyFolders && FlushFileSystemsOf(changed)) {
        for (const std::string_view path : changed)
            m_open.find(path)->second.SetFlushed();
        return;
    }
    // Deepest first: once a folder's name is on stable storage, so is what it holds.
    for (auto item = m_open.rbegin(); item != m_open.rend(); ++item) {
        if (!item->second.changed)
            continue;
        if (os::FSync(item->second.file.Get()) != 0)
            throw UnzipFailure("cannot flush the folder " + Quoted(item->first), os::LastError());
        item->second.SetFlushed();
    }
}

void UnzipFolders::FlushRenames()
{
    Folder& root = m_open.begin()->second;
    if (root.renamed)
        return Flush();
    // What else changed in it, a folder that was made, can wait for the flush that is to come.
    struct Later
    {
        Folder& folder;
        const bool changed = std::exchange(folder.changed, false);
        ~Later() { folder.changed = changed; }
    };
    const Later later{root};
    Flush();
}

bool UnzipFolders::FlushFileSystemsOf(const std::vector<std::string_view>& paths)
{
    std::set<dev_t> done;
    for (const std::string_view path : paths) {
        const Folder& folder = m_open.find(path)->second;
        if (!done.insert(folder.identity.device).second || os::SyncFileSystem(folder.file.Get()) == 0)
            continue;
        if (os::LastError() == ENOTSUP || os::LastError() == ENOSYS)
            return false;
        throw UnzipFailure("cannot flush the file system of " + Quoted(path), os::LastError());
    }
    return true;
}

void UnzipFolders::Close()
{
    m_open.erase(std::next(m_open.begin()), m_open.end());
}

} // namespace VexCore
