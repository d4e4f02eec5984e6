#pragma once
// Archives built for one rule each: broken ones with the reason that the reader gives, and valid ones that are rare.

#include <string>
#include <utility>
#include <vector>

namespace Test {

struct BrokenArchive
{
    std::string story; ///< what is wrong, as a name of letters
    std::string bytes;
    std::string reason; ///< part of the reader's line
};

/// Their fault shows in the headers.
std::vector<BrokenArchive> BrokenArchives();
/// Their headers are in order and the data of "bad" is not; "good" comes before it and "later" behind it.
std::vector<BrokenArchive> ArchivesWithBrokenData();

struct ValidArchive
{
    std::string story;
    std::string bytes;
    std::vector<std::pair<std::string, std::string>> files; ///< name and content; a folder's name ends in "/"
};

std::vector<ValidArchive> ValidArchives();

} // namespace Test
