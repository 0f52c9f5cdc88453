#include "temp_dir.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace sim {

TempDir::TempDir(const std::string& prefix) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/" + prefix + ".XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("cannot create a temporary folder " + pattern + ": " +
                                 std::strerror(errno));
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
    if (ec) std::fprintf(stderr, "cannot remove %s: %s\n", path_.c_str(), ec.message().c_str());
}

}  // namespace sim
