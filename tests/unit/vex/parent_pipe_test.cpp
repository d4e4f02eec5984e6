// How a working child learns of its supervisor's end on systems that do not tell it. Nothing in that is the system's
// own, so it is tested on each.

#include <cerrno>

#include <pthread.h>
#include <unistd.h>

namespace {
int g_createError = 0;
int g_noPipe = 0; // why there is no pipe
} // namespace
static int CreateThread(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument)
{
    return g_createError != 0 ? g_createError : ::pthread_create(thread, attributes, body, argument);
}
// A limit of the process would do, but the undefined-behaviour sanitizer makes pipes as well.
static int CreatePipe(int* ends)
{
    if (g_noPipe == 0)
        return ::pipe(ends);
    errno = g_noPipe;
    return -1;
}

// NOLINTBEGIN(readability-identifier-naming): the names are those of what is replaced
#define VexOs VexOsWithoutParentDeath // beside what this system has
#define pthread_create CreateThread
#define pipe CreatePipe
// NOLINTEND(readability-identifier-naming)
#include "vex/apps/vex/os/parent_death_solaris.cpp"
#undef pipe
#undef pthread_create
#undef VexOs

#include "support/child.h"
#include "support/log_catcher.h"

#include <csignal>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include <sys/wait.h>

using namespace VexOsWithoutParentDeath;
using ::Test::InChild;
using ::Test::Pipe;

namespace {
bool SaysThatItCannotWatch(const ::Test::LogCatcher& log, const std::string& why)
{
    return log.Count(wxLOG_Error, "Unable to watch the supervisor: if it is killed, this process runs on (error " + why)
           == 1;
}

} // namespace

TEST(ParentPipe, EndOfTheSupervisorIsASigtermForItsChild)
{
    Pipe told;
    Pipe follows;
    const pid_t supervisor = ::fork();
    if (supervisor == 0) {
        PrepareToBeFollowed();
        PrepareToBeFollowed(); // for another child: it is the same pipe
        const pid_t self = ::getpid();
        if (::fork() != 0) {
            told.CloseEnd(1);
            ::_exit(follows.Read() == 'f' ? 0 : 1);
        }
        sigset_t term;
        sigemptyset(&term);
        sigaddset(&term, SIGTERM);
        ::pthread_sigmask(SIG_BLOCK, &term, nullptr);
        char answer = FollowParent(self) ? 'n' : 'g';
        follows.Write('f');
        const timespec limit = {10, 0};
        if (answer == 'n' && ::sigtimedwait(&term, nullptr, &limit) == SIGTERM)
            answer = 'y';
        told.Write(answer);
        ::_exit(0);
    }
    told.CloseEnd(1);
    EXPECT_EQ(told.Read(), 'y');
    ::waitpid(supervisor, nullptr, 0);
}

TEST(ParentPipe, ThreadThatCannotBeStartedIsSaid)
{
    EXPECT_EQ(InChild([] {
                  const ::Test::LogCatcher log;
                  PrepareToBeFollowed();
                  g_createError = EAGAIN;
                  if (!FollowParent(::getppid()))
                      return 1;
                  return SaysThatItCannotWatch(log, "11: ") ? 0 : 2;
              }),
              0);
}

TEST(ParentPipe, PipeThatCannotBeMadeIsSaid)
{
    EXPECT_EQ(InChild([] {
                  const ::Test::LogCatcher log;
                  g_noPipe = EMFILE;
                  PrepareToBeFollowed();
                  if (!FollowParent(::getppid()))
                      return 1;
                  return SaysThatItCannotWatch(log, "24: ") ? 0 : 2;
              }),
              0);
}
