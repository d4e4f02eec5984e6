// Start and end of OpenSSL: which of its calls are made, and where they stand among the core library's. The calls
// below are the launcher's, all that are functions in the version at hand; no test here needs more of the library
// than that they were made.

#include "vex/apps/vex/vex_p.h"

#include "support/launcher_test.h"

#include <cstdlib>

#include <openssl/conf.h>
#include <openssl/crypto.h>
#include <openssl/provider.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

#if OPENSSL_VERSION_NUMBER >= 0x30000000L

using testing::ElementsAre;

namespace {
bool g_records = false;

void RecordCall(const std::string& line)
{
    if (!g_records)
        return;
    FakeCore::Record(line);
    for (const char* const name : {"OPENSSL_CONF", "OPENSSL_CONF_INCLUDE", "OPENSSL_ENGINES", "OPENSSL_MODULES"})
        if (std::getenv(name))
            FakeCore::Record(std::string("while there is ") + name);
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

extern "C" int OSSL_PROVIDER_set_default_search_path(OSSL_LIB_CTX* context, const char* path)
{
    RecordCall(std::string("providers of ") + (context ? "one context" : "the process") + " from " + path);
    return 1;
}

namespace {
const std::string providers = std::string("providers of the process from ") + OPENSSL_info(OPENSSL_INFO_MODULES_DIR);

class OpenSslDeathTest : public LauncherTest
{};

TEST_F(OpenSslDeathTest, IsStartedWithoutItsConfigurationThenGetsItsLocksAndThenItsSeed)
{
    EXPECT_IN_FRESH_PROCESS({
        g_records = true;
        CAgentApp::StartupInit();
        EXPECT_THAT(FakeCore::Journal(), ElementsAre(providers, "algorithms", "library", "error strings",
                                                     "OpenSSLThreadSetup()", "RAND_poll", "RAND_status"));
    });
}

TEST_F(OpenSslDeathTest, FindsNothingInTheEnvironmentThatProgramsFindAgain)
{
    EXPECT_IN_FRESH_PROCESS({
        for (const char* const name : {"OPENSSL_CONF", "OPENSSL_ENGINES", "OPENSSL_MODULES"})
            ::setenv(name, "/stray", 1);
        ::setenv("OPENSSL_CONF_INCLUDE", "", 1);
        g_records = true;
        StartOpenSsl();
        EXPECT_THAT(FakeCore::Journal(), ElementsAre(providers, "algorithms", "library", "error strings"));
        for (const char* const name : {"OPENSSL_CONF", "OPENSSL_ENGINES", "OPENSSL_MODULES"})
            EXPECT_STREQ(std::getenv(name), "/stray");
        EXPECT_STREQ(std::getenv("OPENSSL_CONF_INCLUDE"), "");
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
