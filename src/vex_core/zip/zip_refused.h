#pragma once
// How the checks of an archive report: by throwing. Private to this room; `ZipArchive::Open` turns it into one line.

#include "vex_core/zip/zip_names.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace VexCore::Zip {

/// A rule that the archive breaks; what() is the reason, without the archive's name.
class Refused : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Reasons that two of the checks give. What a folder has shows partly in the directory, partly where its data lie.
inline constexpr char folderWithData[] = "it is a folder with data";
inline constexpr char cutShort[] = "the file was cut short while it was read";

[[noreturn]] inline void RefuseEntry(std::string_view name, const std::string& reason)
{
    throw Refused("entry \"" + EscapeForLog(name) + "\": " + reason);
}

} // namespace VexCore::Zip
