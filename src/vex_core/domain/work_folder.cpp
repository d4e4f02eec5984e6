// Who asks for a place decides what becomes of it without; here is what they share.

#include "vex_core/domain/work_folder.h"

#include "vex_core/base/ascii.h"
#include "vex_core/base/text.h"
#include "vex_core/domain/root_dom.h"
#include "vex_core/os/error.h"
#include "vex_core/os/file_identity.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <set>
#include <string_view>

#include <wx/log.h>

namespace VexCore {
namespace {
// Whether the text is new. Never destroyed: files are opened while the process ends.
bool IsNewWarning(const std::string& text)
{
    static std::mutex& s_lock = *new std::mutex;
    static std::set<std::string>& s_texts = *new std::set<std::string>;
    const std::lock_guard lock(s_lock);
    return s_texts.insert(text).second;
}

// The path from the root, without steps that lead nowhere, and without a slash at its end. No link is looked at.
std::string PathFromRoot(const std::string& path)
{
    std::string start;
    if (path[0] != '/' && !os::CurrentFolder(start))
        return path;
    const std::string whole = start + '/' + path;
    std::string result;
    for (std::size_t begin = 0; begin < whole.size();) {
        const std::size_t end = std::min(whole.find('/', begin), whole.size());
        const std::string step = whole.substr(begin, end - begin);
        if (!step.empty() && step != ".")
            result += '/' + step;
        begin = end + 1;
    }
    return result;
}

} // namespace

bool IsPlainName(const std::string& name)
{
    return !name.empty() && name != "." && name != ".."
           && name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

std::optional<os::GuardedPlace> PlaceInWorkFolder(const std::string& path)
{
    const RootDom root;
    const std::string work = root ? root->Get("app.path.work") : std::string();
    if (work.empty() || path.empty())
        return std::nullopt;
    const std::string start = PathFromRoot(work) + '/';
    const std::string whole = PathFromRoot(path);
    if (StartsWith(whole, start))
        return os::GuardedPlace(start, whole.substr(start.size()));
    // Some other way may lead through the same folder.
    struct stat status = {};
    if (os::Stat(work.c_str(), status) != 0)
        return std::nullopt;
    const os::FileIdentity top = os::IdentityOf(status);
    for (std::size_t end = whole.find('/', 1); end != std::string::npos; end = whole.find('/', end + 1)) {
        const std::string folder = whole.substr(0, end);
        if (os::Stat(folder.c_str(), status) != 0)
            break;
        if (top.IsFileOf(status))
            return os::GuardedPlace(folder, whole.substr(end + 1));
    }
    return std::nullopt;
}

os::Descriptor OpenPluginWorkdir(const CDom& dom, const std::string& plugin, std::string& path, std::string& breach)
{
    const std::string work = dom.Get("app.path.work");
    const std::string below = IsPlainName(plugin) ? "plugins/" + plugin : "plugins";
    // Without a work folder there is no place of ours to make anything in.
    if (work.empty()) {
        path = below;
        os::SetLastError(ENOENT);
        return os::Descriptor();
    }
    path = work.back() == '/' ? work + below : work + '/' + below;
    os::GuardedPlace place(work, below);
    os::Descriptor folder = place.OpenFolder(true);
    const os::KeepError error;
    WarnOfBreach(place);
    breach = place.Breach();
    return folder;
}

bool MakePluginWorkdir(const CDom& dom, const std::string& plugin, std::string& path, std::string& breach)
{
    OpenPluginWorkdir(dom, plugin, path, breach);
    return breach.empty();
}

void WarnOfBreach(const os::GuardedPlace& place)
{
    if (!place.Breach().empty() && IsNewWarning(place.Breach()))
        wxLogWarning(wxS("%s"), FromForeignBytes(place.Breach()));
}

} // namespace VexCore
