#pragma once
// How the checks of an archive report: by throwing. Private to this room; `ZipArchive` turns it into one line, or into
// one for each rule that is broken.

#include "vex_core/zip/zip_names.h"

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

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

/// What is wrong, for who wants to know all of it.
using Reasons = std::vector<std::string>;

/// Runs one check. A rule that it finds broken ends all where `reasons` is null, and is one of the reasons else.
template <typename Check>
void Apply(Reasons* reasons, Check check)
{
    try {
        check();
    } catch (const Refused& refused) {
        if (!reasons)
            throw;
        reasons->push_back(refused.what());
    }
}

[[noreturn]] inline void RefuseEntry(std::string_view name, const std::string& reason)
{
    throw Refused("entry \"" + EscapeForLog(name) + "\": " + reason);
}

} // namespace VexCore::Zip
