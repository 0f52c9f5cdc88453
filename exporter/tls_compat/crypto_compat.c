/* The "libcrypto.so" that Debian's civetweb loads at run time: this object
 * carries that SONAME and depends on the real libcrypto.so.3, so that TLS
 * works without the OpenSSL development package (see ssl_compat.c). */
#include <openssl/crypto.h>

const char* mirvak_crypto_compat_version(void);
const char* mirvak_crypto_compat_version(void) { return OpenSSL_version(OPENSSL_VERSION); }
