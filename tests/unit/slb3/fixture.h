#pragma once
// A state for binder tests, a class to bind, and an allocator that can be told to fail.

#include "slb3/slb3.h"

#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

/// Fails the n-th allocation or growth from now on and every later one (Lua collects and tries again after a first
/// failure); a negative n never.
struct FailingAllocator
{
    long untilFailure = -1;
    long blocks = 0;

    static void* Allocate(void* self, void* block, std::size_t oldSize, std::size_t newSize)
    {
        auto& allocator = *static_cast<FailingAllocator*>(self);
        if (newSize == 0) {
            allocator.blocks -= block != nullptr;
            std::free(block);
            return nullptr;
        }
        const bool grows = !block || newSize > oldSize;
        if (grows && allocator.untilFailure == 0)
            return nullptr;
        if (grows && allocator.untilFailure > 0)
            --allocator.untilFailure;
        void* grown = std::realloc(block, newSize);
        allocator.blocks += !block && grown;
        return grown;
    }
};

/// The class that the tests bind.
struct Account
{
    explicit Account(int* destroyedCounter = nullptr) : destroyed(destroyedCounter) {}
    ~Account()
    {
        if (destroyed)
            ++*destroyed;
    }
    Account(const Account&) = delete;
    Account& operator=(const Account&) = delete;

    void Deposit(std::int64_t amount) { balance += amount; }
    std::int64_t Balance() const { return balance; }
    std::string Greet(const std::string& name, std::optional<std::string> title)
    {
        return title.value_or("Dear") + " " + name;
    }
    bool Flip(bool value) { return !value; }
    double Half(double value) const { return value / 2; }
    std::int8_t Small(std::int8_t value) { return value; }
    const char* Label(const char* text) { return *text ? text : nullptr; }
    std::vector<std::string> Names() const { return {"a", "b"}; }
    std::optional<bool> Maybe(std::optional<bool> value) { return value; }
    void Throw() { throw std::runtime_error("vault is shut"); }
    void ThrowOdd() { throw 42; }
    void ThrowText() { throw "text thrown"; }
    void ThrowNoMemory() { throw std::bad_alloc(); }

    std::int64_t balance = 0;
    int* destroyed;
};

inline std::string TwiceBalance(Account& self, std::optional<std::int64_t> more)
{
    return std::to_string(2 * self.balance + more.value_or(0));
}

inline int RaiseFromLua(Account&, lua_State* L)
{
    return luaL_error(L, "raised by Lua");
}

struct Other
{};

namespace SLB3 {
template <>
struct Wrapper<Account>
{
    static constexpr const char* name = "Bank.Account";
    static void Register(internal::Class<Account>& definition)
    {
        definition.Method<&Account::Deposit>("Deposit")
            .Method<&Account::Balance>("Balance")
            .Method<&Account::Greet>("Greet")
            .Method<&Account::Flip>("Flip")
            .Method<&Account::Half>("Half")
            .Method<&Account::Small>("Small")
            .Method<&Account::Label>("Label")
            .Method<&Account::Names>("Names")
            .Method<&Account::Maybe>("Maybe")
            .Method<&Account::Throw>("Throw")
            .Method<&Account::ThrowOdd>("ThrowOdd")
            .Method<&Account::ThrowText>("ThrowText")
            .Method<&Account::ThrowNoMemory>("ThrowNoMemory")
            .Method<&TwiceBalance>("TwiceBalance")
            .Method<&RaiseFromLua>("RaiseFromLua");
    }
};
template <>
struct Wrapper<Other>
{
    static constexpr const char* name = "Bank.Other";
    static void Register(internal::Class<Other>&) {}
};
} // namespace SLB3

class Binder : public ::testing::Test
{
protected:
    Binder() : L(luaL_newstate())
    {
        luaL_openlibs(L);
        SLB3::PushReference(L, &m_account);
        lua_setglobal(L, "account");
    }
    ~Binder() override
    {
        if (L)
            lua_close(L);
    }

    /// The result of an expression as text, or "error: " and the message.
    std::string Run(const std::string& expression)
    {
        const std::string code = "return tostring(" + expression + ")";
        std::string result;
        if (luaL_loadbuffer(L, code.data(), code.size(), "=test") || lua_pcall(L, 0, 1, 0))
            result = "error: ";
        result += lua_tostring(L, -1);
        lua_pop(L, 1);
        return result;
    }

    Account m_account;
    lua_State* L;
};
