#pragma once
// What the version file beside an extension says. Bytes in, numbers out:
// nothing is logged and nothing else is looked at.

#include <cstddef>
#include <functional>

class wxInputStream;

/// The first line of the file that begins with "version:".
struct FileVersion
{
    enum class LineKind {
        Missing, ///< there is no such line
        Malformed, ///< it is not followed by four numbers, as the scan format "%d.%d.%d-%d" reads them
        WellFormed,
    };

    LineKind line = LineKind::Missing;
    int numbers[4] = {}; ///< major, minor, patch and build of a well-formed line
};

/// Where a version file's bytes come from: puts the next ones at `data`, up to `size` of them, and answers how many. 0:
/// there are no more.
using VersionFileSource = std::function<std::size_t(void* data, std::size_t size)>;

/// Reads the file in pieces of fixed size and no further than the answer needs: what lies behind 256 MiB is not looked
/// at. UTF-16 and UTF-32 are known by their mark; without one every byte stands for itself. Any thread.
FileVersion ReadVersionFile(const VersionFileSource& source);
FileVersion ReadVersionFile(wxInputStream& stream);
