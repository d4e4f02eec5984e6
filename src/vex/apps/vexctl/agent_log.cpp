#include "vex/apps/vexctl/agent_log.h"

#include "vex/apps/vexctl/command.h"

#include "vex_core/base/ascii.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <fcntl.h>

namespace Vexctl {

// --- records

namespace {
constexpr VexCore::LogLevel levels[] = {
    VexCore::LogLevel::Fatal, VexCore::LogLevel::Error, VexCore::LogLevel::Warning, VexCore::LogLevel::Message,
    VexCore::LogLevel::Info,  VexCore::LogLevel::Debug, VexCore::LogLevel::Trace};

constexpr std::string_view stampPattern = "dddd-dd-dd dd:dd:dd ";

bool HasStamp(std::string_view line)
{
    if (line.size() < stampPattern.size())
        return false;
    for (std::size_t i = 0; i < stampPattern.size(); ++i) {
        const bool isDigit = line[i] >= '0' && line[i] <= '9';
        if (stampPattern[i] == 'd' ? !isDigit : line[i] != stampPattern[i])
            return false;
    }
    return true;
}

int Number(std::string_view line, std::size_t at, std::size_t digits)
{
    int value = 0;
    for (std::size_t i = at; i < at + digits; ++i)
        value = value * 10 + (line[i] - '0');
    return value;
}

// The stamp's time. Asking the system for each line would take most of the time of a long log, so the hour of the line
// before is kept.
std::int64_t TimeOfStamp(std::string_view line)
{
    static std::string s_hour;
    static std::time_t s_hourBegins = 0;
    constexpr std::size_t hourEnds = 13;
    if (line.substr(0, hourEnds) != s_hour) {
        s_hour = std::string(line.substr(0, hourEnds));
        struct tm time = {};
        time.tm_year = Number(line, 0, 4) - 1900;
        time.tm_mon = Number(line, 5, 2) - 1;
        time.tm_mday = Number(line, 8, 2);
        time.tm_hour = Number(line, 11, 2);
        time.tm_isdst = -1;
        s_hourBegins = std::mktime(&time);
    }
    return (static_cast<std::int64_t>(s_hourBegins) + Number(line, 14, 2) * 60 + Number(line, 17, 2)) * 1000;
}

} // namespace

std::optional<VexCore::LogLevel> FindLogLevel(std::string_view word)
{
    for (const VexCore::LogLevel level : levels) {
        const std::string_view name = VexCore::LogLevelWord(level);
        const bool same = name.size() == word.size()
                          && std::equal(word.begin(), word.end(), name.begin(), [](char given, char capital) {
                                 return VexCore::LowerAscii(given) == VexCore::LowerAscii(capital);
                             });
        if (same)
            return level;
    }
    return std::nullopt;
}

std::optional<LogLine> ParseLogLine(std::string_view line)
{
    if (!HasStamp(line))
        return std::nullopt;
    std::string_view rest = line.substr(stampPattern.size());
    LogLine parsed;
    const std::size_t wordEnds = std::min(rest.find(' '), rest.size());
    const std::optional<VexCore::LogLevel> level = FindLogLevel(rest.substr(0, wordEnds));
    if (!level || rest.substr(wordEnds, 2) != " [")
        return std::nullopt;
    parsed.level = *level;
    rest.remove_prefix(wordEnds + 2);
    std::size_t digits = 0;
    for (; digits < rest.size() && rest[digits] >= '0' && rest[digits] <= '9' && digits < 10; ++digits)
        parsed.process = parsed.process * 10 + (rest[digits] - '0');
    const std::size_t ends = rest.find("] ");
    if (digits == 0 || digits == rest.size() || rest[digits] != '/' || ends == std::string_view::npos)
        return std::nullopt;
    parsed.thread = rest.substr(digits + 1, ends - digits - 1);
    parsed.text = rest.substr(ends + 2);
    parsed.timeMs = TimeOfStamp(line);
    return parsed;
}

bool IsContinuation(std::string_view line)
{
    return line.substr(0, 4) == "    ";
}

// --- files

namespace {
// The number behind the name of a rotated file; 0: it is none.
long RotatedNumber(std::string_view name, std::string_view base)
{
    if (!VexCore::StartsWith(name, base) || name.size() < base.size() + 2 || name[base.size()] != '.')
        return 0;
    long number = 0;
    for (const char c : name.substr(base.size() + 1)) {
        if (c < '0' || c > '9' || number > 100000)
            return 0;
        number = number * 10 + (c - '0');
    }
    return number;
}

std::optional<LogFile> OpenLogFile(const std::string& path)
{
    LogFile opened;
    opened.path = path;
    struct stat status = {};
    opened.file = VexCore::os::Descriptor(VexCore::os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!opened.file) {
        if (VexCore::os::LastError() == ENOENT)
            return std::nullopt;
        throw Failure(path + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
    }
    if (VexCore::os::FStat(opened.file.Get(), status) != 0 || !S_ISREG(status.st_mode))
        throw Failure(path + " is no regular file");
    opened.identity = VexCore::os::IdentityOf(status);
    return opened;
}

} // namespace

// From the newest on: what a rotation moves meanwhile is met a second time under its next name, and nothing is missed.
std::vector<LogFile> OpenLogFiles(const std::string& path, std::vector<std::string>& problems)
{
    std::vector<LogFile> files;
    const auto add = [&files](const std::string& name) {
        std::optional<LogFile> file = OpenLogFile(name);
        const auto isSame = [&file](const LogFile& other) { return other.identity.IsFileOf(file->identity); };
        if (file && std::none_of(files.begin(), files.end(), isSame))
            files.push_back(std::move(*file));
    };
    add(path);
    const std::size_t slash = path.rfind('/');
    const std::string folder = path.substr(0, slash);
    const std::string base = path.substr(slash + 1);
    std::vector<long> numbers;
    const auto note = [&numbers, &base](const char* name) {
        if (const long number = RotatedNumber(name, base))
            numbers.push_back(number);
        return true;
    };
    if (VexCore::os::ListFolder(folder.c_str(), note) != 0)
        throw Failure(folder + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
    std::sort(numbers.begin(), numbers.end());
    for (const long number : numbers) {
        try {
            add(path + "." + std::to_string(number));
        } catch (const Failure& failure) {
            problems.emplace_back(failure.what());
        }
    }
    std::reverse(files.begin(), files.end());
    return files;
}

// --- lines

namespace {
constexpr std::size_t blockBytes = 256 * 1024;
constexpr std::size_t maxLineBytes = 1024 * 1024;
// What of a line is looked at to know it for a record's first. A thread's name is shorter.
constexpr std::size_t headBytes = 512;

std::string ReadBlock(int descriptor, std::int64_t from, std::size_t size)
{
    std::string block(size, '\0');
    const ssize_t got = VexCore::os::PReadFull(descriptor, block.data(), size, static_cast<off_t>(from));
    if (got < 0)
        throw Failure("the log cannot be read: " + VexCore::os::ErrorText(VexCore::os::LastError()));
    block.resize(static_cast<std::size_t>(got));
    return block;
}

} // namespace

bool LineReader::Fill()
{
    m_buffer.erase(0, m_begin);
    m_begin = 0;
    const std::string block = ReadBlock(m_descriptor, m_at, blockBytes);
    m_at += static_cast<std::int64_t>(block.size());
    m_buffer += block;
    return !block.empty();
}

bool LineReader::Next(std::string_view& line)
{
    std::size_t searched = m_begin;
    for (;;) {
        const std::size_t ends = m_buffer.find('\n', searched);
        if (ends != std::string::npos) {
            line = std::string_view(m_buffer).substr(m_begin, ends - m_begin);
            m_begin = ends + 1;
            return true;
        }
        if (m_buffer.size() - m_begin >= maxLineBytes) {
            line = std::string_view(m_buffer).substr(m_begin, maxLineBytes);
            m_begin += maxLineBytes;
            return true;
        }
        const std::size_t left = m_buffer.size() - m_begin;
        if (!Fill())
            return false;
        searched = left;
    }
}

bool LineReader::Rest(std::string_view& line)
{
    line = std::string_view(m_buffer).substr(m_begin);
    m_begin = m_buffer.size();
    return !line.empty();
}

std::int64_t FindTimeInLog(int descriptor, std::int64_t size, std::int64_t sinceMs)
{
    // What the clocks of a zone jump, and a little.
    constexpr std::int64_t slackMs = 2 * 3600 * 1000;
    constexpr auto closeEnough = static_cast<std::int64_t>(blockBytes);
    std::int64_t low = 0;
    std::int64_t high = size;
    while (high - low > closeEnough) {
        const std::int64_t middle = low + (high - low) / 2;
        LineReader lines(descriptor, middle);
        std::string_view line;
        std::optional<LogLine> found;
        std::int64_t at = middle;
        // The first of them is the rest of one.
        for (bool first = true; !found && at < high && lines.Next(line); first = false) {
            at += static_cast<std::int64_t>(line.size()) + 1;
            if (!first)
                found = ParseLogLine(line);
        }
        if (found && found->timeMs < sinceMs - slackMs)
            low = middle;
        else
            high = middle;
    }
    if (low == 0)
        return 0;
    LineReader lines(descriptor, low);
    std::string_view line;
    return lines.Next(line) ? low + static_cast<std::int64_t>(line.size()) + 1 : low;
}

void VisitLogBackwards(int descriptor, std::int64_t size,
                       const std::function<bool(const LogLine& line, std::int64_t begin)>& visit)
{
    for (std::int64_t end = size; end > 0;) {
        const std::int64_t begin = std::max<std::int64_t>(0, end - static_cast<std::int64_t>(blockBytes));
        // One byte before, to know whether a line begins with the block, and the head of a line that begins at its end.
        const std::int64_t from = std::max<std::int64_t>(0, begin - 1);
        const auto own = static_cast<std::size_t>(end - from);
        const std::string block = ReadBlock(descriptor, from, own + headBytes);
        const std::string_view text = block;
        for (std::size_t at = std::min(own, text.size()); at-- > 0;) {
            const bool begins = from + static_cast<std::int64_t>(at) == 0 || (at > 0 && text[at - 1] == '\n');
            if (!begins || from + static_cast<std::int64_t>(at) < begin)
                continue;
            const std::string_view rest = text.substr(at);
            const std::optional<LogLine> line = ParseLogLine(rest.substr(0, rest.find('\n')));
            if (line && !visit(*line, from + static_cast<std::int64_t>(at)))
                return;
        }
        end = begin;
    }
}

std::string ReadLogTail(const std::string& path, std::size_t maxBytes, bool& isAll)
{
    std::string tail;
    bool isCut = false;
    std::vector<std::string> problems;
    std::vector<LogFile> files = OpenLogFiles(path, problems);
    isAll = problems.empty();
    for (auto file = files.rbegin(); file != files.rend(); ++file) {
        struct stat status = {};
        if (VexCore::os::FStat(file->file.Get(), status) != 0)
            throw Failure(file->path + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
        const auto size = static_cast<std::size_t>(status.st_size);
        const std::size_t wanted = std::min(size, maxBytes - tail.size());
        tail.insert(0, ReadBlock(file->file.Get(), status.st_size - static_cast<off_t>(wanted), wanted));
        if (wanted < size) {
            isCut = true;
            isAll = false;
            break;
        }
    }
    if (!isCut)
        return tail;
    // The first line is the rest of one.
    const std::size_t ends = tail.find('\n');
    tail.erase(0, ends == std::string::npos ? tail.size() : ends + 1);
    return tail;
}

} // namespace Vexctl
