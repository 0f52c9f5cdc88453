// The per-request view of the host's sysfs tree (see sysfs_view.h).
//
// Memory for the view is never a reason to fail: when an answer cannot be
// kept, the reader is told there is no view and goes to the kernel, as it
// does outside a request.
#include "host/sysfs_view.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <unordered_map>

namespace mv::host {

namespace {

// Answers by path. The keys are views of the paths the nodes own, so a
// look-up with the caller's text allocates nothing.
template <class T>
class PathTable {
public:
    T* find(std::string_view path) {
        const auto it = map_.find(path);
        return it == map_.end() ? nullptr : &it->second->value;
    }
    T& add(std::string_view path, T value) {
        auto node = std::make_unique<Node>(Node{std::string(path), std::move(value)});
        T& kept = node->value;
        const std::string_view key(node->path);
        map_.emplace(key, std::move(node));
        return kept;
    }

private:
    struct Node {
        std::string path;
        T value;
    };
    std::unordered_map<std::string_view, std::unique_ptr<Node>> map_;
};

struct AccessAnswer {
    int result = 0;
    int err = 0;
};

FileBytes read_file(const char* path) {
    FileBytes f;
    const int fd = open(path, O_RDONLY);
    if (fd < 0) {
        f.open_errno = errno;
        return f;
    }
    f.opened = true;
    f.on_descriptor_0 = fd == 0;
    char buf[FileBytes::kMaxBytes];
    std::size_t have = 0;
    while (have < sizeof buf) {
        const ssize_t n = ::read(fd, buf + have, sizeof buf - have);
        if (n < 0) {
            // Only a failure of the first read is what a reader sees; one
            // after some bytes ends the file there.
            if (have == 0) {
                f.read_failed = true;
                f.read_errno = errno;
            }
            break;
        }
        if (n == 0) break;
        have += static_cast<std::size_t>(n);
    }
    f.bytes.assign(buf, have);
    close(fd);
    return f;
}

Listing read_listing(const char* path) {
    Listing l;
    DIR* d = opendir(path);
    if (d == nullptr) {
        l.open_errno = errno;
        return l;
    }
    l.opened = true;
    try {
        while (const dirent* e = readdir(d)) l.names.emplace_back(e->d_name);
    } catch (const std::bad_alloc&) {
        closedir(d);  // the listing is not kept; the reader asks the kernel
        throw;
    }
    if (closedir(d) != 0) {
        l.close_failed = true;
        l.close_errno = errno;
    }
    return l;
}

class View {
public:
    const FileBytes& file(const char* path) {
        if (FileBytes* f = files_.find(path)) return *f;
        return files_.add(path, read_file(path));
    }
    const Listing& listing(const char* path) {
        if (Listing* l = listings_.find(path)) return *l;
        return listings_.add(path, read_listing(path));
    }
    const AccessAnswer& access_answer(const char* path) {
        if (AccessAnswer* a = checks_.find(path)) return *a;
        AccessAnswer a;
        a.result = access(path, F_OK);
        a.err = errno;
        return checks_.add(path, a);
    }
private:
    PathTable<FileBytes> files_;
    PathTable<Listing> listings_;
    PathTable<AccessAnswer> checks_;

public:
    // Last, so that it goes first: it may refer to the answers above.
    std::unique_ptr<ViewMemo> memo;
};

// Each thread's own: a request's view belongs to the thread that runs it,
// and a request opened inside another on the same thread joins it.
thread_local View* g_view = nullptr;
thread_local int g_requests = 0;  // SysfsRequest objects alive on this thread (nested ones included)
std::atomic<bool> g_enabled{true};

}  // namespace

bool FileBytes::gets(char* buf, int size) const {
    if (size <= 0 || read_failed || bytes.empty()) return false;
    std::size_t n = std::min(bytes.size(), static_cast<std::size_t>(size - 1));
    const void* newline = std::memchr(bytes.data(), '\n', n);
    if (newline != nullptr) n = static_cast<std::size_t>(static_cast<const char*>(newline) - bytes.data()) + 1;
    std::memcpy(buf, bytes.data(), n);
    buf[n] = '\0';
    return true;
}

ssize_t FileBytes::read(void* buf, std::size_t n) const {
    if (read_failed) {
        errno = read_errno;
        return -1;
    }
    n = std::min(n, bytes.size());
    std::memcpy(buf, bytes.data(), n);
    return static_cast<ssize_t>(n);
}

SysfsRequest::SysfsRequest() {
    if (g_requests++ == 0 && g_enabled.load(std::memory_order_relaxed)) g_view = new (std::nothrow) View;
}

SysfsRequest::~SysfsRequest() {
    if (--g_requests == 0) {
        delete g_view;
        g_view = nullptr;
    }
}

namespace {

// The open view's answer (View::*ask)(path), or null when no view is open or
// the answer could not be kept.
template <class T>
const T* ask_view(const T& (View::*ask)(const char*), const char* path) {
    if (g_view == nullptr || path == nullptr) return nullptr;
    try {
        return &(g_view->*ask)(path);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

const FileBytes* view_file(const char* path) { return ask_view(&View::file, path); }

const Listing* view_listing(const char* path) { return ask_view(&View::listing, path); }

int access_exists(const char* path) {
    if (const AccessAnswer* a = ask_view(&View::access_answer, path)) {
        errno = a->err;
        return a->result;
    }
    return access(path, F_OK);
}

ViewMemo* view_memo() { return g_view != nullptr ? g_view->memo.get() : nullptr; }

void keep_view_memo(std::unique_ptr<ViewMemo> memo) {
    if (g_view != nullptr) g_view->memo = std::move(memo);
}

Directory::Directory(const char* path) {
    if (path == nullptr) return;
    listing_ = view_listing(path);
    if (listing_ != nullptr) {
        opened_ = listing_->opened;
        open_errno_ = listing_->open_errno;
        return;
    }
    dir_ = opendir(path);
    opened_ = dir_ != nullptr;
    if (!opened_) open_errno_ = errno;
}

Directory::~Directory() { close(); }

const char* Directory::next() {
    if (!opened_ || closed_) return nullptr;
    if (listing_ != nullptr) return pos_ < listing_->names.size() ? listing_->names[pos_++].c_str() : nullptr;
    const dirent* e = readdir(dir_);
    return e != nullptr ? e->d_name : nullptr;
}

bool Directory::close() {
    if (!opened_ || closed_) return true;
    closed_ = true;
    if (listing_ != nullptr) {
        if (!listing_->close_failed) return true;
        errno = listing_->close_errno;
        return false;
    }
    return closedir(dir_) == 0;
}

File::File(const char* path) {
    seen_ = view_file(path);
    if (seen_ != nullptr) {
        open_result_ = !seen_->opened ? -1 : seen_->on_descriptor_0 ? 0 : 1;
        open_errno_ = seen_->open_errno;
        if (!seen_->opened) errno = open_errno_;
        return;
    }
    fd_ = open(path, O_RDONLY);
    if (fd_ < 0) open_errno_ = errno;
    open_result_ = fd_ < 0 ? -1 : fd_ == 0 ? 0 : 1;
}

ssize_t File::read(void* buf, std::size_t n) {
    if (seen_ != nullptr) return open_result_ < 0 ? (errno = EBADF, -1) : seen_->read(buf, n);
    return ::read(fd_, buf, n);
}

void File::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void set_view_enabled_for_tests(bool enabled) { g_enabled.store(enabled, std::memory_order_relaxed); }

}  // namespace mv::host
