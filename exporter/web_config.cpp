#include "web_config.h"

#include <crypt.h>
#include <strings.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <yaml-cpp/yaml.h>

namespace mv::exporter {

namespace {

namespace fs = std::filesystem;

// Where in the file a problem is: "web.yml:3: ".
std::string at(const std::string& path, const YAML::Node& node) {
    const YAML::Mark m = node.Mark();
    return path + ":" + std::to_string(m.line >= 0 ? m.line + 1 : 1) + ": ";
}

bool is_bcrypt(const std::string& hash) {
    return hash.size() == 60 &&
           (hash.rfind("$2a$", 0) == 0 || hash.rfind("$2b$", 0) == 0 || hash.rfind("$2y$", 0) == 0);
}

std::string resolve(const fs::path& folder, const std::string& name) {
    if (name.empty()) return name;
    const fs::path p(name);
    return p.is_absolute() ? name : (folder / p).string();
}

const char* const kVersions[] = {"TLS10", "TLS11", "TLS12", "TLS13"};
const char* const kGnutlsVersions[] = {"VERS-TLS1.0", "VERS-TLS1.1", "VERS-TLS1.2", "VERS-TLS1.3"};

int version_index(const std::string& v) {
    for (int i = 0; i < 4; ++i)
        if (v == kVersions[i]) return i;
    return -1;
}

// A cipher suite by its usual name, in GnuTLS's terms. GnuTLS chooses key
// exchange, cipher and MAC separately: the suites given allow every
// combination of their parts.
struct Suite {
    const char *name, *kx, *cipher, *mac;
};
const Suite kSuites[] = {
    {"TLS_RSA_WITH_AES_128_CBC_SHA", "RSA", "AES-128-CBC", "SHA1"},
    {"TLS_RSA_WITH_AES_256_CBC_SHA", "RSA", "AES-256-CBC", "SHA1"},
    {"TLS_RSA_WITH_AES_128_GCM_SHA256", "RSA", "AES-128-GCM", "AEAD"},
    {"TLS_RSA_WITH_AES_256_GCM_SHA384", "RSA", "AES-256-GCM", "AEAD"},
    {"TLS_ECDHE_ECDSA_WITH_AES_128_CBC_SHA", "ECDHE-ECDSA", "AES-128-CBC", "SHA1"},
    {"TLS_ECDHE_ECDSA_WITH_AES_256_CBC_SHA", "ECDHE-ECDSA", "AES-256-CBC", "SHA1"},
    {"TLS_ECDHE_RSA_WITH_AES_128_CBC_SHA", "ECDHE-RSA", "AES-128-CBC", "SHA1"},
    {"TLS_ECDHE_RSA_WITH_AES_256_CBC_SHA", "ECDHE-RSA", "AES-256-CBC", "SHA1"},
    {"TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256", "ECDHE-RSA", "AES-128-GCM", "AEAD"},
    {"TLS_ECDHE_ECDSA_WITH_AES_128_GCM_SHA256", "ECDHE-ECDSA", "AES-128-GCM", "AEAD"},
    {"TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384", "ECDHE-RSA", "AES-256-GCM", "AEAD"},
    {"TLS_ECDHE_ECDSA_WITH_AES_256_GCM_SHA384", "ECDHE-ECDSA", "AES-256-GCM", "AEAD"},
    {"TLS_ECDHE_RSA_WITH_CHACHA20_POLY1305_SHA256", "ECDHE-RSA", "CHACHA20-POLY1305", "AEAD"},
    {"TLS_ECDHE_ECDSA_WITH_CHACHA20_POLY1305_SHA256", "ECDHE-ECDSA", "CHACHA20-POLY1305", "AEAD"},
    {"TLS_AES_128_GCM_SHA256", "", "AES-128-GCM", "AEAD"},
    {"TLS_AES_256_GCM_SHA384", "", "AES-256-GCM", "AEAD"},
    {"TLS_CHACHA20_POLY1305_SHA256", "", "CHACHA20-POLY1305", "AEAD"},
};

const Suite* find_suite(const std::string& name) {
    for (const Suite& s : kSuites)
        if (name == s.name) return &s;
    return nullptr;
}

// The answer headers a configuration may add.
const char* const kHeaders[] = {"Strict-Transport-Security", "X-Content-Type-Options", "X-Frame-Options",
                                "X-XSS-Protection", "Content-Security-Policy"};

std::string scalar(const std::string& path, const YAML::Node& node, const std::string& what) {
    if (!node.IsScalar()) throw WebConfigError(at(path, node) + what + " is not a single value");
    return node.as<std::string>();
}

void load_tls(const std::string& path, const YAML::Node& value, WebConfig& c) {
    if (!value.IsMap()) throw WebConfigError(at(path, value) + "tls_server_config is not a mapping");
    const fs::path folder = fs::path(path).parent_path();
    for (const auto& t : value) {
        const std::string k = t.first.as<std::string>();
        const std::string where = at(path, t.first);
        if (k == "cert_file" || k == "key_file") {
            const std::string name = resolve(folder, scalar(path, t.second, "tls_server_config." + k));
            (k == "cert_file" ? c.cert_file : c.key_file) = name;
            (k == "cert_file" ? c.cert_line : c.key_line) = t.first.Mark().line + 1;
        } else if (k == "min_version" || k == "max_version") {
            const std::string v = scalar(path, t.second, "tls_server_config." + k);
            if (version_index(v) < 0)
                throw WebConfigError(where + "tls_server_config." + k + ": " + v +
                                     " is not one of TLS10, TLS11, TLS12, TLS13");
            (k == "min_version" ? c.min_version : c.max_version) = v;
        } else if (k == "cipher_suites") {
            if (!t.second.IsSequence()) throw WebConfigError(where + "tls_server_config.cipher_suites is not a list");
            for (const auto& s : t.second) {
                const std::string name = scalar(path, s, "a cipher suite");
                if (find_suite(name) == nullptr)
                    throw WebConfigError(at(path, s) + "tls_server_config.cipher_suites: " + name +
                                         " is not a cipher suite this exporter offers");
                c.cipher_suites.push_back(name);
            }
        } else if (k == "prefer_server_cipher_suites") {
            c.prefer_server_cipher_suites = t.second.as<bool>();
        } else {
            throw WebConfigError(where + "tls_server_config." + k + " is not supported");
        }
    }
    if (c.cert_file.empty() != c.key_file.empty())
        throw WebConfigError(at(path, value) + "tls_server_config needs both cert_file and key_file");
    if (!c.max_version.empty() && version_index(c.max_version) < version_index(c.min_version))
        throw WebConfigError(at(path, value) + "tls_server_config: max_version is below min_version");
}

void load_http(const std::string& path, const YAML::Node& value, WebConfig& c) {
    if (!value.IsMap()) throw WebConfigError(at(path, value) + "http_server_config is not a mapping");
    for (const auto& h : value) {
        const std::string k = h.first.as<std::string>();
        if (k == "http2") {
            h.second.as<bool>();  // accepted; the exporter speaks HTTP/1.1
        } else if (k == "headers") {
            if (!h.second.IsMap()) throw WebConfigError(at(path, h.second) + "http_server_config.headers is not a mapping");
            for (const auto& e : h.second) {
                const std::string name = e.first.as<std::string>();
                bool known = false;
                for (const char* allowed : kHeaders) known = known || strcasecmp(name.c_str(), allowed) == 0;
                if (!known)
                    throw WebConfigError(at(path, e.first) + "http_server_config.headers: " + name +
                                         " is not a header this exporter may add");
                const std::string v = scalar(path, e.second, "http_server_config.headers." + name);
                if (v.find_first_of("\r\n") != std::string::npos)
                    throw WebConfigError(at(path, e.second) + "http_server_config.headers." + name +
                                         " holds a line break");
                c.headers.emplace_back(name, v);
            }
        } else {
            throw WebConfigError(at(path, h.first) + "http_server_config." + k + " is not supported");
        }
    }
}

void load_users(const std::string& path, const YAML::Node& value, WebConfig& c) {
    if (!value.IsMap()) throw WebConfigError(at(path, value) + "basic_auth_users is not a mapping");
    for (const auto& u : value) {
        const std::string user = u.first.as<std::string>();
        const std::string hash = scalar(path, u.second, "basic_auth_users." + user);
        if (user.empty() || user.find(':') != std::string::npos)
            throw WebConfigError(at(path, u.first) + "basic_auth_users: a user name is empty or has a colon");
        if (!is_bcrypt(hash))
            throw WebConfigError(at(path, u.second) + "basic_auth_users." + user + " is not a bcrypt hash");
        c.users[user] = hash;
    }
}

// A file of the configuration, whole (at most 1 MiB).
std::string read_named(const WebConfig& c, const std::string& file, int line, const char* key) {
    const std::string where = c.path + ":" + std::to_string(line) + ": tls_server_config." + key + " " + file;
    std::ifstream in(file, std::ios::binary);
    if (!in) throw WebConfigError(where + ": cannot be read (" + std::strerror(errno) + ")");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    if (in.bad()) throw WebConfigError(where + ": cannot be read");
    if (text.size() > (1u << 20)) throw WebConfigError(where + ": larger than 1 MiB");
    return text;
}

// crypt_r's answer for the password under the hash's salt and cost.
bool bcrypt_matches(const std::string& password, const std::string& hash) {
    auto data = std::make_unique<crypt_data>();
    std::memset(data.get(), 0, sizeof(crypt_data));
    const char* out = crypt_r(password.c_str(), hash.c_str(), data.get());
    if (out == nullptr || out[0] == '*') return false;
    return std::strlen(out) == hash.size() && gnutls_memcmp(out, hash.data(), hash.size()) == 0;
}

std::string digest(const std::string& user, const std::string& hash, const std::string& password) {
    const std::string text = user + '\0' + hash + '\0' + password;
    unsigned char md[32];
    gnutls_hash_fast(GNUTLS_DIG_SHA256, text.data(), text.size(), md);
    return std::string(reinterpret_cast<char*>(md), sizeof md);
}

}  // namespace

WebConfig load_web_config(const std::string& path) {
    YAML::Node root;
    try {
        root = YAML::LoadFile(path);
    } catch (const YAML::BadFile&) {
        throw WebConfigError(path + ": cannot be read (" + std::strerror(errno) + ")");
    } catch (const YAML::ParserException& e) {
        throw WebConfigError(path + ":" + std::to_string(e.mark.line + 1) + ": not YAML: " + e.msg);
    } catch (const YAML::Exception& e) {
        throw WebConfigError(path + ": " + e.what());
    }
    WebConfig c;
    c.path = path;
    if (root.IsNull()) return c;
    if (!root.IsMap()) throw WebConfigError(at(path, root) + "not a mapping of settings");
    try {
        for (const auto& entry : root) {
            const std::string key = entry.first.as<std::string>();
            const YAML::Node& value = entry.second;
            if (key != "tls_server_config" && key != "basic_auth_users" && key != "http_server_config")
                throw WebConfigError(at(path, entry.first) + key + " is not supported");
            if (value.IsNull()) continue;
            if (key == "tls_server_config") {
                load_tls(path, value, c);
            } else if (key == "basic_auth_users") {
                load_users(path, value, c);
            } else {
                load_http(path, value, c);
            }
        }
    } catch (const YAML::RepresentationException& e) {
        throw WebConfigError(path + ":" + std::to_string(e.mark.line + 1) + ": " + e.msg);
    }
    return c;
}

void read_tls_files(WebConfig& c) {
    if (!c.tls() || !c.cert_pem.empty()) return;
    std::string cert = read_named(c, c.cert_file, c.cert_line, "cert_file");
    std::string key = read_named(c, c.key_file, c.key_line, "key_file");
    gnutls_certificate_credentials_t cred = nullptr;
    if (gnutls_certificate_allocate_credentials(&cred) < 0) throw WebConfigError(c.path + ": out of memory");
    const gnutls_datum_t cd{reinterpret_cast<unsigned char*>(cert.data()), static_cast<unsigned>(cert.size())};
    const gnutls_datum_t kd{reinterpret_cast<unsigned char*>(key.data()), static_cast<unsigned>(key.size())};
    const int rc = gnutls_certificate_set_x509_key_mem2(cred, &cd, &kd, GNUTLS_X509_FMT_PEM, nullptr, 0);
    gnutls_certificate_free_credentials(cred);
    if (rc < 0)
        throw WebConfigError(c.path + ":" + std::to_string(c.key_line) + ": tls_server_config.key_file " + c.key_file +
                             " with cert_file " + c.cert_file + ": " + gnutls_strerror(rc));
    gnutls_priority_t prio = nullptr;
    const std::string p = tls_priorities(c);
    const int prc = gnutls_priority_init2(&prio, p.c_str(), nullptr, 0);
    if (prc < 0)
        throw WebConfigError(c.path + ": tls_server_config: the TLS library refuses these versions and suites (" +
                             std::string(gnutls_strerror(prc)) + ")");
    gnutls_priority_deinit(prio);
    c.cert_pem = std::move(cert);
    c.key_pem = std::move(key);
}

WebConfig read_web_config(const std::string& path) {
    WebConfig c = load_web_config(path);
    read_tls_files(c);
    return c;
}

std::string tls_priorities(const WebConfig& c) {
    std::string p = "NORMAL:-VERS-ALL";
    const int lo = version_index(c.min_version);
    const int hi = c.max_version.empty() ? 3 : version_index(c.max_version);
    for (int i = hi; i >= (lo < 0 ? 2 : lo); --i) p += std::string(":+") + kGnutlsVersions[i];
    if (!c.cipher_suites.empty()) {
        std::set<std::string> kx, cipher, mac;
        for (const std::string& name : c.cipher_suites) {
            const Suite* s = find_suite(name);
            if (s == nullptr) continue;
            if (*s->kx != '\0') kx.insert(s->kx);
            cipher.insert(s->cipher);
            mac.insert(s->mac);
        }
        p += ":-CIPHER-ALL:-MAC-ALL";
        if (!kx.empty()) p += ":-KX-ALL";
        for (const auto* group : {&kx, &cipher, &mac})
            for (const std::string& item : *group) p += ":+" + item;
    }
    if (c.prefer_server_cipher_suites) p += ":%SERVER_PRECEDENCE";
    return p;
}

PasswordCheck::PasswordCheck(std::map<std::string, std::string> users) : users_(std::move(users)) {
    if (users_.empty()) return;
    unsigned long cost = 4;
    for (const auto& [user, hash] : users_) cost = std::max(cost, std::strtoul(hash.c_str() + 4, nullptr, 10));
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    unsigned char secret[18];
    gnutls_rnd(GNUTLS_RND_NONCE, secret, sizeof secret);
    if (crypt_gensalt_rn("$2b$", cost, nullptr, 0, salt, sizeof salt) != nullptr) {
        auto data = std::make_unique<crypt_data>();
        std::memset(data.get(), 0, sizeof(crypt_data));
        std::string password;
        for (const unsigned char b : secret) password += static_cast<char>('a' + b % 26);
        const char* h = crypt_r(password.c_str(), salt, data.get());
        if (h != nullptr && is_bcrypt(h)) nobody_ = h;
    }
    if (nobody_.empty()) nobody_ = users_.begin()->second;  // costs the same; the user check below refuses
}

bool PasswordCheck::check(const std::string& user, const std::string& password) {
    const auto it = users_.find(user);
    const bool known = it != users_.end();
    const std::string& hash = known ? it->second : nobody_;
    const std::string key = digest(user, hash, password);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (known && passed_.count(key) != 0) return true;
    }
    const bool ok = bcrypt_matches(password, hash) && known;
    if (ok) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (passed_.size() > 1024) passed_.clear();
        passed_.insert(key);
    }
    return ok;
}

bool parse_basic_auth(const char* header, std::string& user, std::string& password) {
    if (header == nullptr) return false;
    std::string h(header);
    if (h.size() < 6 || strncasecmp(h.c_str(), "Basic ", 6) != 0) return false;
    std::string b64 = h.substr(6);
    while (!b64.empty() && (b64.back() == ' ' || b64.back() == '\t')) b64.pop_back();
    while (!b64.empty() && b64.front() == ' ') b64.erase(0, 1);
    if (b64.empty() || b64.size() % 4 != 0 || b64.size() > 4096) return false;
    const gnutls_datum_t in{reinterpret_cast<unsigned char*>(b64.data()), static_cast<unsigned>(b64.size())};
    gnutls_datum_t out{nullptr, 0};
    if (gnutls_base64_decode2(&in, &out) < 0) return false;
    const std::string pair(reinterpret_cast<char*>(out.data), out.size);
    gnutls_free(out.data);
    const std::size_t colon = pair.find(':');
    if (colon == std::string::npos) return false;
    user = pair.substr(0, colon);
    password = pair.substr(colon + 1);
    return true;
}

}  // namespace mv::exporter
