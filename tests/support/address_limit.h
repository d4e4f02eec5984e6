#pragma once
// Memory that cannot be had: what a process may map is limited to little more than it has.

#include <fstream>

#include <gtest/gtest.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <sys/resource.h>
#include <unistd.h>

namespace Test {

/// Leaves the process room for so many bytes more, for the scope's life.
class AddressLimit
{
public:
    explicit AddressLimit(std::size_t roomBytes)
    {
#ifdef __GLIBC__
        // What tests before this one have given back: it would be found without more addresses.
        ::malloc_trim(0);
#endif
        std::ifstream statm("/proc/self/statm");
        rlim_t pages = 0;
        statm >> pages;
        EXPECT_EQ(getrlimit(RLIMIT_AS, &m_before), 0);
        rlimit tight = m_before;
        tight.rlim_cur = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + roomBytes;
        EXPECT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    }
    ~AddressLimit()
    {
        EXPECT_EQ(setrlimit(RLIMIT_AS, &m_before), 0);
    }
    AddressLimit(const AddressLimit&) = delete;
    AddressLimit& operator=(const AddressLimit&) = delete;

private:
    rlimit m_before = {};
};

} // namespace Test
