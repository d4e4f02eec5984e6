#include "vex_core/domain/host_id.h"

#include "vex/core/dom.h"
#include "vex_core/base/hex.h"
#include "vex_core/base/text.h"
#include "vex_core/domain/work_folder.h"
#include "vex_core/os/files.h"
#include "vex_core/os/host_facts.h"
#include "vex_core/os/pause.h"
#include "vex_core/os/process_info.h"

#include <mutex>

#include <fcntl.h>

#include <openssl/rand.h>
#include <openssl/sha.h>

#include <wx/log.h>

namespace VexCore {

namespace {
constexpr std::size_t idBytes = 16;
constexpr std::size_t idDigits = 2 * idBytes;

constexpr int looksAtBreach = 5;
constexpr long betweenLooksMs = 2;

std::string HashOf(const std::string& agent, const std::string& machine)
{
    const std::string text = "host of " + agent + '\n' + machine;
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    return Hex(digest, idBytes);
}

// Empty when there is not an id in it.
std::string IdIn(const os::Descriptor& file)
{
    std::string id(idDigits, '\0');
    if (!file || os::PReadFull(file.Get(), id.data(), idDigits, 0) != static_cast<ssize_t>(idDigits))
        return std::string();
    const bool isId = id.find_first_not_of("0123456789abcdef") == std::string::npos;
    return isId ? id : std::string();
}

// Empty when there is no such file, or not an id in it.
std::string KeptIn(os::GuardedPlace& place)
{
    os::Descriptor file = place.OpenFile(O_RDONLY);
    // Another process that makes one has it under two names for a moment.
    for (int look = 0; !file && !place.Breach().empty() && look < looksAtBreach; ++look) {
        os::PauseMs(betweenLooksMs);
        file = place.OpenFile(O_RDONLY);
    }
    return IdIn(file);
}

// Written under a name of this process's own and linked to the one that counts, which is there whole or not at all. Of
// two processes that make one at the same time the second link fails, and both go by the first. What is there and is no
// id is replaced.
void Keep(os::GuardedPlace& place, const std::string& path, const std::string& id)
{
    const std::string temporary = path + '.' + std::to_string(os::ProcessId());
    os::Unlink(temporary.c_str());
    const os::Descriptor file(os::Open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    if (!file)
        return;
    const std::string line = id + '\n';
    if (os::WriteAll(file.Get(), line.data(), line.size()) && os::FSync(file.Get()) == 0
        && os::Link(temporary.c_str(), path.c_str()) != 0 && KeptIn(place).empty() && place.Breach().empty()
        && os::Rename(temporary.c_str(), path.c_str()) == 0)
        wxLogWarning(wxS("'%s' held no id of the host, which has another one now"), FromForeignBytes(path));
    os::Unlink(temporary.c_str());
}

} // namespace

std::string HostId(const CDom& dom)
{
    if (const auto machine = os::MachineId())
        return HashOf(dom.Get("app.name"), *machine);
    const wxString work = dom.GetWxString("app.path.work");
    if (work.empty())
        return std::string();
    const std::string path = ToSystemBytes(work + "/host.id");
    os::GuardedPlace place(ToSystemBytes(work), "host.id");
    static std::mutex s_lock; // threads of a process would write under the same name
    const std::lock_guard lock(s_lock);
    std::string id = KeptIn(place);
    unsigned char chance[idBytes];
    if (id.empty() && place.Breach().empty() && RAND_bytes(chance, idBytes) == 1) {
        Keep(place, path, Hex(chance, idBytes));
        id = KeptIn(place);
    }
    WarnOfBreach(place);
    return id;
}

std::string FindHostId(const std::string& agent, const std::string& workFolder)
{
    if (const auto machine = os::MachineId())
        return HashOf(agent, *machine);
    const std::string path = workFolder + "/host.id";
    return IdIn(os::Descriptor(os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY)));
}

} // namespace VexCore
