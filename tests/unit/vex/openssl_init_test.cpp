// Start and end of OpenSSL: which of its calls are made, and where they stand among the core library's. The calls
// below are the launcher's, all that are functions in the version at hand; no test here needs more of the library
// than that they were made.

#include "vex/apps/vex/vex_p.h"

#include "support/launcher_test.h"

#include <openssl/conf.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

#if OPENSSL_VERSION_NUMBER >= 0x10100000L

using testing::ElementsAre;

namespace {
bool g_records = false;

void RecordCall(const std::string& line)
{
    if (g_records)
        FakeCore::Record(line);
}

} // namespace

extern "C" int OPENSSL_init_crypto(std::uint64_t options, const OPENSSL_INIT_SETTINGS*)
{
    constexpr std::uint64_t algorithms = OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS;
    RecordCall(options == algorithms ? "algorithms" : "OPENSSL_init_crypto " + std::to_string(options));
    return 1;
}

extern "C" int OPENSSL_init_ssl(std::uint64_t options, const OPENSSL_INIT_SETTINGS*)
{
    constexpr std::uint64_t strings = OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS;
    RecordCall(options == 0         ? "library"
               : options == strings ? "error strings"
                                    : "OPENSSL_init_ssl " + std::to_string(options));
    return 1;
}

extern "C" int RAND_poll()
{
    RecordCall("RAND_poll");
    return 1;
}

extern "C" int RAND_status()
{
    RecordCall("RAND_status");
    return 1;
}

extern "C" void CONF_modules_unload(int all)
{
    RecordCall("CONF_modules_unload " + std::to_string(all));
}

namespace {
class OpenSslDeathTest : public LauncherTest
{};

TEST_F(OpenSslDeathTest, IsStartedWithoutItsConfigurationThenGetsItsLocksAndThenItsSeed)
{
    EXPECT_IN_FRESH_PROCESS({
        g_records = true;
        CAgentApp::StartupInit();
        EXPECT_THAT(FakeCore::Journal(), ElementsAre("algorithms", "library", "error strings", "OpenSSLThreadSetup()",
                                                     "RAND_poll", "RAND_status"));
    });
}

TEST_F(OpenSslDeathTest, IsCleanedUpBetweenItsLocksAndTheDatabase)
{
    EXPECT_IN_FRESH_PROCESS({
        g_records = true;
        CAgentApp::TerminationCleanup();
        EXPECT_THAT(FakeCore::Journal(),
                    ElementsAre("OpenSSLThreadShutdown()", "CONF_modules_unload 1", "ShutdownSQLite()"));
    });
}

} // namespace

#endif
