#include "fixture.h"

#include <cstring>

namespace {
using namespace SLB3::internal;
using BoundObject = Binder;

TEST_F(BoundObject, RecordOfAReferenceSaysSo)
{
    lua_getglobal(L, "account");
    const auto* const place = static_cast<const ObjectRecord*>(lua_touserdata(L, -1));
    ASSERT_NE(place, nullptr);
    const ObjectRecord& record = *place;
    EXPECT_EQ(record.flags, 2u) << "kind 2, policy 0";
    EXPECT_EQ(record.Kind(), StoragePointer);
    EXPECT_EQ(record.Policy(), PolicyReference);
    EXPECT_STREQ(record.className, "Bank.Account");
    EXPECT_EQ(record.pointer, &m_account);
    EXPECT_EQ(record.unpack(record), &m_account);
    EXPECT_EQ(record.parents, GetParentsConversionArray(L, "Bank.Account"));
    EXPECT_EQ(record.parents[0].parentName, nullptr);
}

TEST_F(BoundObject, CollectingAReferenceLeavesTheObject)
{
    int destroyed = 0;
    Account other(&destroyed);
    SLB3::PushReference(L, &other);
    lua_close(L);
    L = nullptr;
    EXPECT_EQ(destroyed, 0);
}

TEST_F(BoundObject, ValueDiesWithItsUserdataOnce)
{
    int destroyed = 0;
    SLB3::PushValue<Account>(L, &destroyed).balance = 9;
    lua_setglobal(L, "value");
    EXPECT_EQ(Run("value:Balance()"), "9");
    lua_pushnil(L);
    lua_setglobal(L, "value");
    lua_gc(L, LUA_GCCOLLECT, 0);
    EXPECT_EQ(destroyed, 1);
    lua_close(L);
    L = nullptr;
    EXPECT_EQ(destroyed, 1);
}

TEST_F(BoundObject, OwnedPointerIsDeleted)
{
    int destroyed = 0;
    SLB3::PushMetatable<Account>(L);
    PushObjectRecord(L, new Account(&destroyed), PolicyOwned);
    lua_insert(L, -2);
    lua_setmetatable(L, -2);
    lua_close(L);
    L = nullptr;
    EXPECT_EQ(destroyed, 1);
}

TEST_F(BoundObject, DestroyedObjectIsAnErrorNotACrash)
{
    int destroyed = 0;
    SLB3::PushValue<Account>(L, &destroyed);
    lua_setglobal(L, "value");
    EXPECT_EQ(Run("select('#', getmetatable(value).__gc(value))"), "0");
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(Run("value:Balance()"), "error: test:1: bad argument #0 (self) to 'Bank.Account:Balance' "
                                      "(Bank.Account expected, got one that was collected)");
}

TEST_F(BoundObject, AnotherClasssMetatableDoesNotMakeItOne)
{
    int destroyed = 0;
    SLB3::PushValue<Account>(L, &destroyed).balance = 7;
    lua_setglobal(L, "value");
    SLB3::PushValue<Other>(L);
    lua_setglobal(L, "other");
    EXPECT_EQ(Run("(function() debug.setmetatable(other, getmetatable(account)) return (other:Balance()) end)()"),
              "error: test:1: bad argument #0 (self) to 'Bank.Account:Balance' (Bank.Account expected, got Bank.Other; "
              "methods are called with ':')");
    Run("(function() other = nil collectgarbage() end)()");
    // What it is stands in the object: it goes on to be one.
    EXPECT_EQ(
        Run("(function() local balance = value.Balance debug.setmetatable(value, {}) return balance(value) end)()"),
        "7");
}

TEST_F(BoundObject, OurMetatableDoesNotMakeAForeignUserdataOurs)
{
    std::memset(lua_newuserdata(L, 200), 0x41, 200);
    lua_setglobal(L, "large");
    lua_newuserdata(L, 1);
    lua_setglobal(L, "small");
    lua_pushlightuserdata(L, &m_account);
    lua_setglobal(L, "light");
    for (const char* const name : {"large", "small", "light"})
        EXPECT_EQ(Run(std::string("(function() debug.setmetatable(") + name + ", getmetatable(account)) return (" + name
                      + ":Balance()) end)()"),
                  "error: test:1: bad argument #0 (self) to 'Bank.Account:Balance' (Bank.Account expected, got "
                  "userdata; methods are called with ':')")
            << name;
    EXPECT_EQ(Run("select(2, pcall(account.Flip, account, large))"),
              "bad argument #1 to 'Bank.Account:Flip' (boolean expected, got userdata)");
    Run("(function() debug.setmetatable(light, nil) large, small = nil collectgarbage() end)()");
}

TEST_F(BoundObject, CollectorFunctionIgnoresForeignValues)
{
    Run("getmetatable(account).__gc(io.stdout)");
    Run("getmetatable(account).__gc({})");
    Run("getmetatable(account).__gc()");
    EXPECT_EQ(Run("io.type(io.stdout)"), "file");
}

} // namespace
