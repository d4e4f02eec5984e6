// The way is resolved here and not by the system, because the system asks nobody whose links it follows. What a step
// led to is asked by its descriptor, so that a name exchanged meanwhile is seen as what it is.

#include "vex_core/os/guarded_place.h"

#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"
#include "vex_core/os/observed.h"
#include "vex_core/os/process_info.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace VexCore::os {
namespace {
// As many as the system itself follows.
constexpr int maxLinks = 40;

constexpr char getsAnOwner[] = ": give it to root or to the user of this process, or remove it";

// Paths of folders have no slash at their end: "" is the root.
std::string WithoutSlash(std::string path)
{
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    return path;
}

const char* Named(const std::string& folder)
{
    return folder.empty() ? "/" : folder.c_str();
}

std::string WithoutLinks(const std::string& folder)
{
    char* const real = ::realpath(Named(folder), nullptr);
    if (!real)
        return folder;
    const std::string path = WithoutSlash(real);
    std::free(real);
    return path;
}

// Puts the steps of a path before those that are still to be taken, the next one last.
void AddSteps(std::vector<std::string>& steps, const std::string& path)
{
    for (std::size_t end = path.size(); end > 0;) {
        const std::size_t slash = path.rfind('/', end - 1);
        const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
        std::string step = path.substr(begin, end - begin);
        if (!step.empty() && step != ".")
            steps.push_back(std::move(step));
        end = begin == 0 ? 0 : begin - 1;
    }
}

bool ReadLink(int folder, const std::string& name, std::string& target)
{
    char text[4096];
    const ssize_t size = Observed(OfDescriptor("readlinkat", folder, name.c_str()),
                                  [&] { return ::readlinkat(folder, name.c_str(), text, sizeof text); });
    if (size < 0)
        return false;
    target.assign(text, static_cast<std::size_t>(size));
    if (target.size() < sizeof text)
        return true;
    errno = ENAMETOOLONG;
    return false;
}

bool IsOwnedByUsOrRoot(const struct stat& status)
{
    return status.st_uid == 0 || status.st_uid == EffectiveUser();
}

// A regular file of ours that has rights for others.
bool IsToBeMended(const struct stat& status)
{
    return status.st_uid == EffectiveUser() && status.st_nlink == 1 && (status.st_mode & 077) != 0;
}

} // namespace

bool MayOthersWrite(const struct stat& status)
{
    return (status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && status.st_gid != ::getegid());
}

GuardedPlace::GuardedPlace(const std::string& top, std::string below)
    : m_top(WithoutSlash(top)), m_below(std::move(below))
{}

GuardedPlace::GuardedPlace(const std::string& path)
    : GuardedPlace(path.find('/') == std::string::npos ? "." : path.substr(0, path.rfind('/')),
                   path.substr(path.rfind('/') + 1)) // npos + 1 is the begin
{}

std::string GuardedPlace::RealPath() const
{
    const std::string folder = WithoutLinks(m_path);
    return m_name.empty() ? Named(folder) : folder + '/' + m_name;
}

std::string GuardedPlace::Reason() const
{
    return m_breach.empty() ? ErrorText(LastError()) : m_breach;
}

bool GuardedPlace::Break(const std::string& text)
{
    m_breach = text;
    SetLastError(EPERM);
    return false;
}

bool GuardedPlace::Judge(const std::string& path, const struct stat& status, bool passing)
{
    const std::string is = '\'' + path + "' is not used, because ";
    if (!IsOwnedByUsOrRoot(status))
        return Break(is + "it belongs to user " + std::to_string(status.st_uid) + getsAnOwner);
    if (MayOthersWrite(status) && !(passing && (status.st_mode & S_ISVTX) != 0)) {
        char mode[16];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
        // A sticky folder is everybody's on purpose, /tmp for one.
        const bool isShared = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
        return Break(is + "others may write it (mode " + mode + "): "
                     + (isShared ? "use a folder of its own instead" : "take that right from them with chmod go-w"));
    }
    if (!S_ISDIR(status.st_mode) && status.st_nlink > 1)
        return Break(is + "it has " + std::to_string(status.st_nlink)
                     + " names (hard links): put a copy in its place, or remove it");
    return true;
}

// --- the way

bool GuardedPlace::Enter(Descriptor folder, const std::string& path)
{
    if (!folder || FStat(folder.Get(), m_status) != 0)
        return false;
    if (!S_ISDIR(m_status.st_mode)) {
        SetLastError(ENOTDIR);
        return false;
    }
    m_folder = std::move(folder);
    m_path = path;
    return Judge(Named(path), m_status, true);
}

bool GuardedPlace::EnterTop(bool make)
{
    Descriptor top(EnterFolderAt(AT_FDCWD, Named(m_top), true));
    if (!top && make && LastError() == ENOENT && MakePrivateFolders(m_top))
        top = Descriptor(EnterFolderAt(AT_FDCWD, Named(m_top), true));
    return Enter(std::move(top), m_top);
}

bool GuardedPlace::Walk(bool isFolder, bool make)
{
    m_breach.clear();
    m_name.clear();
    if (!EnterTop(make))
        return false;
    std::vector<std::string> steps;
    AddSteps(steps, m_below);
    for (int links = 0; !steps.empty();) {
        const std::string step = steps.back();
        steps.pop_back();
        const bool isFile = steps.empty() && !isFolder;
        if (step == ".." && m_path == m_top)
            m_path = WithoutLinks(m_path);
        const std::string path = step == ".." ? m_path.substr(0, m_path.rfind('/')) : m_path + '/' + step;
        struct stat status = {};
        bool there = LStatAt(m_folder.Get(), step.c_str(), status) == 0;
        if (!there && LastError() == ENOENT && make && !isFile) {
            if (MkdirAt(m_folder.Get(), step.c_str(), 0700) != 0 && LastError() != EEXIST)
                return false;
            there = LStatAt(m_folder.Get(), step.c_str(), status) == 0;
        }
        if (!there && (LastError() != ENOENT || !isFile))
            return false;
        if (there && S_ISLNK(status.st_mode)) {
            std::string target;
            if (!IsOwnedByUsOrRoot(status))
                return Break('\'' + path + "' is not followed, because the link belongs to user "
                             + std::to_string(status.st_uid) + getsAnOwner);
            if (!ReadLink(m_folder.Get(), step, target))
                return false;
            if (++links > maxLinks) {
                SetLastError(ELOOP);
                return false;
            }
            if (!target.empty() && target[0] == '/' && !Enter(Descriptor(EnterFolderAt(AT_FDCWD, "/", true)), ""))
                return false;
            AddSteps(steps, target);
        } else if (isFile) {
            m_name = step;
        } else if (!Enter(Descriptor(EnterFolderAt(m_folder.Get(), step.c_str(), false)), path)) {
            return false;
        }
    }
    if (!isFolder && m_name.empty()) {
        SetLastError(EISDIR);
        return false;
    }
    return Judge(Named(m_path), m_status, false);
}

// --- what is at its end

Descriptor GuardedPlace::OpenFolder(bool make)
{
    return Walk(true, make) ? Descriptor(OpenFolderAt(m_folder.Get(), ".")) : Descriptor();
}

Descriptor GuardedPlace::OpenFile(int flags)
{
    return OpenRegular(flags, false);
}

Descriptor GuardedPlace::OpenAndMendFile(int flags)
{
    return OpenRegular(flags, true);
}

Descriptor GuardedPlace::OpenRegular(int flags, bool mend)
{
    if (!Walk(false, false))
        return Descriptor();
    Descriptor file(OpenAt(m_folder.Get(), m_name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
    struct stat status = {};
    if (!file || FStat(file.Get(), status) != 0)
        return Descriptor();
    if (!S_ISREG(status.st_mode)) {
        SetLastError(EINVAL);
        return Descriptor();
    }
    if (mend && IsToBeMended(status) && FChmod(file.Get(), status.st_mode & 0700) == 0)
        status.st_mode &= ~mode_t(077);
    return Judge(m_path + '/' + m_name, status, false) ? std::move(file) : Descriptor();
}

bool GuardedPlace::SettleFile(std::initializer_list<const char*> companions)
{
    // A new file is closed before another thread may find, open and lock it.
    static std::mutex s_lock;
    const std::lock_guard lock(s_lock);
    if (!Walk(false, false))
        return false;
    const auto settle = [this](const std::string& name, bool make) {
        struct stat status = {};
        if (LStatAt(m_folder.Get(), name.c_str(), status) != 0) {
            if (LastError() != ENOENT)
                return false;
            constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW;
            return !make || Descriptor(OpenAt(m_folder.Get(), name.c_str(), flags, 0600)) || LastError() == EEXIST;
        }
        const std::string path = m_path + '/' + name;
        if (!S_ISREG(status.st_mode))
            return Break('\'' + path + "' is not used, because it is no regular file: remove it");
        if (IsToBeMended(status) && ChmodTargetAt(m_folder.Get(), name.c_str(), status.st_mode & 0700) == 0)
            status.st_mode &= ~mode_t(077);
        return Judge(path, status, false);
    };
    if (!settle(m_name, true))
        return false;
    for (const char* const companion : companions)
        if (!settle(m_name + companion, false))
            return false;
    return true;
}

} // namespace VexCore::os
