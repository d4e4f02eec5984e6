// Writes the files of an `Unzip`: first under temporary names, then, flushed, under their own.
#include "vex_core/zip/unzip_writer.h"

#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/zip/zip_names.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>

namespace VexCore {
namespace {
#ifdef VEX_SMALL_LIMITS
constexpr std::size_t maxWaitingFiles = 8;
constexpr std::size_t fewFiles = 5;
constexpr std::uint64_t maxWaitingBytes = 64 * 1024;
constexpr std::uint64_t writebackStep = 8 * 1024;
#else
// While files wait, old and new ones take space side by side.
constexpr std::size_t maxWaitingFiles = 1024;
// Of more, one flush of the file system costs less than one of each. Of fewer it may cost far more: it waits for what
// everybody has written there, and fails where theirs does.
constexpr std::size_t fewFiles = 16;
constexpr std::uint64_t maxWaitingBytes = 64 * 1024 * 1024;
constexpr std::uint64_t writebackStep = 8 * 1024 * 1024;
#endif

std::string InEntry(const ZipEntry& entry)
{
    return "entry \"" + EscapeForLog(entry.name) + "\": ";
}

} // namespace

bool UnzipWriter::IsFull() const
{
    return m_waiting.size() >= maxWaitingFiles || m_waitingBytes >= maxWaitingBytes;
}

void UnzipWriter::Write(const ZipArchive& archive, const ZipEntry& entry)
{
    const int folder = m_folders.Make(FolderOf(entry.name));
    Waiting waiting{&entry, folder, m_temporaries.NewName()};
    m_waiting.reserve(maxWaitingFiles); // so that noting the file, once it is there, cannot fail
    os::Descriptor file(os::OpenAt(folder, waiting.temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    if (!file)
        throw UnzipFailure("cannot make a temporary file", os::LastError());
    m_waiting.push_back(std::move(waiting));
    try {
        Fill(file.Get(), archive, entry);
        if (!file.Close())
            throw UnzipFailure("cannot write", os::LastError());
    } catch (...) {
        file.Reset();
        Drop(m_waiting.back());
        m_waiting.pop_back();
        throw;
    }
    m_waitingBytes += entry.size;
}

void UnzipWriter::Fill(int file, const ZipArchive& archive, const ZipEntry& entry)
{
    std::uint64_t sinceWriteback = 0;
    const auto write = [&](const char* data, std::size_t size) {
        if (!os::WriteAll(file, data, size))
            throw UnzipFailure("cannot write", os::LastError());
        sinceWriteback += size;
        if (sinceWriteback >= writebackStep) {
            sinceWriteback = 0;
            if (os::StartWriteback(file) != 0)
                throw UnzipFailure("cannot write", os::LastError());
        }
        return true;
    };
    std::string error;
    if (!archive.Read(entry, m_reading, write, error))
        throw UnzipFailure(error);
    if (os::FChmod(file, entry.mode) != 0)
        throw UnzipFailure("cannot set its mode", os::LastError());
}

void UnzipWriter::Commit()
{
    try {
        FlushWaiting();
        m_folders.CheckAll();
        RenameWaiting();
    } catch (...) {
        for (const Waiting& waiting : m_waiting)
            Drop(waiting);
        m_waiting.clear();
        throw;
    }
    m_waiting.clear();
    m_waitingBytes = 0;
}

void UnzipWriter::FlushWaiting()
{
    if (m_waiting.size() > fewFiles) {
        std::vector<std::string_view> folders;
        for (const Waiting& waiting : m_waiting)
            folders.push_back(FolderOf(waiting.entry->name));
        if (m_folders.FlushFileSystemsOf(folders))
            return;
    }
    for (std::size_t begin = 0; begin < m_waiting.size(); begin += fewFiles)
        FlushEach(begin, std::min(begin + fewFiles, m_waiting.size()));
}

// The writing of all is started before any is waited for: the first flush then finds the others' data on its way, and
// what a journal has to write of them is written with it.
void UnzipWriter::FlushEach(std::size_t begin, std::size_t end)
{
    std::vector<os::Descriptor> files;
    for (std::size_t i = begin; i < end; ++i) {
        const Waiting& waiting = m_waiting[i];
        files.emplace_back(os::OpenAt(waiting.folder, waiting.temporary.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
        if (!files.back())
            throw UnzipFailure(InEntry(*waiting.entry) + "cannot open its temporary file", os::LastError());
        if (os::StartWriteback(files.back().Get()) != 0)
            throw UnzipFailure(InEntry(*waiting.entry) + "cannot flush it", os::LastError());
    }
    for (std::size_t i = begin; i < end; ++i)
        if (os::FSync(files[i - begin].Get()) != 0)
            throw UnzipFailure(InEntry(*m_waiting[i].entry) + "cannot flush it", os::LastError());
}

void UnzipWriter::RenameWaiting()
{
    std::size_t done = 0;
    try {
        for (; done < m_waiting.size(); ++done) {
            const Waiting& waiting = m_waiting[done];
            const std::string& path = waiting.entry->name;
            if (os::RenameAt(waiting.folder, waiting.temporary.c_str(), waiting.folder, LastOf(path).c_str()) != 0)
                throw UnzipFailure(InEntry(*waiting.entry) + "cannot give it its name", os::LastError());
            m_folders.NoteRename(FolderOf(path));
        }
    } catch (...) {
        m_waiting.erase(m_waiting.begin(), m_waiting.begin() + static_cast<std::ptrdiff_t>(done));
        throw;
    }
}

void UnzipWriter::Drop(const Waiting& waiting) noexcept
{
    if (os::UnlinkAt(waiting.folder, waiting.temporary.c_str()) != 0 && os::LastError() != ENOENT)
        m_temporaries.KeepList();
}

} // namespace VexCore
