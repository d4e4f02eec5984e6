#pragma once
// Somebody without rights, beside whom root's processes run.

#include <string>

#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace Test {

constexpr uid_t otherUser = 1000;

/// Gives a file or a link, and not what it leads to, to the other user. False where this process may not.
inline bool GiveAway(const std::string& path)
{
    return ::lchown(path.c_str(), otherUser, otherUser) == 0;
}

/// The same inside a test, which is skipped where that cannot be.
#define GIVE_AWAY(path)                                                                                                \
    do {                                                                                                               \
        if (!::Test::GiveAway(path))                                                                                   \
            GTEST_SKIP() << "NO SECOND USER here";                                                                     \
    } while (false)

} // namespace Test
