#include "fixture.h"

namespace {
class BoundClass : public Binder
{
protected:
    int Metatable()
    {
        luaL_getmetatable(L, "Bank.Account");
        return lua_gettop(L);
    }
};

TEST_F(BoundClass, MetatableHasItsThreeFields)
{
    const int metatable = Metatable();
    lua_getfield(L, metatable, "__class");
    EXPECT_STREQ(lua_tostring(L, -1), "Bank.Account");
    lua_getfield(L, metatable, "__gc");
    EXPECT_EQ(lua_type(L, -1), LUA_TFUNCTION);
    lua_getfield(L, metatable, "__index");
    SLB3::Namespace(L, "Bank.Account").push();
    EXPECT_TRUE(lua_rawequal(L, -1, -2)) << "the class table is the namespace of that name";
    ASSERT_TRUE(lua_getmetatable(L, -1));
    lua_pushnil(L);
    EXPECT_FALSE(lua_next(L, -2)) << "the class table's own metatable is empty";
}

TEST_F(BoundClass, ClassInformationIsNoted)
{
    const SLB3::internal::ClassInfo* info = SLB3::internal::FindClassInfo(L, Metatable());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->typeCode, 3);
    EXPECT_STREQ(info->name, "Bank.Account");
    EXPECT_EQ(info->argumentCount, 0);
    EXPECT_TRUE(SLB3::internal::ClassIsDefined(L, -1));
}

TEST_F(BoundClass, DefinitionIsUnfinishedUntilItsEnd)
{
    luaL_newmetatable(L, "Bank.Other");
    const int top = lua_gettop(L);
    SLB3::internal::Class<Other> definition(L, top);
    EXPECT_EQ(lua_gettop(L), top);
    EXPECT_FALSE(SLB3::internal::ClassIsDefined(L, top));
    SLB3::internal::OnClassDefinitionEnds(L, top);
    EXPECT_TRUE(SLB3::internal::ClassIsDefined(L, top));
    EXPECT_EQ(lua_gettop(L), top);
}

TEST_F(BoundClass, SecondUseDoesNotDefineAgain)
{
    SLB3::PushMetatable<Account>(L);
    lua_getfield(L, -1, "__index");
    lua_pushinteger(L, 7);
    lua_setfield(L, -2, "Balance"); // a new definition would overwrite this
    SLB3::PushMetatable<Account>(L);
    lua_getfield(L, -1, "__index");
    lua_getfield(L, -1, "Balance");
    EXPECT_EQ(lua_tointeger(L, -1), 7);
}

TEST_F(BoundClass, UnknownMetatableHasNoInformation)
{
    lua_newtable(L);
    EXPECT_EQ(SLB3::internal::FindClassInfo(L, -1), nullptr);
    EXPECT_FALSE(SLB3::internal::ClassIsDefined(L, -1));
}

#ifndef NDEBUG
TEST_F(BoundClass, MetatableThatIsNoTableIsAProgrammingError)
{
    lua_pushinteger(L, 1);
    EXPECT_DEATH(SLB3::internal::Class<Other>(L, lua_gettop(L)), "Invalid metatable");
}
#endif

// Runs `body` under pcall with the n-th allocation failing, for n = 0, 1, 2..., until it passes.
// Answers how often it failed.
int SweepAllocations(lua_CFunction body)
{
    for (int n = 0; n < 1000; ++n) {
        FailingAllocator allocator;
        lua_State* L = lua_newstate(&FailingAllocator::Allocate, &allocator);
        luaL_requiref(L, "_G", luaopen_base, 1);
        lua_pop(L, 1);
        lua_pushcfunction(L, body);
        allocator.untilFailure = n;
        const int status = lua_pcall(L, 0, 0, 0);
        allocator.untilFailure = -1;
        EXPECT_TRUE(status == LUA_OK || lua_tostring(L, -1) == std::string("not enough memory"));
        lua_settop(L, 0);
        // After the failure the same work succeeds in the same state: nothing is left half made.
        lua_pushcfunction(L, body);
        EXPECT_EQ(lua_pcall(L, 0, 0, 0), LUA_OK) << n << ": " << lua_tostring(L, -1);
        lua_close(L);
        EXPECT_EQ(allocator.blocks, 0);
        if (status == LUA_OK)
            return n;
    }
    return -1;
}

TEST(GlobalReference, OneObjectHasAllTheNamesAndNullMakesThemNil)
{
    lua_State* const L = luaL_newstate();
    luaL_openlibs(L);
    Account account;
    const char* const ask = "return type(one) .. ' ' .. tostring(rawequal(one, two))";
    SLB3::SetGlobalReference(L, {"one", "two"}, &account);
    EXPECT_EQ(lua_gettop(L), 0);
    EXPECT_EQ(luaL_dostring(L, ask), 0);
    EXPECT_STREQ(lua_tostring(L, -1), "userdata true");
    lua_settop(L, 0);
    SLB3::SetGlobalReference<Account>(L, {"one", "two"}, nullptr);
    EXPECT_EQ(lua_gettop(L), 0);
    EXPECT_EQ(luaL_dostring(L, ask), 0);
    EXPECT_STREQ(lua_tostring(L, -1), "nil true");
    lua_close(L);
}

TEST(ClassMemory, EveryFailingAllocationOfADefinitionIsAMemoryErrorAndNothingElse)
{
    const int failures = SweepAllocations([](lua_State* L) {
        static Account s_account;
        SLB3::PushReference(L, &s_account);
        lua_setglobal(L, "account");
        SLB3::PushValue<Other>(L);
        return 0;
    });
    EXPECT_GT(failures, 20);
}

TEST(ClassMemory, EveryFailingAllocationOfACallIsAMemoryErrorAndNothingElse)
{
    const int failures = SweepAllocations([](lua_State* L) {
        static Account s_account;
        SLB3::PushReference(L, &s_account);
        lua_setglobal(L, "account");
        const char* code = "for i = 1, 3 do account:Names() account:Greet('n' .. i) pcall(account.Throw, account) "
                           "pcall(account.Flip, account, i) pcall(account.Balance, {}) end";
        if (luaL_loadstring(L, code))
            return lua_error(L);
        lua_call(L, 0, 0);
        return 0;
    });
    EXPECT_GT(failures, 40);
}

} // namespace
