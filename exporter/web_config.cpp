#include "web_config.h"

#include <crypt.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <yaml-cpp/yaml.h>

namespace mv::exporter {

namespace {

namespace fs = std::filesystem;

bool is_bcrypt(const std::string& hash) {
    return hash.size() == 60 &&
           (hash.rfind("$2a$", 0) == 0 || hash.rfind("$2b$", 0) == 0 || hash.rfind("$2y$", 0) == 0);
}

std::string resolve(const fs::path& folder, const std::string& name) {
    if (name.empty()) return name;
    const fs::path p(name);
    return p.is_absolute() ? name : (folder / p).string();
}

// crypt_r's answer for the password under the hash's salt and cost.
bool bcrypt_matches(const std::string& password, const std::string& hash) {
    auto data = std::make_unique<crypt_data>();
    std::memset(data.get(), 0, sizeof(crypt_data));
    const char* out = crypt_r(password.c_str(), hash.c_str(), data.get());
    if (out == nullptr || out[0] == '*') return false;
    return std::strlen(out) == hash.size() && CRYPTO_memcmp(out, hash.data(), hash.size()) == 0;
}

std::string digest(const std::string& user, const std::string& hash, const std::string& password) {
    const std::string text = user + '\0' + hash + '\0' + password;
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    EVP_Digest(text.data(), text.size(), md, &n, EVP_sha256(), nullptr);
    return std::string(reinterpret_cast<char*>(md), n);
}

}  // namespace

WebConfig load_web_config(const std::string& path) {
    YAML::Node root;
    try {
        root = YAML::LoadFile(path);
    } catch (const YAML::Exception& e) {
        throw WebConfigError(path + ": " + e.what());
    }
    WebConfig c;
    if (root.IsNull()) return c;
    if (!root.IsMap()) throw WebConfigError(path + ": not a mapping of settings");
    const fs::path folder = fs::path(path).parent_path();
    try {
        for (const auto& entry : root) {
            const std::string key = entry.first.as<std::string>();
            const YAML::Node& value = entry.second;
            if (key == "tls_server_config") {
                if (value.IsNull()) continue;
                if (!value.IsMap()) throw WebConfigError(path + ": tls_server_config is not a mapping");
                for (const auto& t : value) {
                    const std::string k = t.first.as<std::string>();
                    if (k == "cert_file") {
                        c.cert_file = resolve(folder, t.second.as<std::string>());
                    } else if (k == "key_file") {
                        c.key_file = resolve(folder, t.second.as<std::string>());
                    } else {
                        throw WebConfigError(path + ": tls_server_config." + k + " is not supported");
                    }
                }
                if (c.cert_file.empty() != c.key_file.empty())
                    throw WebConfigError(path + ": tls_server_config needs both cert_file and key_file");
            } else if (key == "basic_auth_users") {
                if (value.IsNull()) continue;
                if (!value.IsMap()) throw WebConfigError(path + ": basic_auth_users is not a mapping");
                for (const auto& u : value) {
                    const std::string user = u.first.as<std::string>();
                    const std::string hash = u.second.as<std::string>();
                    if (user.empty() || user.find(':') != std::string::npos)
                        throw WebConfigError(path + ": basic_auth_users: a user name is empty or has a colon");
                    if (!is_bcrypt(hash))
                        throw WebConfigError(path + ": basic_auth_users." + user + " is not a bcrypt hash");
                    c.users[user] = hash;
                }
            } else if (key == "http_server_config") {
                // Nothing to set here: the server speaks HTTP/1.1 only.
            } else {
                throw WebConfigError(path + ": " + key + " is not supported");
            }
        }
    } catch (const YAML::Exception& e) {
        throw WebConfigError(path + ": " + e.what());
    }
    return c;
}

bool PasswordCheck::check(const std::string& user, const std::string& password) {
    const auto it = users_.find(user);
    // An unknown user costs as much as a wrong password.
    static const std::string kNobody = "$2b$10$mSJmBjjpz6s6uj9WP.Gi2OsrvlJxUw65watpJLWl/GERnCNx/OBZa";
    const std::string& hash = it != users_.end() ? it->second : kNobody;
    const std::string key = digest(user, hash, password);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (it != users_.end() && passed_.count(key) != 0) return true;
    }
    const bool ok = bcrypt_matches(password, hash) && it != users_.end();
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
    std::vector<unsigned char> out(b64.size() / 4 * 3 + 1);
    const int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(b64.data()),
                                  static_cast<int>(b64.size()));
    if (n < 0) return false;
    std::size_t len = static_cast<std::size_t>(n);
    // The block decoder counts the padding as zero bytes.
    if (b64[b64.size() - 1] == '=') --len;
    if (b64[b64.size() - 2] == '=') --len;
    const std::string pair(reinterpret_cast<char*>(out.data()), len);
    const std::size_t colon = pair.find(':');
    if (colon == std::string::npos) return false;
    user = pair.substr(0, colon);
    password = pair.substr(colon + 1);
    return true;
}

}  // namespace mv::exporter
