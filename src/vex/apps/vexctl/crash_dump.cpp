#include "vex/apps/vexctl/crash_dump.h"

#include "vex_core/base/hex.h"
#include "vex_core/crash/minidump_format.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <stdexcept>
#include <vector>

#include <fcntl.h>

namespace Vexctl {

namespace {
namespace Format = VexCore::Minidump;

constexpr std::uint32_t signature = 0x504d444d; // "MDMP"
// More than a dump of ours can have; what says otherwise is damaged.
constexpr std::uint32_t maxStreams = 1000;
constexpr std::uint32_t maxRecords = 100000;
constexpr std::uint32_t maxNameBytes = 8192;

class Damaged : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class DumpFile
{
public:
    explicit DumpFile(int descriptor) : m_descriptor(descriptor) {}

    void Read(void* data, std::size_t size, std::uint64_t from) const
    {
        const ssize_t got = VexCore::os::PReadFull(m_descriptor, data, size, static_cast<off_t>(from));
        if (got < 0)
            throw Damaged(VexCore::os::ErrorText(VexCore::os::LastError()));
        if (static_cast<std::size_t>(got) != size)
            throw Damaged("it ends too early");
    }

    template <typename Record>
    Record ReadRecord(std::uint64_t from) const
    {
        Record record;
        Read(&record, sizeof record, from);
        return record;
    }

    // A stream that is a count and so many records.
    template <typename Record>
    std::vector<Record> ReadList(const Format::Location& stream) const
    {
        const auto count = ReadRecord<std::uint32_t>(stream.rva);
        if (count > maxRecords || count > stream.size / sizeof(Record))
            throw Damaged("a list in it is longer than its place");
        std::vector<Record> records(count);
        Read(records.data(), count * sizeof(Record), stream.rva + std::uint64_t{sizeof count});
        return records;
    }

    // UTF-16 behind its length in bytes; what is no character of it becomes "?".
    std::string ReadText(std::uint64_t from) const
    {
        const auto size = ReadRecord<std::uint32_t>(from);
        if (size > maxNameBytes || size % 2 != 0)
            throw Damaged("a name in it is too long");
        std::vector<std::uint16_t> units(size / 2);
        Read(units.data(), size, from + sizeof size);
        std::string text;
        for (std::size_t i = 0; i < units.size(); ++i) {
            std::uint32_t character = units[i];
            const bool isPair =
                (character & 0xFC00) == 0xD800 && i + 1 < units.size() && (units[i + 1] & 0xFC00) == 0xDC00;
            if (isPair)
                character = 0x10000 + ((character & 0x3FF) << 10) + (units[++i] & 0x3FFu);
            AppendUtf8(text, (character & 0xFFFFF800) == 0xD800 ? '?' : character);
        }
        return text;
    }

private:
    static void AppendUtf8(std::string& text, std::uint32_t character)
    {
        const auto tail = [&text](std::uint32_t bits) { text += static_cast<char>(0x80 | (bits & 0x3F)); };
        if (character < 0x80) {
            text += static_cast<char>(character);
        } else if (character < 0x800) {
            text += static_cast<char>(0xC0 | character >> 6);
            tail(character);
        } else if (character < 0x10000) {
            text += static_cast<char>(0xE0 | character >> 12);
            tail(character >> 6);
            tail(character);
        } else {
            text += static_cast<char>(0xF0 | character >> 18);
            tail(character >> 12);
            tail(character >> 6);
            tail(character);
        }
    }

    const int m_descriptor;
};

using Streams = std::map<std::uint32_t, Format::Location>;

const Format::Location& Find(const Streams& streams, std::uint32_t type)
{
    const auto found = streams.find(type);
    if (found == streams.end())
        throw Damaged("a part of it is missing");
    return found->second;
}

std::string BuildIdOf(const DumpFile& file, const Format::Module& module)
{
    constexpr std::uint32_t maxIdBytes = 64;
    const std::uint32_t size = module.codeView.size;
    if (size <= sizeof(std::uint32_t) || size > maxIdBytes
        || file.ReadRecord<std::uint32_t>(module.codeView.rva) != Format::codeViewElfBuildId)
        return std::string();
    std::vector<unsigned char> bytes(size - sizeof(std::uint32_t));
    file.Read(bytes.data(), bytes.size(), module.codeView.rva + std::uint64_t{sizeof(std::uint32_t)});
    return VexCore::Hex(bytes.data(), bytes.size());
}

void FindModule(CrashDump& dump, const DumpFile& file, const Streams& streams, std::uint64_t place)
{
    dump.offset = place;
    for (const auto& module : file.ReadList<Format::Module>(Find(streams, Format::ModuleListStream)))
        if (place >= module.base && place - module.base < module.size) {
            dump.module = file.ReadText(module.nameRva);
            dump.offset = place - module.base;
            dump.buildId = BuildIdOf(file, module);
            return;
        }
}

void ReadStreams(CrashDump& dump, const DumpFile& file)
{
    const auto header = file.ReadRecord<Format::Header>(0);
    if (header.signature != signature || header.streamCount > maxStreams)
        throw Damaged("it is no dump");
    dump.timeMs = static_cast<std::int64_t>(header.time) * 1000;
    Streams streams;
    for (std::uint32_t i = 0; i < header.streamCount; ++i) {
        const auto entry = file.ReadRecord<Format::DirectoryEntry>(header.directoryRva
                                                                   + std::uint64_t{i} * sizeof(Format::DirectoryEntry));
        streams[entry.type] = entry.location;
    }
    const auto exception = file.ReadRecord<Format::Exception>(Find(streams, Format::ExceptionStream).rva);
    dump.signal = static_cast<int>(exception.code);
    dump.address = exception.address;
    dump.thread = exception.threadId;
    const auto misc = streams.find(Format::MiscInfoStream);
    if (misc != streams.end())
        dump.process = file.ReadRecord<Format::MiscInfo>(misc->second.rva).processId;
    const auto names = streams.find(Format::ThreadNamesStream);
    if (names != streams.end())
        for (const auto& name : file.ReadList<Format::ThreadName>(names->second))
            if (name.id == exception.threadId)
                dump.threadName = file.ReadText(name.nameRva);
    const auto system = file.ReadRecord<Format::SystemInfo>(Find(streams, Format::SystemInfoStream).rva);
    if (system.architecture == Format::architectureAmd64 && exception.context.size >= sizeof(Format::ContextAmd64))
        FindModule(dump, file, streams, file.ReadRecord<Format::ContextAmd64>(exception.context.rva).rip);
}

} // namespace

std::optional<CrashDump> ReadCrashDump(const std::string& path)
{
    CrashDump dump;
    dump.path = path;
    struct stat status = {};
    if (VexCore::os::Stat(path.c_str(), status) != 0) {
        if (VexCore::os::LastError() == ENOENT)
            return std::nullopt;
        dump.damage = VexCore::os::ErrorText(VexCore::os::LastError());
        return dump;
    }
    dump.timeMs = static_cast<std::int64_t>(status.st_mtime) * 1000;
    dump.bytes = static_cast<std::uint64_t>(status.st_size);
    if (!S_ISREG(status.st_mode)) {
        dump.damage = "it is no regular file";
        return dump;
    }
    const VexCore::os::Descriptor file(VexCore::os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!file) {
        dump.damage = VexCore::os::ErrorText(VexCore::os::LastError());
        return dump;
    }
    try {
        ReadStreams(dump, DumpFile(file.Get()));
    } catch (const Damaged& damaged) {
        dump.damage = damaged.what();
    }
    return dump;
}

std::string SignalName(int signal)
{
    switch (signal) {
    case SIGSEGV:
        return "SIGSEGV";
    case SIGBUS:
        return "SIGBUS";
    case SIGILL:
        return "SIGILL";
    case SIGFPE:
        return "SIGFPE";
    case SIGABRT:
        return "SIGABRT";
    case SIGTRAP:
        return "SIGTRAP";
    default:
        return std::to_string(signal);
    }
}

} // namespace Vexctl
