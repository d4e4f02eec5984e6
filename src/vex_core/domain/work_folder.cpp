// Who asks for a place decides what becomes of it without; here is what they share.

#include "vex_core/domain/work_folder.h"

#include "vex_core/base/ascii.h"
#include "vex_core/base/text.h"
#include "vex_core/domain/root_dom.h"

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

bool IsPlainName(const std::string& name)
{
    return !name.empty() && name != "." && name != ".."
           && name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

} // namespace

std::optional<os::GuardedPlace> PlaceInWorkFolder(const std::string& path)
{
    const RootDom root;
    const std::string start = root ? root->Get("app.path.work") + '/' : std::string();
    if (start.size() < 2 || !StartsWith(path, start))
        return std::nullopt;
    return os::GuardedPlace(start, path.substr(start.size()));
}

bool MakePluginWorkdir(const CDom& dom, const std::string& plugin, std::string& path, std::string& breach)
{
    const std::string work = dom.Get("app.path.work");
    const std::string below = IsPlainName(plugin) ? "plugins/" + plugin : "plugins";
    // Without a work folder there is no place of ours to make anything in.
    if (work.empty()) {
        path = below;
        return true;
    }
    path = work.back() == '/' ? work + below : work + '/' + below;
    os::GuardedPlace place(work, below);
    place.OpenFolder(true);
    WarnOfBreach(place);
    breach = place.Breach();
    return breach.empty();
}

void WarnOfBreach(const os::GuardedPlace& place)
{
    if (!place.Breach().empty() && IsNewWarning(place.Breach()))
        wxLogWarning(wxS("%s"), FromForeignBytes(place.Breach()));
}

} // namespace VexCore
