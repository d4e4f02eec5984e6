#include "vex_core/process/restarts.h"

#include "support/child.h"

#include <gtest/gtest.h>

using VexCore::ForksBeforeThisProcess;

TEST(Restarts, AreTheForksOfTheParentBefore)
{
    const auto result = ::Test::InChild([] {
        const std::uint64_t own = ForksBeforeThisProcess();
        for (int earlier = 0; earlier < 3; ++earlier) {
            // What a child forks itself is none of its own restarts.
            const int told = ::Test::InChild([] {
                const auto before = static_cast<int>(ForksBeforeThisProcess());
                ::Test::InChild([] { return 0; });
                return static_cast<int>(ForksBeforeThisProcess()) == before ? before : 99;
            });
            if (told != earlier)
                return 1;
        }
        return ForksBeforeThisProcess() == own ? 0 : 2;
    });
    EXPECT_EQ(result, 0);
}
