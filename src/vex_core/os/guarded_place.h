#pragma once
// The one rule for what lies below the work folder, where somebody else may have had a hand in: it is used only when
// nobody but us and root can have made it what it is.

#include "vex_core/os/descriptor.h"

#include <initializer_list>
#include <string>

#include <sys/stat.h>

namespace VexCore::os {

/// Whether others than the owner and our own group may write there. The sticky bit counts for nothing.
bool MayOthersWrite(const struct stat& status);

/// A file or folder, and the way to it from a folder at the top. How the top itself is reached is the operator's
/// choice. From there on each step is taken by descriptor; the right to search a folder on the way is enough.
///
/// - a symbolic link is followed when it is ours or root's;
/// - a folder and a file must be ours or root's, and nobody else may write them: not the others, and not the group
///   unless it is our own. A folder with the sticky bit may be passed on the way, but nothing is made in it;
/// - a file must be a regular one with a single name.
///
/// What breaks the rule is neither read nor written. Every function fails with the last error, and with `Breach` when
/// it was the rule that failed it. One thread at a time.
class GuardedPlace
{
public:
    /// `below` is the way from `top`, without a slash at its begin.
    GuardedPlace(const std::string& top, std::string below);
    /// The folder that it lies in is the top.
    explicit GuardedPlace(const std::string& path);

    /// Opens the place, a folder; with `make` those that are missing are made first, with mode 0700.
    Descriptor OpenFolder(bool make);
    /// Opens the place, a file; `flags` as for open, without O_TRUNC. A new one gets mode 0600.
    Descriptor OpenFile(int flags);
    /// The same for a file whose content is not obeyed, a log or events: when it is ours and has a single name, the
    /// others' rights are taken from it first.
    Descriptor OpenAndMendFile(int flags);
    /// For a library that opens the place by its name: sees to it that the file is there and that it, and those of its
    /// `companions` that are there (named like it with something behind), keep to the rule and are for their owner
    /// alone; those of ours are mended as above. Opens none that is there: closing it would take away the locks that
    /// this process has on it.
    bool SettleFile(std::initializer_list<const char*> companions);

    /// The place with no link on the whole way, after a function went well.
    std::string RealPath() const;
    /// A sentence: what breaks the rule and what to do about it. Empty when nothing did.
    const std::string& Breach() const { return m_breach; }
    /// The same, or else the system's text for the last error.
    std::string Reason() const;

private:
    bool Walk(bool isFolder, bool make);
    bool EnterTop(bool make);
    bool Enter(Descriptor folder, const std::string& path);
    Descriptor OpenRegular(int flags, bool mend);
    bool Judge(const std::string& path, const struct stat& status, bool passing);
    bool Break(const std::string& text);

    const std::string m_top; // without a slash at its end
    const std::string m_below;
    std::string m_path; // of m_folder, without links below the top; empty: "/"
    std::string m_name; // of the file in it; empty: the place is m_folder
    Descriptor m_folder;
    struct stat m_status = {}; // of m_folder
    std::string m_breach;
};

} // namespace VexCore::os
