#include "fixture.h"

namespace {
using BoundNamespace = Binder;

TEST_F(BoundNamespace, SameNameIsTheSameTable)
{
    const int top = lua_gettop(L);
    const SLB3::Namespace first(L, "Tools");
    const SLB3::Namespace second(L, "Tools");
    const SLB3::Namespace other(L, "Toys");
    EXPECT_EQ(lua_gettop(L), top);
    first.push();
    second.push();
    other.push();
    EXPECT_EQ(lua_type(L, -1), LUA_TTABLE);
    EXPECT_TRUE(lua_rawequal(L, -2, -3));
    EXPECT_FALSE(lua_rawequal(L, -1, -2));
}

} // namespace
