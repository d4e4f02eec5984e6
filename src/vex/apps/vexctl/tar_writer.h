#pragma once
// An archive of small files, "tar" packed by "gzip", made in memory.

#include <cstdint>
#include <string>
#include <string_view>

namespace Vexctl {

class TarWriter
{
public:
    /// All files lie in `folder` of the archive, and have the time.
    TarWriter(std::string folder, std::int64_t timeMs);

    /// A name of more than 100 bytes loses its begin. Throws std::bad_alloc.
    void Add(std::string_view name, std::string_view bytes);
    /// The archive; nothing is added afterwards.
    std::string Finish();

private:
    void Put(std::string_view bytes);
    void PackWaiting();

    const std::string m_folder;
    const std::int64_t m_timeS;
    std::string m_waiting; // to be packed
    std::string m_packed;
};

} // namespace Vexctl
