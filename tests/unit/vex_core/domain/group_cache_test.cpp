#include "vex_core/domain/group_cache.h"

#include <gtest/gtest.h>

using VexCore::GroupCache;

namespace {
class KeptGroups : public testing::Test
{
protected:
    std::optional<gid_t> Get(const std::string& name)
    {
        return m_cache.Get(name, m_nowMs, [this](const std::string&) {
            ++m_asked;
            return m_answer;
        });
    }

    GroupCache m_cache;
    std::optional<gid_t> m_answer;
    std::int64_t m_nowMs = 5;
    int m_asked = 0;
};

} // namespace

TEST_F(KeptGroups, KnownOneIsAskedForOnce)
{
    m_answer = gid_t(7);
    EXPECT_EQ(Get("a"), gid_t(7));
    m_nowMs += 10 * GroupCache::unknownMs;
    EXPECT_EQ(Get("a"), gid_t(7));
    EXPECT_EQ(m_asked, 1);
}

TEST_F(KeptGroups, UnknownOneIsAskedForAgainAfterAWhile)
{
    EXPECT_FALSE(Get("a"));
    m_answer = gid_t(7);
    m_nowMs += GroupCache::unknownMs - 1;
    EXPECT_FALSE(Get("a"));
    EXPECT_EQ(m_asked, 1);
    m_nowMs += 1;
    EXPECT_EQ(Get("a"), gid_t(7));
}

TEST_F(KeptGroups, AnotherNameIsAnotherQuestion)
{
    EXPECT_FALSE(Get("a"));
    m_answer = gid_t(7);
    EXPECT_EQ(Get("b"), gid_t(7));
}

TEST_F(KeptGroups, NobodyWaitsForAnotherOnesQuestion)
{
    m_answer = gid_t(7);
    const auto group = m_cache.Get("slow", m_nowMs, [this](const std::string&) { return Get("a"); });
    EXPECT_EQ(group, gid_t(7));
}
