// How a record gets to the file, and a full file out of the way, among processes that do the same: nobody owns the
// file, so each looks where the name leads before it writes, and a lock of its own keeps two from rotating at once. On
// the threads that log, under one lock. Nothing here logs: troubles go to standard error or are records of its own.

#include "vex_core/log/disk_log.h"

#include "vex_core/base/hex.h"
#include "vex_core/base/utf8.h"
#include "vex_core/os/error.h"
#include "vex_core/os/file_identity.h"
#include "vex_core/os/file_lock.h"
#include "vex_core/os/files.h"
#include "vex_core/os/guarded_place.h"
#include "vex_core/os/last_resort.h"
#include "vex_core/os/pause.h"
#include "vex_core/os/process_info.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include <fcntl.h>

namespace VexCore {

namespace {
// How often, and after how long each time, the end of the file is looked at again before it counts as a piece.
constexpr int looksAtPiece = 5;
constexpr long betweenLooksMs = 1;

std::string RotatedName(const std::string& file, int number)
{
    return number == 0 ? file : file + '.' + std::to_string(number);
}

std::string NumberAndText(int error)
{
    return "error " + std::to_string(error) + ": " + os::ErrorText(error);
}

} // namespace

// --- records

namespace {
// Takes the next character off the text, as it stands in a record.
std::string TakeCharacter(std::string_view& text)
{
    char32_t character = 0;
    std::size_t length = DecodeUtf8(text, character);
    if (length == 0) { // a byte may be a control character too: a terminal that is not set to UTF-8 obeys it
        character = static_cast<unsigned char>(text.front());
        length = 1;
    }
    if (text.substr(0, 2) == "\r\n")
        length = 2;
    const std::string_view bytes = text.substr(0, length);
    text.remove_prefix(length);
    if (bytes.front() == '\n' || bytes.front() == '\r')
        return "\n    ";
    return character != '\t' && IsControlOrLineEnd(character) ? ShownInHex(bytes) : std::string(bytes);
}

// How many bytes at the start of the text stand in a record as they are: by eight, until one of eight does not. Those
// from 0x20 to 0x7e are the ones whose high bit is clear behind the subtraction and behind the addition.
std::size_t PlainBytes(std::string_view text)
{
    constexpr std::uint64_t ones = 0x0101010101010101;
    std::size_t count = 0;
    for (std::uint64_t eight; text.size() - count >= sizeof eight; count += sizeof eight) {
        std::memcpy(&eight, text.data() + count, sizeof eight);
        if (((eight - 0x20 * ones) | (eight + ones)) & 0x80 * ones)
            break;
    }
    while (count < text.size() && text[count] >= 0x20 && text[count] < 0x7f)
        ++count;
    return count;
}

// Adds the text as LogText says.
void AddText(std::string& record, std::string_view text, std::size_t maxBytes = maxLogTextBytes)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.remove_suffix(1);
    const std::size_t size = text.size();
    std::size_t room = maxBytes;
    while (!text.empty()) {
        const std::size_t plain = PlainBytes(text.substr(0, room));
        record.append(text.substr(0, plain));
        text.remove_prefix(plain);
        room -= plain;
        if (text.empty())
            break;
        const std::string next = TakeCharacter(text);
        if (next.size() > room) {
            record.append(" ... (cut, ").append(std::to_string(size)).append(" bytes in all)");
            break;
        }
        record += next;
        room -= next.size();
    }
}

// Writes the time as DiskLog::standardTimeFormat has it: strftime takes as long as the rest of a record. The year has
// four digits.
void PutStandardTime(char* place, const struct tm& local)
{
    const auto put = [&place](int twoDigits, char behind) {
        *place++ = static_cast<char>('0' + twoDigits / 10);
        *place++ = static_cast<char>('0' + twoDigits % 10);
        *place = behind;
        place += behind == '\0' ? 0 : 1;
    };
    const int year = local.tm_year + 1900;
    put(year / 100, '\0');
    put(year % 100, '-');
    put(local.tm_mon + 1, '-');
    put(local.tm_mday, ' ');
    put(local.tm_hour, ':');
    put(local.tm_min, ':');
    put(local.tm_sec, '\0');
}

constexpr std::size_t maxTime = 128;
constexpr std::size_t standardTimeLength = 19;

// What a thread has written last in the standard format. It is the same text until the second is over or the process is
// told of another time zone.
struct LastTime
{
    std::time_t time;
    long zone;
    int daylight;
    char text[standardTimeLength + 1]; // empty: there is none
};
thread_local LastTime t_lastTime = {};

// Writes the time by the format and gives the place behind it. `place` has room for maxTime.
char* PutTime(char* place, std::time_t time, const char* format)
{
    const bool isStandard = std::strcmp(format, DiskLog::standardTimeFormat) == 0;
    LastTime& last = t_lastTime;
    if (!isStandard || time != last.time || last.zone != ::timezone || last.daylight != ::daylight || !last.text[0]) {
        struct tm local = {};
        ::localtime_r(&time, &local);
        if (!isStandard || local.tm_year < 1000 - 1900 || local.tm_year > 9999 - 1900)
            return place + std::strftime(place, maxTime, format, &local);
        last.time = time;
        last.zone = ::timezone;
        last.daylight = ::daylight;
        PutStandardTime(last.text, local);
    }
    return std::copy_n(last.text, standardTimeLength, place);
}

} // namespace

std::string LogText(std::string_view text, std::size_t maxBytes)
{
    std::string result;
    result.reserve(std::min(text.size(), maxBytes));
    AddText(result, text, maxBytes);
    return result;
}

std::string FormatLogRecord(std::time_t time, const char* timeFormat, LogLevel level, pid_t process, const char* thread,
                            std::string_view text)
{
    constexpr std::size_t maxWord = 7;
    constexpr std::size_t maxNumber = 20;
    char head[maxTime + sizeof "  [/" + maxWord + maxNumber];
    char* end = PutTime(head, time, timeFormat);
    *end++ = ' ';
    const char* const word = LogLevelWord(level);
    end = std::copy_n(word, std::strlen(word), end);
    *end++ = ' ';
    *end++ = '[';
    end = std::to_chars(end, end + maxNumber, process).ptr;
    *end++ = '/';
    constexpr std::size_t usualName = 32;
    std::string record;
    record.reserve(static_cast<std::size_t>(end - head) + usualName + std::min(text.size(), maxLogTextBytes));
    record.append(head, end);
    AddText(record, thread);
    record.append("] ", 2);
    AddText(record, text);
    record += '\n';
    return record;
}

namespace {
// What follows the time, without the line's end. How long a time is, is up to its format.
std::string_view WithoutTime(std::string_view record, LogLevel level)
{
    const std::size_t place = record.find(std::string(" ") + LogLevelWord(level) + " [");
    record.remove_prefix(place == std::string_view::npos ? 0 : place + 1);
    return record.substr(0, record.find_last_not_of('\n') + 1);
}

} // namespace

// --- the log's surface

DiskLog::DiskLog(std::size_t maxHeldBytes, int errorDescriptor) : m_maxHeldBytes(maxHeldBytes), m_error(errorDescriptor)
{}

void DiskLog::SetFile(const std::string& path)
{
    const std::lock_guard lock(m_lock);
    if (m_path.empty())
        m_path = path;
    m_hasFile.store(!m_path.empty(), std::memory_order_relaxed);
}

void DiskLog::SetSettings(const Settings& settings)
{
    const std::lock_guard lock(m_lock);
    m_settings = settings;
    if (settings.copy.facility == SystemLogCopy::nowhere)
        TellWhatWasNotCopied();
    m_copy.SetSettings(settings.copy);
}

void DiskLog::Write(const std::string& record, bool shown, LogLevel level, const char* timeFormat, std::time_t time)
{
    const std::lock_guard lock(m_lock);
    if (m_timeFormat != timeFormat)
        m_timeFormat = timeFormat;
    const bool isWritten = WriteHeld() && TryWrite(record);
    // What is written before there is a place is so before the settings are known.
    const Copied copied = m_path.empty() ? Copied::NotYet : Copy(record, level, time, isWritten);
    if (!isWritten)
        Hold({record, shown, level, time, copied});
}

void DiskLog::Flush()
{
    const std::lock_guard lock(m_lock);
    WriteHeld();
}

void DiskLog::FlushAtEnd()
{
    const std::lock_guard lock(m_lock);
    WriteHeld();
    TellWhatWasNotCopied();
    for (const Held& held : m_held)
        GiveAway(held);
    m_held.clear();
    m_heldBytes = 0;
}

// The lock is held across the fork, so that the child finds it, and all it guards, whole.
void DiskLog::BeforeFork()
{
    m_lock.lock();
    WriteHeld();
}

void DiskLog::AfterForkInParent()
{
    m_lock.unlock();
}

void DiskLog::AfterForkInChild()
{
    m_held.clear();
    m_heldBytes = 0;
    m_elsewhere = 0;
    m_lost = 0;
    m_identity = {}; // to be opened anew: the position of an open file is shared with the parent, and we ask for it
    m_copy.Forget();
    m_lock.unlock();
}

// --- writing

bool DiskLog::WriteHeld()
{
    while (!m_held.empty()) {
        const Held& first = m_held.front();
        if (!TryWrite(first.record))
            return false;
        if (first.copied == Copied::NotYet)
            Copy(first.record, first.level, first.time, true);
        else if (first.copied == Copied::LeftOut)
            m_copy.CountLeftOut();
        m_heldBytes -= m_held.front().record.size();
        m_held.pop_front();
    }
    const auto tell = [this](std::size_t& count, const char* whatOfThem) {
        if (count > 0 && !WriteOwn(std::to_string(count) + whatOfThem))
            return false;
        count = 0;
        return true;
    };
    return tell(m_elsewhere, " lines could not be written here and went to standard error or the system log")
           && tell(m_lost, " lines could be written nowhere, neither here nor to the system log, and are lost");
}

bool DiskLog::TryWrite(const std::string& record)
{
    if (m_path.empty() || !MakeReady(record.size()))
        return false;
    const bool piece = m_size != m_cleanEnd && EndsInPiece();
    if (!(piece ? WriteBytes('\n' + record) : WriteBytes(record)))
        return false;
    m_troubled = false;
    return !WasGlued(record.size() + (piece ? 1 : 0)) || WriteBytes(record);
}

bool DiskLog::WriteBytes(const std::string& bytes)
{
    if (os::WriteAll(m_file.Get(), bytes.data(), bytes.size()))
        return true;
    Fail(NumberAndText(os::LastError()));
    return false;
}

// Whether the file ends in a piece of a record: of ours, when the disk was full in the middle of it, or of a process
// that was killed while the system copied its record. A record that is being copied looks the same for a moment,
// because the file grows by pages: a piece is what stays.
bool DiskLog::EndsInPiece()
{
    for (int look = 0; IsInsideLine(m_size); ++look) {
        // One that is known is not waited for again: on a full disk each record would be.
        if (look == looksAtPiece || m_size == m_pieceEnd) {
            m_pieceEnd = m_size;
            return true;
        }
        os::PauseMs(betweenLooksMs);
        struct stat status = {};
        if (os::FStat(m_file.Get(), status) == 0)
            m_size = status.st_size;
    }
    return false;
}

bool DiskLog::IsInsideLine(off_t place) const
{
    char before = '\n';
    if (place > 0)
        os::PReadFull(m_file.Get(), &before, 1, place - 1);
    return before != '\n';
}

// Whether the record of `size` bytes that was just written went behind a piece nevertheless, because its writer was
// killed between our look at the file and our write. Then it has to be written again, on a line of its own.
bool DiskLog::WasGlued(std::size_t size)
{
    const off_t end = os::FilePosition(m_file.Get());
    const off_t begin = end - static_cast<off_t>(size);
    m_cleanEnd = end;
    return begin > 0 && begin != m_size && IsInsideLine(begin);
}

void DiskLog::Hold(Held held)
{
    if (m_heldBytes + held.record.size() > m_maxHeldBytes) {
        GiveAway(held);
        return;
    }
    m_heldBytes += held.record.size();
    m_held.push_back(std::move(held));
}

void DiskLog::GiveAway(const Held& held)
{
    const bool isSomewhere = held.shown || held.copied == Copied::Taken
                             || os::WriteLastResort(m_error, SeverityOf(held.level), {held.record});
    ++(isSomewhere ? m_elsewhere : m_lost);
}

void DiskLog::Fail(const std::string& reason)
{
    if (m_troubled)
        return;
    m_troubled = true;
    const std::string line =
        "Can't write the log file " + m_path + " (" + reason + "), lines are kept in memory and tried again";
    os::WriteLastResort(m_error, os::severityError, {LogText(line), "\n"});
}

std::string DiskLog::OwnRecord(const std::string& text) const
{
    return FormatLogRecord(std::time(nullptr), m_timeFormat.c_str(), LogLevel::Warning, os::ProcessId(), "log", text);
}

// A record of the log's own, in the file and in the copy. False: it is to be tried again.
bool DiskLog::WriteOwn(const std::string& text)
{
    const std::string record = OwnRecord(text);
    if (!TryWrite(record))
        return false;
    Copy(record, LogLevel::Warning, std::time(nullptr), true);
    return true;
}

// --- the copy in the system's log

DiskLog::Copied DiskLog::Copy(const std::string& record, LogLevel level, std::time_t time, bool isInFile)
{
    if (!m_copy.Wants(level))
        return Copied::Unwanted;
    const bool isTaken = m_copy.Send(level, time, WithoutTime(record, level));
    if (!isTaken && isInFile)
        m_copy.CountLeftOut();
    TellOfCopies();
    return isTaken ? Copied::Taken : Copied::LeftOut;
}

// In the file, behind the record that it is about. Where that cannot be written it is told with a later one.
void DiskLog::TellOfCopies()
{
    const std::string notice = m_copy.Notice();
    if (notice.empty() || m_path.empty())
        return;
    const std::string record = OwnRecord(notice);
    if (TryWrite(record) && m_copy.NoticeIsTold())
        Copy(record, LogLevel::Warning, std::time(nullptr), true);
}

void DiskLog::TellWhatWasNotCopied()
{
    const std::string notice = m_copy.TakeLastNotice();
    if (notice.empty())
        return;
    const std::string record = OwnRecord(notice);
    if (!TryWrite(record))
        Hold({record, false, LogLevel::Warning, std::time(nullptr), Copied::Unwanted});
}

// --- the file

// Sees to it that the open file is the one of that name and has room for `size` more bytes.
bool DiskLog::MakeReady(std::size_t size)
{
    // Two rounds are the rule at worst (open, rotate, open); others who rotate meanwhile may cost more.
    for (int round = 0; round < 8; ++round) {
        struct stat status = {};
        const bool there = os::StatWithoutTimes(m_path.c_str(), status) == 0;
        if (!there && os::LastError() != ENOENT && m_file)
            return true; // the name cannot be asked for just now; the open file is still the best place
        if (!there || !m_identity.IsFileOf(status)) {
            if (!Open())
                return false;
            continue;
        }
        m_size = status.st_size;
        const bool full =
            status.st_size > 0
            && static_cast<std::int64_t>(status.st_size) + static_cast<std::int64_t>(size) > m_settings.maxBytes;
        if (!full || !Rotate())
            return true;
    }
    return true;
}

bool DiskLog::Open()
{
    os::GuardedPlace place(m_path);
    os::Descriptor opened = place.OpenAndMendFile(O_RDWR | O_APPEND | O_CREAT);
    struct stat status = {};
    int error = !opened || os::FStat(opened.Get(), status) != 0 ? os::LastError() : 0;
    // A starter's umask may have taken our own rights from the new file, and without them it could not be opened again;
    // and one that is there may have been made for everybody's eyes.
    const bool isOurs = status.st_uid == os::EffectiveUser();
    if (error == 0 && isOurs && (status.st_mode & 07777) != 0600 && os::FChmod(opened.Get(), 0600) != 0)
        error = os::LastError();
    const bool isFirst = !m_file;
    if (error == 0 && !os::ReplaceDescriptor(m_file, std::move(opened)))
        error = os::LastError();
    if (error != 0) {
        Fail(place.Breach().empty() ? NumberAndText(error) : place.Breach());
        return false;
    }
    m_number = m_file.Get();
    m_identity = os::IdentityOf(status);
    m_cleanEnd = 0;
    m_pieceEnd = 0;
    m_failureTold = 0;
    // Those that an older version has left.
    for (int number = 1; isFirst && number <= m_settings.keep; ++number)
        os::GuardedPlace(RotatedName(place.RealPath(), number)).OpenAndMendFile(O_RDONLY);
    return true;
}

// --- rotation

// Moves the full file away. False: it is to be written on (another process is at it, or it cannot be moved).
//
// One process at a time, by a lock that goes with its holder's life. Nobody waits for it: a holder that is stopped
// would stop every writer, so the others write on into the full file meanwhile, where no line is lost either.
//
// Where the log is a link, what it leads to is rotated, in its own folder, and the link stays. Several links may lead
// there, so the lock lies there too. Any folder on the way may be moved, and be a link to where it went: the way is
// found anew each time.
bool DiskLog::Rotate()
{
    if (std::time(nullptr) < m_rotateNotBefore)
        return false;
    os::GuardedPlace place(m_path);
    if (!place.OpenFile(O_RDONLY)) {
        if (os::LastError() == ENOENT)
            return true; // another has rotated since our look at the file
        RotationFailed(place.Breach().empty() ? NumberAndText(os::LastError()) : place.Breach());
        return false;
    }
    const std::string file = place.RealPath();
    os::GuardedPlace lockPlace(file + ".lock");
    const os::Descriptor lock = lockPlace.OpenFile(O_RDWR | O_CREAT);
    if (!lock) {
        RotationFailed(lockPlace.Breach().empty() ? NumberAndText(os::LastError()) : lockPlace.Breach());
        return false;
    }
    if (os::TryLock(lock.Get()) != 0)
        return false;
    // What is renamed is our file: another may have rotated before we had the lock, or the way leads elsewhere now.
    struct stat status = {};
    const bool moved = os::Stat(file.c_str(), status) != 0 || !m_identity.IsFileOf(status);
    return moved || ShiftFiles(file);
}

// Renames from the oldest on, so that a process killed in between leaves a gap and never two files under one name. The
// next rotation fills the gap and moves only the files before it.
bool DiskLog::ShiftFiles(const std::string& file)
{
    const int keep = m_settings.keep;
    struct stat status = {};
    int gap = 1;
    while (gap < keep && os::Stat(RotatedName(file, gap).c_str(), status) == 0)
        ++gap;
    if (gap < keep && os::LastError() != ENOENT) {
        RotationFailed(NumberAndText(os::LastError())); // not a gap: a file may be there, and must not be renamed over
        return false;
    }
    for (int number = gap; number > 0; --number)
        if (os::Rename(RotatedName(file, number - 1).c_str(), RotatedName(file, number).c_str()) != 0) {
            RotationFailed(NumberAndText(os::LastError()));
            return false;
        }
    // What a larger number of files to keep has left behind.
    for (int number = keep + 1; os::Unlink(RotatedName(file, number).c_str()) == 0;)
        ++number;
    return true;
}

void DiskLog::RotationFailed(const std::string& reason)
{
    m_rotateNotBefore = std::time(nullptr) + m_settings.retrySeconds;
    if (m_size / 2 < m_failureTold) // it may be for ever, in a folder of another's
        return;
    m_failureTold = m_size;
    const std::string record = OwnRecord("The log file can't be rotated (" + reason + "), it grows on");
    os::Write(m_file.Get(), record.data(), record.size());
}

} // namespace VexCore
