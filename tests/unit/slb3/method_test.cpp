#include "fixture.h"

namespace {
using BoundMethod = Binder;

TEST_F(BoundMethod, MethodReachesItsObject)
{
    EXPECT_EQ(Run("select('#', account:Deposit(5))"), "0");
    EXPECT_EQ(m_account.balance, 5);
    EXPECT_EQ(Run("account:Balance()"), "5");
}

TEST_F(BoundMethod, FunctionWithTheObjectInFrontIsAMethodToo)
{
    m_account.balance = 4;
    EXPECT_EQ(Run("account:TwiceBalance()"), "8");
    EXPECT_EQ(Run("account:TwiceBalance(1)"), "9");
}

TEST_F(BoundMethod, MissingArgumentNamesMethodPositionAndTypes)
{
    EXPECT_EQ(Run("account:Deposit()"),
              "error: test:1: bad argument #1 to 'Bank.Account:Deposit' (integer expected, got no value)");
    EXPECT_EQ(Run("account:Greet('a', {})"),
              "error: test:1: bad argument #2 to 'Bank.Account:Greet' (string expected, got table)");
    EXPECT_EQ(Run("account:Flip(nil)"),
              "error: test:1: bad argument #1 to 'Bank.Account:Flip' (boolean expected, got nil)");
    EXPECT_EQ(Run("account:Flip(account)"),
              "error: test:1: bad argument #1 to 'Bank.Account:Flip' (boolean expected, got Bank.Account)");
}

TEST_F(BoundMethod, FirstWrongArgumentIsReported)
{
    EXPECT_NE(Run("account:Greet({}, {})").find("#1"), std::string::npos);
}

TEST_F(BoundMethod, ReceiverOfAnotherKindIsRefused)
{
    const std::string front =
        "error: test:1: bad argument #0 (self) to 'Bank.Account:Balance' (Bank.Account expected, got ";
    const std::string end = "; methods are called with ':')";
    EXPECT_EQ(Run("account.Balance()"), front + "no value" + end);
    EXPECT_EQ(Run("account.Balance('x')"), front + "string" + end);
    EXPECT_EQ(Run("account.Balance({})"), front + "table" + end);
    EXPECT_EQ(Run("account.Balance(io.stdout)"), front + "userdata" + end);
    EXPECT_EQ(Run("account.Balance(setmetatable({}, getmetatable(account)))"), front + "table" + end);
}

TEST_F(BoundMethod, ObjectOfAnotherClassIsNamed)
{
    SLB3::PushValue<Other>(L);
    lua_setglobal(L, "other");
    EXPECT_EQ(Run("account.Balance(other)"),
              "error: test:1: bad argument #0 (self) to 'Bank.Account:Balance' (Bank.Account expected, got Bank.Other; "
              "methods are called with ':')");
}

} // namespace
