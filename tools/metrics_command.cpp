#include "metrics_command.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "codes.h"
#include "metrics.h"

namespace mv::tool {

namespace {

[[noreturn]] void fail(const std::string& what, int err) {
    throw RequestFailed(FCOE_ERR_FAILED, what + ": " + std::strerror(err));
}

}  // namespace

void replace_file(const std::string& file, const std::string& text) {
    namespace fs = std::filesystem;
    const fs::path target(file);
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::string temp = (folder / ("." + target.filename().string() + ".XXXXXX")).string();
    const int fd = mkstemp(temp.data());
    if (fd < 0) fail("cannot create a temporary file beside " + file, errno);
    const char* p = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int err = n < 0 ? errno : EIO;
            close(fd);
            unlink(temp.c_str());
            fail("cannot write " + temp, err);
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    // Readable like any exposition file (mkstemp makes it private); on the
    // disk before it takes the name.
    if (fchmod(fd, 0644) != 0 || fsync(fd) != 0) {
        const int err = errno;
        close(fd);
        unlink(temp.c_str());
        fail("cannot write " + temp, err);
    }
    if (close(fd) != 0) {
        const int err = errno;
        unlink(temp.c_str());
        fail("cannot write " + temp, err);
    }
    if (rename(temp.c_str(), file.c_str()) != 0) {
        const int err = errno;
        unlink(temp.c_str());
        fail("cannot replace " + file, err);
    }
}

void metrics_command(Session& s, bool luns, const std::string& file, std::FILE* out) {
    mv::exporter::CollectOptions options;
    options.luns = luns;
    mv::exporter::Reading r = mv::exporter::collect_system(s.facade(), options);
    mv::exporter::add_own_series(r.families, r, r.results);
    const std::string text = mv::exporter::exposition(r.families);
    if (file.empty()) {
        std::fwrite(text.data(), 1, text.size(), out);
        return;
    }
    replace_file(file, text);
}

}  // namespace mv::tool
