#pragma once
// The log of an agent, read back: its files in the order of their age, their lines, and what the first line of a record
// says. docs/FORMATS.md, "Log". Memory does not grow with the files.

#include "vex_core/log/disk_log.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/file_identity.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vexctl {

// --- records

/// The first line of a record. The texts are those of the line.
struct LogLine
{
    std::int64_t timeMs = 0; ///< to the second
    VexCore::LogLevel level = VexCore::LogLevel::Info;
    long process = 0;
    std::string_view thread;
    std::string_view text;
};

/// Absent for a line that begins no record.
std::optional<LogLine> ParseLogLine(std::string_view line);
/// Whether the line is a further one of the record before it.
bool IsContinuation(std::string_view line);
/// By its word in the log, in any case of letters.
std::optional<VexCore::LogLevel> FindLogLevel(std::string_view word);

// --- files

struct LogFile
{
    std::string path;
    VexCore::os::Descriptor file;
    VexCore::os::FileIdentity identity;
};

/// The log's files, open, the oldest first; also while they are being rotated each once. Rotated ones that cannot be
/// opened are left out, and `problems` gets a line for each. Throws Failure when the last one is there and cannot be
/// opened.
std::vector<LogFile> OpenLogFiles(const std::string& path, std::vector<std::string>& problems);

/// Reads the lines of a file from a place on, without their ends. What has no end yet is not shown: it is read when it
/// has one.
class LineReader
{
public:
    LineReader(int descriptor, std::int64_t from) : m_descriptor(descriptor), m_at(from) {}

    /// False at the end of the file, which may grow. A line of more than a mebibyte comes in pieces. The text lives
    /// until the next call.
    bool Next(std::string_view& line);
    /// What is there behind the last line, at the end of a file that grows no more.
    bool Rest(std::string_view& line);

private:
    bool Fill();

    const int m_descriptor;
    std::int64_t m_at; // where in the file the buffer ends
    std::string m_buffer;
    std::size_t m_begin = 0; // of what is left in the buffer
};

/// Where in the file the records begin that are not older than the time, at the earliest: lines of a log are in the
/// order of their times but for clocks that were set.
std::int64_t FindTimeInLog(int descriptor, std::int64_t size, std::int64_t sinceMs);

/// Visits the first lines of the records backwards, from the file's end on, until `visit` answers false; `begin` is
/// where in the file the line begins.
void VisitLogBackwards(int descriptor, std::int64_t size,
                       const std::function<bool(const LogLine& line, std::int64_t begin)>& visit);

/// The last lines of the log, across rotated files, at most so many bytes of them; they begin with a record's begin.
/// `isAll` tells whether nothing lies before them.
std::string ReadLogTail(const std::string& path, std::size_t maxBytes, bool& isAll);

} // namespace Vexctl
