#include "tools/hba_conf.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace mv::hbaconf {

namespace {

namespace fs = std::filesystem;

bool blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// The blank-separated fields of a line (its line end removed).
std::vector<std::string> fields(const std::string& body) {
    std::vector<std::string> out;
    std::size_t i = 0;
    while (i < body.size()) {
        while (i < body.size() && blank(body[i])) ++i;
        const std::size_t start = i;
        while (i < body.size() && !blank(body[i])) ++i;
        if (i > start) out.push_back(body.substr(start, i - start));
    }
    return out;
}

std::string entry_line(const std::string& path) { return std::string(kPluginName) + "\t" + path; }

std::runtime_error system_error(const std::string& what, const std::string& file, int err) {
    return std::runtime_error(what + " " + file + ": " + std::strerror(err));
}

}  // namespace

std::string Conf::text() const {
    std::string out;
    for (const Line& l : lines) out += l.bytes;
    return out;
}

std::vector<std::string> Conf::registered() const {
    std::vector<std::string> out;
    for (const Line& l : lines)
        if (l.name == kPluginName) out.push_back(l.path);
    return out;
}

Conf parse(const std::string& text) {
    Conf conf;
    std::size_t pos = 0;
    for (std::size_t number = 1; pos < text.size(); ++number) {
        const std::size_t nl = text.find('\n', pos);
        const std::size_t end = nl == std::string::npos ? text.size() : nl + 1;
        Line line;
        line.bytes = text.substr(pos, end - pos);
        pos = end;
        const std::string where = "line " + std::to_string(number) + ": ";
        if (line.bytes.find('\0') != std::string::npos) throw ParseError(where + "holds a NUL byte");
        const std::string body = line.bytes.substr(0, line.bytes.size() - (nl == std::string::npos ? 0 : 1));
        const std::vector<std::string> f = fields(body);
        if (f.empty() || f[0][0] == '#') {
            conf.lines.push_back(std::move(line));
            continue;
        }
        if (f.size() != 2)
            throw ParseError(where + "expected a library name and its path, found " + std::to_string(f.size()) +
                             (f.size() == 1 ? " field" : " fields"));
        line.name = f[0];
        line.path = f[1];
        conf.lines.push_back(std::move(line));
    }
    return conf;
}

bool add(Conf& conf, const std::string& path) {
    bool changed = false;
    bool kept = false;
    for (auto it = conf.lines.begin(); it != conf.lines.end();) {
        if (it->name != kPluginName) {
            ++it;
            continue;
        }
        if (kept) {  // the front library would load the plug-in twice
            it = conf.lines.erase(it);
            changed = true;
            continue;
        }
        kept = true;
        if (it->path != path) {
            const bool ended = !it->bytes.empty() && it->bytes.back() == '\n';
            it->bytes = entry_line(path) + (ended ? "\n" : "");
            it->path = path;
            changed = true;
        }
        ++it;
    }
    if (kept) return changed;
    if (!conf.lines.empty() && conf.lines.back().bytes.back() != '\n') conf.lines.back().bytes += '\n';
    conf.lines.push_back(Line{entry_line(path) + "\n", kPluginName, path});
    return true;
}

bool remove(Conf& conf) {
    const std::size_t before = conf.lines.size();
    conf.lines.erase(std::remove_if(conf.lines.begin(), conf.lines.end(),
                                    [](const Line& l) { return l.name == kPluginName; }),
                     conf.lines.end());
    return conf.lines.size() != before;
}

std::string read_file(const std::string& file, bool* exists) {
    *exists = false;
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return {};
        throw system_error("cannot open", file, errno);
    }
    std::string text;
    char buf[4096];
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            const int err = errno;
            close(fd);
            throw system_error("cannot read", file, err);
        }
        if (n == 0) break;
        text.append(buf, static_cast<std::size_t>(n));
        if (text.size() > kMaxFileBytes) {
            close(fd);
            throw std::runtime_error(file + " is larger than " + std::to_string(kMaxFileBytes) +
                                     " bytes; it is not an hba.conf");
        }
    }
    close(fd);
    *exists = true;
    return text;
}

std::string link_target(const std::string& file) {
    std::error_code ec;
    fs::path target = file;
    if (fs::is_symlink(target, ec)) {
        target = fs::canonical(target, ec);
        if (ec) throw std::runtime_error("cannot follow the link " + file + ": " + ec.message());
    }
    return target.string();
}

FileLock::FileLock(const std::string& file) {
    const fs::path target = link_target(file);
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    path_ = (folder / ("." + target.filename().string() + ".lock")).string();
    for (;;) {
        const int fd = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) throw system_error("cannot create a new file in", folder.string(), errno);
        int locked;
        while ((locked = flock(fd, LOCK_EX)) != 0 && errno == EINTR) {
        }
        if (locked != 0) {
            const int err = errno;
            close(fd);
            throw system_error("cannot lock", path_, err);
        }
        // The holder before us may have removed the file while we waited:
        // the lock is ours only when the name still leads to what we locked.
        struct stat held {}, named {};
        if (fstat(fd, &held) == 0 && stat(path_.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
            held.st_ino == named.st_ino) {
            fd_ = fd;
            return;
        }
        close(fd);
    }
}

FileLock::~FileLock() {
    // Removed while still locked, so that nobody takes a lock on a name that
    // is about to go.
    unlink(path_.c_str());
    close(fd_);
}

}  // namespace mv::hbaconf
