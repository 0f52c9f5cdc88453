/* Debian's civetweb loads OpenSSL at run time by the names "libssl.so" and
 * "libcrypto.so" (the development links) and asks it for
 * SSL_get_peer_certificate, which OpenSSL 3 no longer exports (it became
 * SSL_get1_peer_certificate); without it every TLS connection crashes the
 * server. This object carries the SONAME "libssl.so" and depends on the
 * real libssl.so.3: the exporter loads it at start, so civetweb's dlopen
 * finds it already loaded, and dlsym finds every other function in the real
 * library behind it. */
#include <openssl/ssl.h>

#undef SSL_get_peer_certificate
X509* SSL_get_peer_certificate(const SSL* s);
X509* SSL_get_peer_certificate(const SSL* s) { return SSL_get1_peer_certificate(s); }
