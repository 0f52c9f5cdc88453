// Who may scrape: the web configuration file in the format Prometheus
// exporters share (YAML):
//
//   tls_server_config:
//     cert_file: server.crt      # PEM certificate (chain)
//     key_file: server.key       # PEM private key
//   basic_auth_users:
//     alice: $2y$10$...          # bcrypt hash of alice's password
//
// Relative file names are taken from the configuration file's folder.
// Passwords are checked with the system's crypt library (bcrypt, "$2a$",
// "$2b$" or "$2y$"); a password is never kept or logged.
#ifndef MIRVAK_EXPORTER_WEB_CONFIG_H
#define MIRVAK_EXPORTER_WEB_CONFIG_H

#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

namespace mv::exporter {

struct WebConfigError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct WebConfig {
    std::string cert_file, key_file;           // both set: serve TLS
    std::map<std::string, std::string> users;  // user -> bcrypt hash; empty: no authentication
    bool tls() const { return !cert_file.empty(); }
};

// Reads and checks the file: unknown keys, a certificate without a key (or
// the other way round), a hash that is not bcrypt are errors.
WebConfig load_web_config(const std::string& path);

// Checks a user's password against the configuration. Passwords that
// passed once are remembered by a digest, so that a scraper that comes
// every few seconds does not pay for bcrypt every time.
class PasswordCheck {
public:
    explicit PasswordCheck(std::map<std::string, std::string> users) : users_(std::move(users)) {}
    bool required() const { return !users_.empty(); }
    bool check(const std::string& user, const std::string& password);

private:
    std::map<std::string, std::string> users_;
    std::mutex mutex_;
    std::set<std::string> passed_;  // digests of user, hash and password that verified
};

// "Basic dXNlcjpwYXNz" -> {"user", "pass"}; false when the header is not
// basic authentication.
bool parse_basic_auth(const char* header, std::string& user, std::string& password);

}  // namespace mv::exporter

#endif
