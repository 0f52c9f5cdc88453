#include "tools/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace mv::tool {

namespace {

namespace fs = std::filesystem;

ReplaceFailed failure(ReplaceFailed::Step step, const std::string& what, const std::string& path, int err) {
    return ReplaceFailed(step, path, err, what + " " + path + ": " + std::strerror(err));
}

// How writing the new file went: on failure the step, its wording and
// errno.
struct Written {
    ReplaceFailed::Step step = ReplaceFailed::Write;
    std::string what;
    int err = 0;
};

// The bytes into the open new file, its mode and owner set, synced and
// closed.
Written fill(int fd, const std::string& bytes, bool existed, const struct stat& old) {
    Written o;
    std::size_t done = 0;
    while (o.err == 0 && done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) o.err = errno, o.what = "cannot write";
        else done += static_cast<std::size_t>(n);
    }
    const mode_t mode = existed ? (old.st_mode & 07777) : 0644;
    if (o.err == 0 && fchmod(fd, mode) != 0) o.err = errno, o.what = "cannot set the mode of";
    struct stat mine {};
    if (o.err == 0 && existed && fstat(fd, &mine) == 0 && (mine.st_uid != old.st_uid || mine.st_gid != old.st_gid) &&
        fchown(fd, old.st_uid, old.st_gid) != 0)
        o.err = errno, o.what = "cannot give the old owner to", o.step = ReplaceFailed::Owner;
    if (o.err == 0 && fsync(fd) != 0) o.err = errno, o.what = "cannot write";
    if (close(fd) != 0 && o.err == 0) o.err = errno, o.what = "cannot write";
    return o;
}

}  // namespace

void replace_file(const std::string& file, const std::string& bytes) {
    std::error_code ec;
    fs::path target = file;
    if (fs::is_symlink(target, ec)) {
        target = fs::canonical(target, ec);
        if (ec)
            throw ReplaceFailed(ReplaceFailed::Look, file, ec.value(),
                                "cannot follow the link " + file + ": " + ec.message());
    }
    struct stat old {};
    const bool existed = stat(target.c_str(), &old) == 0;
    const int stat_err = errno;
    if (!existed && stat_err != ENOENT) throw failure(ReplaceFailed::Look, "cannot look at", target.string(), stat_err);

    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::string temp = (folder / ("." + target.filename().string() + ".XXXXXX")).string();
    const int fd = mkstemp(temp.data());
    const int create_err = errno;
    if (fd < 0) throw failure(ReplaceFailed::Create, "cannot create a new file in", folder.string(), create_err);

    Written o = fill(fd, bytes, existed, old);
    if (o.err == 0 && rename(temp.c_str(), target.c_str()) != 0)
        o.err = errno, o.what = "cannot replace " + target.string() + " by", o.step = ReplaceFailed::Rename;
    if (o.err != 0) {
        unlink(temp.c_str());
        throw failure(o.step, o.what, temp, o.err);
    }
    // The rename itself reaches the disk with the folder.
    const int dir = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
}

}  // namespace mv::tool
