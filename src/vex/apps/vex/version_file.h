#pragma once
// What the version file beside an extension says. Bytes in, numbers out:
// nothing is logged and nothing else is looked at.

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

/// Reads the file in pieces of fixed size and no further than the answer needs: what lies behind 256 MiB is not looked
/// at. UTF-16 and UTF-32 are known by their mark; without one every byte stands for itself. Any thread.
FileVersion ReadVersionFile(wxInputStream& stream);
