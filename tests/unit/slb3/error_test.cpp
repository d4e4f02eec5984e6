#include "fixture.h"

namespace {
using ErrorInLua = Binder;

TEST_F(ErrorInLua, ExceptionBecomesAnErrorWithItsTextAndPlace)
{
    EXPECT_EQ(Run("account:Throw()"), "error: test:1: vault is shut");
    EXPECT_EQ(Run("account:ThrowText()"), "error: test:1: text thrown");
    EXPECT_EQ(Run("account:ThrowNoMemory()"), "error: test:1: not enough memory");
    EXPECT_EQ(Run("account:ThrowOdd()"), "error: test:1: C++ exception of type i");
}

TEST_F(ErrorInLua, ErrorOfLuaItselfPassesUntouched)
{
    EXPECT_EQ(Run("account:RaiseFromLua()"), "error: test:1: raised by Lua");
}

TEST_F(ErrorInLua, ErrorOfLuaUnwindsTheFramesOnItsWay)
{
    // A Lua that was built as C jumps over them: destructors would not run, and locks and memory would stay taken.
    static int s_alive;
    s_alive = 0;
    struct Counted
    {
        Counted() { ++s_alive; }
        ~Counted() { --s_alive; }
    };
    lua_register(L, "deep", [](lua_State* state) -> int {
        const Counted here;
        const auto inner = [state] {
            const Counted there;
            return luaL_error(state, "raised with %d alive", s_alive);
        };
        return inner();
    });
    EXPECT_EQ(Run("deep()"), "error: test:1: raised with 2 alive");
    EXPECT_EQ(s_alive, 0);
}

TEST_F(ErrorInLua, LongExceptionTextIsCut)
{
    struct Long : std::exception
    {
        std::string text = std::string(5000, 'x');
        const char* what() const noexcept override { return text.c_str(); }
    };
    char text[SLB3::internal::exceptionTextBytes];
    try {
        throw Long();
    } catch (...) {
        EXPECT_TRUE(SLB3::internal::DescribeException(text));
    }
    EXPECT_EQ(std::string(text), std::string(SLB3::internal::exceptionTextBytes - 1, 'x'));
}

TEST_F(ErrorInLua, StackIsBalancedAfterErrors)
{
    const int top = lua_gettop(L);
    for (int i = 0; i < 1000; ++i) {
        Run("account:Throw()");
        Run("account.Balance('x')");
    }
    EXPECT_EQ(lua_gettop(L), top);
}

} // namespace
