// Appending and taking happen under a lock on the file, because several processes use it, and count when they are
// flushed to the disk. Which events come here, and when they are tried again, is agentevent_store.h's.

#include "vex_core/events/pending_events.h"
#include "vex_core/log/process_log.h"
#include "vex_core/os/error.h"
#include "vex_core/os/file_identity.h"
#include "vex_core/os/file_lock.h"
#include "vex_core/os/files.h"
#include "vex_core/os/guarded_place.h"

#include <cerrno>

#include <fcntl.h>

#include <pugixml.hpp>

namespace VexCore {
namespace {
constexpr long lockTimeoutMs = 2000;

std::optional<std::int64_t> Number(const pugi::xml_node& node, const char* name)
{
    const pugi::xml_attribute attribute = node.attribute(name);
    if (!attribute)
        return std::nullopt;
    return attribute.as_llong();
}

// The file, locked, and still the one that the path names: a reader may have removed it while we waited for
// the lock.
os::Descriptor OpenLocked(os::GuardedPlace& place, const std::string& path, int flags)
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        os::Descriptor file = place.OpenAndMendFile(flags);
        struct stat mine;
        struct stat named;
        if (!file || os::FStat(file.Get(), mine) != 0)
            return os::Descriptor();
        if (!os::LockFile(file.Get(), lockTimeoutMs))
            return os::Descriptor();
        if (os::Stat(path.c_str(), named) == 0 && os::IdentityOf(mine).IsFileOf(named))
            return file;
    }
    os::SetLastError(EAGAIN);
    return os::Descriptor();
}

bool FlushFolderOf(const std::string& path)
{
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    const os::Descriptor descriptor(os::Open(folder.empty() ? "." : folder.c_str(), O_RDONLY));
    return descriptor && os::FSync(descriptor.Get()) == 0;
}

std::vector<EventRecord> ParseLines(const std::string& text, const std::string& path)
{
    std::vector<EventRecord> records;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        EventRecord record;
        if (ParsePendingLine(line, record))
            records.push_back(std::move(record));
        else if (!line.empty())
            WriteLogLine(LogLevel::Error, "A line of '" + path + "' is no event and is left out: " + line);
        at = end + 1;
    }
    return records;
}

} // namespace

std::string FormatPendingLine(const EventRecord& record)
{
    return "<pending key=\"" + record.key + "\">" + record.xml + "</pending>\n";
}

bool ParsePendingLine(const std::string& line, EventRecord& record)
{
    pugi::xml_document document;
    if (!document.load_buffer(line.data(), line.size(), pugi::parse_default, pugi::encoding_utf8))
        return false;
    const pugi::xml_node pending = document.child("pending");
    const pugi::xml_node event = pending.child("agent_event");
    record.key = pending.attribute("key").as_string();
    if (!event || record.key.empty())
        return false;
    record.timeMillis = Number(event, "time_ms");
    record.timeSeconds = Number(event, "time_s");
    record.number = Number(event, "number");
    record.severity = Number(event, "severity");
    if (const pugi::xml_attribute text = event.attribute("text"))
        record.text = text.as_string();
    const std::size_t begin = line.find("<agent_event");
    record.xml = line.substr(begin, line.rfind("</pending>") - begin);
    return true;
}

PendingEvents::PendingEvents(std::string path) : m_path(std::move(path)) {}

bool PendingEvents::Exists() const
{
    struct stat status;
    return os::Stat(m_path.c_str(), status) == 0;
}

bool PendingEvents::HasEvents() const
{
    struct stat status;
    return os::Stat(m_path.c_str(), status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
}

bool PendingEvents::Append(const EventRecord& record)
{
    os::GuardedPlace place(m_path);
    const os::Descriptor file = OpenLocked(place, m_path, O_RDWR | O_CREAT | O_APPEND);
    struct stat before;
    if (!file || os::FStat(file.Get(), before) != 0) {
        m_reason = place.Reason();
        return false;
    }
    // A line of its own, whatever a crash left at the end.
    const std::string line = "\n" + FormatPendingLine(record);
    const bool kept = os::WriteAll(file.Get(), line.data(), line.size()) && os::FSync(file.Get()) == 0
                      && (before.st_size > 0 || FlushFolderOf(m_path));
    if (!kept) {
        m_reason = place.Reason();
        if (before.st_size == 0)
            os::Unlink(m_path.c_str());
        else
            os::FTruncate(file.Get(), before.st_size); // else a torn line, which a reader passes over
    }
    return kept;
}

PendingEvents::TakeResult PendingEvents::Take(const std::function<bool(const std::vector<EventRecord>&)>& store)
{
    os::GuardedPlace place(m_path);
    const os::Descriptor file = OpenLocked(place, m_path, O_RDWR);
    std::string text;
    if (!file && os::LastError() == ENOENT)
        return TakeResult::All;
    if (!file || !os::ReadToEnd(file.Get(), text)) {
        m_reason = place.Reason();
        return TakeResult::Unreadable;
    }
    if (!store(ParseLines(text, m_path)))
        return TakeResult::Refused;
    if (os::Unlink(m_path.c_str()) == 0) {
        FlushFolderOf(m_path);
        return TakeResult::All;
    }
    // All are stored, and their keys keep them from being stored again for as long as they are here.
    const bool empty = text.empty() || (os::FTruncate(file.Get(), 0) == 0 && os::FSync(file.Get()) == 0);
    if (!empty)
        m_reason = place.Reason();
    return empty ? TakeResult::All : TakeResult::Unreadable;
}

} // namespace VexCore
