// Start and end of OpenSSL. Written against the interface of 1.0, which asks for every step; later versions do most of
// them by themselves and keep the calls as macros or functions without effect. Main thread at start; the thread that
// ends the process at the end.

#define OPENSSL_SUPPRESS_DEPRECATED 1

#include "vex/apps/vex/vex_p.h"

#include <openssl/conf.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/opensslv.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
#include <openssl/provider.h>
#endif

#include <cstdlib>
#include <optional>
#include <string>

namespace {
// A variable of the environment is away for the scope's life. Programs that are started later find it again.
class HiddenVariable
{
public:
    explicit HiddenVariable(const char* name) : m_name(name)
    {
        if (const char* const value = std::getenv(name))
            m_value = value;
        ::unsetenv(name);
    }
    ~HiddenVariable()
    {
        if (m_value)
            ::setenv(m_name, m_value->c_str(), 1);
    }
    HiddenVariable(const HiddenVariable&) = delete;
    HiddenVariable& operator=(const HiddenVariable&) = delete;

private:
    const char* const m_name;
    std::optional<std::string> m_value;
};

} // namespace

void StartOpenSsl()
{
    // No code by environment. From 1.1 on the start reads a configuration, which may load libraries; it reads it once,
    // and without these variables that is the system's own file. Providers may also be loaded at any time later.
    const HiddenVariable hidden[] = {HiddenVariable("OPENSSL_CONF"), HiddenVariable("OPENSSL_CONF_INCLUDE"),
                                     HiddenVariable("OPENSSL_ENGINES"), HiddenVariable("OPENSSL_MODULES")};
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
    OSSL_PROVIDER_set_default_search_path(nullptr, OPENSSL_info(OPENSSL_INFO_MODULES_DIR));
#endif
    OPENSSL_add_all_algorithms_noconf();
    SSL_library_init();
    SSL_load_error_strings();
}

int SeedRandom(int (*gather)(), int (*status)())
{
    constexpr int maxAttempts = 100;
    int attempts = 0;
    do {
        gather();
        ++attempts;
    } while (status() != 1 && attempts < maxAttempts);
    return attempts;
}

void SeedOpenSslRandom()
{
    SeedRandom(RAND_poll, RAND_status);
}

void StopOpenSsl()
{
    ERR_remove_state(0);
    CONF_modules_unload(1);
    ERR_free_strings();
    EVP_cleanup();
#if OPENSSL_VERSION_NUMBER < 0x10100000L
    // From 1.1 on the library frees these itself at exit, and a second time is an invalid free.
    sk_pop_free(reinterpret_cast<_STACK*>(SSL_COMP_get_compression_methods()), CRYPTO_free);
#endif
    CRYPTO_cleanup_all_ex_data();
}
