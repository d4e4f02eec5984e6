#pragma once
// Writes ZIP archives that the core library's reader takes: the same entries give the same bytes.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Vexctl {

/// Entries one after the other, each as a deflate stream with its sizes behind it, and the directory in the end. Memory
/// does not grow with an entry. Throws Failure for what the form cannot hold: an entry or an archive of 4 GiB, more
/// than 65,534 entries.
class ArchiveWriter
{
public:
    /// Gets the bytes of the archive in order; may throw.
    using Sink = std::function<void(const char* data, std::size_t size)>;
    /// Answers the next piece of an entry's data, empty at its end; may throw.
    using Source = std::function<std::string_view()>;

    explicit ArchiveWriter(Sink sink);
    ~ArchiveWriter();
    ArchiveWriter(const ArchiveWriter&) = delete;
    ArchiveWriter& operator=(const ArchiveWriter&) = delete;

    /// A regular file. `mode` is its rights.
    void Add(const std::string& name, unsigned mode, const Source& source);
    /// Once, behind the last entry.
    void Finish();

private:
    struct Entry;
    class Deflater;

    void Put(const std::string& bytes);
    void PutData(Entry& entry, const Source& source);

    const Sink m_sink;
    std::vector<Entry> m_entries;
    std::unique_ptr<Deflater> m_deflater;
    std::uint64_t m_offset = 0;
};

} // namespace Vexctl
