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

void StartOpenSsl()
{
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
    sk_pop_free((_STACK*)SSL_COMP_get_compression_methods(), CRYPTO_free);
#endif
    CRYPTO_cleanup_all_ex_data();
}
