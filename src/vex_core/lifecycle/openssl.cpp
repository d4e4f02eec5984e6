// OpenSSL before 1.1 asks its host for locks; later versions have their own, and free themselves at exit.

#include "vex/core/openssl.h"
#include "vex_core/lua/worker_list.h"
#include "vex_core/threads/ending.h"

#include <openssl/crypto.h>
#include <openssl/opensslv.h>

#if OPENSSL_VERSION_NUMBER < 0x10100000L
#include <memory>
#include <mutex>

#include <pthread.h>
#endif

namespace VexCore {
namespace {
#if OPENSSL_VERSION_NUMBER < 0x10100000L

std::unique_ptr<std::mutex[]> locks;

void Lock(int mode, int number, const char*, int)
{
    if ((mode & CRYPTO_LOCK) != 0)
        locks[number].lock();
    else
        locks[number].unlock();
}

void ThreadId(CRYPTO_THREADID* id)
{
    CRYPTO_THREADID_set_numeric(id, static_cast<unsigned long>(pthread_self()));
}

void InstallLocks()
{
    locks.reset(new std::mutex[CRYPTO_num_locks()]);
    CRYPTO_THREADID_set_callback(ThreadId);
    CRYPTO_set_locking_callback(Lock);
}

void RemoveLocks()
{
    CRYPTO_set_locking_callback(nullptr);
    CRYPTO_THREADID_set_callback(nullptr);
    locks.reset();
}

#else

void InstallLocks() {}
void RemoveLocks() {}

#endif

// Behind the end of the threads, which may be inside OpenSSL.
const EndStepOwner releaseLocks(EndStep::ReleaseOpenSslLocks, &RemoveLocks);

} // namespace

void OpenSSLThreadSetup()
{
    InstallLocks();
    ReopenWorkers();
}

void OpenSSLThreadShutdown()
{
    TakeEndSteps(EndStretch::EndOfThreads);
}

} // namespace VexCore
