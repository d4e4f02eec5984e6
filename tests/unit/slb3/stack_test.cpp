#include "fixture.h"

namespace {
using StackValue = Binder;

TEST_F(StackValue, ValuesTravelBothWays)
{
    EXPECT_EQ(Run("account:Flip(true)"), "false");
    EXPECT_EQ(Run("account:Half(3)"), "1.5");
    EXPECT_EQ(Run("account:Small(-128)"), "-128");
    EXPECT_EQ(Run("account:Greet('Ann')"), "Dear Ann");
    EXPECT_EQ(Run("account:Greet('Ann', 'Dr')"), "Dr Ann");
    EXPECT_EQ(Run("account:Greet('Ann', nil)"), "Dear Ann");
    EXPECT_EQ(Run("table.concat(account:Names(), ',')"), "a,b");
    EXPECT_EQ(Run("account:Maybe(false)"), "false");
    EXPECT_EQ(Run("account:Maybe()"), "nil");
    EXPECT_EQ(Run("account:Label('')"), "nil");
}

TEST_F(StackValue, StringsMayHoldZeroBytes)
{
    EXPECT_EQ(Run("#account:Greet('a\\0b')"), "8");
}

TEST_F(StackValue, ZeroByteIsRefusedWhereTextWouldBeCut)
{
    EXPECT_EQ(Run("account:Label('a\\0b')"),
              "error: test:1: bad argument #1 to 'Bank.Account:Label' (string expected, got string with a zero byte)");
}

TEST_F(StackValue, NumberIsTakenForTextButTextNotForNumber)
{
    EXPECT_EQ(Run("account:Greet(12)"), "Dear 12");
    EXPECT_EQ(Run("account:Deposit('12')"),
              "error: test:1: bad argument #1 to 'Bank.Account:Deposit' (integer expected, got string)");
}

TEST_F(StackValue, IntegersHaveNoFractionAndFit)
{
    EXPECT_EQ(Run("account:Small(1.5)"),
              "error: test:1: bad argument #1 to 'Bank.Account:Small' (integer expected, got number with a fraction)");
    for (const char* tooLarge : {"128", "-129", "1e300", "0/0", "1/0", "-1/0"})
        EXPECT_NE(Run(std::string("account:Small(") + tooLarge + ")").find("error: test:1: bad argument #1"),
                  std::string::npos)
            << tooLarge;
    EXPECT_EQ(Run("account:Deposit(2^63)"),
              "error: test:1: bad argument #1 to 'Bank.Account:Deposit' (integer expected, got number out of range)");
    EXPECT_EQ(Run("select('#', account:Deposit(-2^63))"), "0");
}

} // namespace
