// Who may scrape and how: the web configuration file in the format
// Prometheus exporters share (YAML):
//
//   tls_server_config:
//     cert_file: server.crt      # PEM certificate (chain)
//     key_file: server.key       # PEM private key
//     min_version: TLS12         # TLS10, TLS11, TLS12 (the default) or TLS13
//     max_version: TLS13
//     cipher_suites: [TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256, ...]
//     prefer_server_cipher_suites: true
//   http_server_config:
//     headers: {Strict-Transport-Security: max-age=31536000}
//   basic_auth_users:
//     alice: $2y$10$...          # bcrypt hash of alice's password
//
// Relative file names are taken from the configuration file's folder (so a
// configuration handed over as a systemd credential finds the key beside
// it, in $CREDENTIALS_DIRECTORY). Passwords are checked with the system's
// crypt library (bcrypt, "$2a$", "$2b$" or "$2y$"); a password is never kept
// or logged. Every error names the file, the line and the problem.
#ifndef MIRVAK_EXPORTER_WEB_CONFIG_H
#define MIRVAK_EXPORTER_WEB_CONFIG_H

#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace mv::exporter {

struct WebConfigError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct WebConfig {
    std::string path;                          // the file it came from
    std::string cert_file, key_file;           // both set: serve TLS
    int cert_line = 0, key_line = 0;           // where they were named
    std::string cert_pem, key_pem;             // their contents, once read (read_web_config)
    std::string min_version = "TLS12", max_version;  // TLS10 ... TLS13; max empty: the newest
    std::vector<std::string> cipher_suites;    // empty: the TLS library's choice
    bool prefer_server_cipher_suites = false;
    std::vector<std::pair<std::string, std::string>> headers;  // http_server_config.headers
    std::map<std::string, std::string> users;  // user -> bcrypt hash; empty: no authentication
    bool tls() const { return !cert_file.empty(); }
};

// Reads and checks the file: unparsable YAML, unknown keys, a certificate
// without a key (or the other way round), an unknown TLS version, cipher
// suite or answer header, a hash that is not bcrypt are errors.
WebConfig load_web_config(const std::string& path);

// load_web_config, and reads the certificate and key too: a file that
// cannot be read, or a key that is not the certificate's, is an error.
WebConfig read_web_config(const std::string& path);

// Reads the certificate and key of a loaded configuration (when not read
// yet) and checks that they belong together.
void read_tls_files(WebConfig& config);

// The GnuTLS priority string for the configuration's versions and suites.
std::string tls_priorities(const WebConfig& config);

// Checks a user's password against the configuration. Passwords that
// passed once are remembered by a digest, so that a scraper that comes
// every few seconds does not pay for bcrypt every time. A user who is not
// configured is checked against a hash of the same cost as the users', so
// the answer takes as long as for one who is.
class PasswordCheck {
public:
    explicit PasswordCheck(std::map<std::string, std::string> users);
    bool required() const { return !users_.empty(); }
    bool check(const std::string& user, const std::string& password);

private:
    std::map<std::string, std::string> users_;
    std::string nobody_;  // bcrypt hash of a random password, at the users' highest cost
    std::mutex mutex_;
    std::set<std::string> passed_;  // digests of user, hash and password that verified
};

// "Basic dXNlcjpwYXNz" -> {"user", "pass"}; false when the header is not
// basic authentication.
bool parse_basic_auth(const char* header, std::string& user, std::string& password);

}  // namespace mv::exporter

#endif
