#include "vex/apps/vexctl/event_state.h"

#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/new_file.h"

#include "vex_core/os/error.h"
#include "vex_core/os/file_lock.h"
#include "vex_core/os/files.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>

namespace Vexctl {

namespace {
constexpr int stateVersion = 1;
constexpr std::int64_t betweenSavesMs = 1000;
constexpr off_t maxBytes = 1024 * 1024;

std::string LastErrorText()
{
    return VexCore::os::ErrorText(VexCore::os::LastError());
}

bool MeansFull(int error)
{
    return error == ENOSPC || error == EDQUOT;
}

// The library makes whole numbers of true and of fractions; what it says of a text is said of those, too.
std::int64_t WholeNumber(const Json& json)
{
    return (json.is_number_integer() ? json : Json("")).get<std::int64_t>();
}

// Throws an exception of the library where something is missing or of another type.
EventPosition PositionOf(const Json& json)
{
    EventPosition position;
    json.at("key").get_to(position.key);
    position.id = WholeNumber(json.at("id"));
    json.at("database").get_to(position.database);
    json.at("done").get_to(position.done);
    return position;
}

} // namespace

EventState::EventState(std::string path, std::string hostId, std::string agent,
                       std::function<void(const std::string&)> note, std::function<std::int64_t()> nowMs)
    : m_path(std::move(path)), m_hostId(std::move(hostId)), m_agent(std::move(agent)), m_note(std::move(note)),
      m_nowMs(std::move(nowMs))
{
    ExpectRoomForFile(m_path);
    Lock();
    Load();
    m_atSignal.emplace([this] { SaveQuietly(); });
}

EventState::~EventState()
{
    SaveQuietly();
}

// A file of its own, because the state file is another one after each writing. It stays: to remove it would let two
// others have a lock each.
void EventState::Lock()
{
    const std::string path = m_path + ".lock";
    ExpectRoomForFile(path);
    m_lockFile = VexCore::os::Descriptor(
        VexCore::os::Open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
    if (!m_lockFile)
        throw Failure(m_path + " cannot be locked: " + path + ": " + LastErrorText());
    if (VexCore::os::TryLock(m_lockFile.Get()) == 0)
        return;
    if (VexCore::os::LastError() == EAGAIN)
        throw Failure(m_path + " is in use by another vexctl events; give each a state file of its own");
    throw Failure(m_path + " cannot be locked: " + LastErrorText());
}

void EventState::Load()
{
    const VexCore::os::Descriptor file(VexCore::os::Open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!file && VexCore::os::LastError() == ENOENT)
        return;
    struct stat status = {};
    std::string text;
    if (!file || VexCore::os::FStat(file.Get(), status) != 0
        || (status.st_size <= maxBytes && !VexCore::os::ReadToEnd(file.Get(), text)))
        throw Failure(m_path + ": " + LastErrorText());
    const std::string remedy = "; name another file with --state, or remove this one to begin with all events";
    std::string host, agent;
    try {
        const Json json = Json::parse(text);
        const std::int64_t version = WholeNumber(json.at("vexctl_events_state"));
        if (version != stateVersion)
            throw Failure(m_path + " is a state of version " + std::to_string(version) + ", and this is version "
                          + std::to_string(stateVersion) + remedy);
        json.at("host_id").get_to(host);
        json.at("agent").get_to(agent);
        m_found = PositionOf(json);
    } catch (const Json::exception&) {
        throw Failure(m_path + " is no state of vexctl events, or is damaged" + remedy);
    }
    if (!host.empty() && !m_hostId.empty() && host != m_hostId)
        throw Failure(m_path + " is the state of another host (" + host + ", and this is " + m_hostId + ")" + remedy);
    if (agent != m_agent)
        throw Failure(m_path + " is the state of another agent (" + agent + ", and this is " + m_agent + ")" + remedy);
}

std::string EventState::Text() const
{
    const Json json = {{"vexctl_events_state", stateVersion},
                       {"host_id", m_hostId},
                       {"agent", m_agent},
                       {"key", m_position.key},
                       {"id", m_position.id},
                       {"database", m_position.database},
                       {"done", m_position.done}};
    return JsonText(json, 2) + "\n";
}

// Whole or not at all, under a name that the lock keeps for us. False with the last error.
bool EventState::Write()
{
    const std::string temporary = m_path + ".new";
    const std::string text = Text();
    VexCore::os::Unlink(temporary.c_str());
    VexCore::os::Descriptor file(VexCore::os::Open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    const bool written = file && VexCore::os::WriteAll(file.Get(), text.data(), text.size())
                         && VexCore::os::FChmod(file.Get(), 0600) == 0 && VexCore::os::FSync(file.Get()) == 0
                         && file.Close() && VexCore::os::Rename(temporary.c_str(), m_path.c_str()) == 0;
    if (!written) {
        const VexCore::os::KeepError keep;
        VexCore::os::Unlink(temporary.c_str());
        return false;
    }
    // That the name is on stable storage, too: without it the file before this one may come back, which repeats events.
    const std::size_t slash = m_path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : m_path.substr(0, slash + 1);
    const VexCore::os::Descriptor names(VexCore::os::Open(folder.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (names)
        VexCore::os::FSync(names.Get());
    return true;
}

void EventState::Begin(const EventPosition& position)
{
    {
        const std::lock_guard lock(m_lock);
        m_position = position;
        m_isSaved = Write();
        m_savedMs = m_nowMs();
        m_isBegun = true;
        if (m_isSaved)
            return;
        m_isBegun = MeansFull(VexCore::os::LastError());
    }
    if (!MeansFull(VexCore::os::LastError()))
        throw Failure(m_path + " cannot be written: " + LastErrorText());
    Tell(false);
}

void EventState::Set(const EventPosition& position)
{
    {
        const std::lock_guard lock(m_lock);
        if (m_position == position)
            return;
        m_position = position;
        m_isSaved = false;
    }
    if (IsDue())
        Save();
}

bool EventState::IsDue()
{
    const std::lock_guard lock(m_lock);
    return m_nowMs() - m_savedMs >= (m_isInTrouble ? betweenTriesMs : betweenSavesMs);
}

bool EventState::SaveWhenDue()
{
    return (!m_isInTrouble || IsDue()) && Save();
}

bool EventState::Save()
{
    bool isSaved = false;
    {
        const std::lock_guard lock(m_lock);
        if (!m_isBegun || m_isSaved)
            return true;
        isSaved = m_isSaved = Write();
        m_savedMs = m_nowMs();
    }
    Tell(isSaved);
    return isSaved;
}

// Once, until it is over; without the lock, because whoever is told may not listen. Of the last error.
void EventState::Tell(bool isSaved)
{
    const bool wasInTrouble = std::exchange(m_isInTrouble, !isSaved);
    if (isSaved && wasInTrouble)
        m_note(m_path + " is written again");
    else if (!isSaved && !wasInTrouble)
        m_note(m_path + " cannot be written: " + LastErrorText()
               + ". Events go on, and it is tried again; those shown meanwhile come twice after an end before that");
}

// By the thread of a signal, and where there is a reason for the end that counts more.
void EventState::SaveQuietly()
{
    const std::lock_guard lock(m_lock);
    if (m_isBegun && !m_isSaved)
        m_isSaved = Write();
}

} // namespace Vexctl
