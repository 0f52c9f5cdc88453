// Path redirector of the simulated host
// =====================================
//
// The plug-in reads the SCSI host view from fixed sysfs paths and the HBA API
// front library reads the fixed /etc/hba.conf. To run both unmodified against
// a generated tree (see sysfs_gen.h), this object rewrites those fixed paths
// onto a private root folder:
//
//   MIRVAK_SIM_ROOT=/tmp/simroot
//   /sys/class/fc_host/host3/port_name -> /tmp/simroot/sys/class/fc_host/host3/port_name
//   /etc/hba.conf                      -> /tmp/simroot/etc/hba.conf
//
// Rules
//   - The variable is read on every call: setting, changing or unsetting it
//     takes effect at once. Unset or empty: nothing is redirected.
//   - Only absolute paths are considered, and they are matched on component
//     boundaries against the prefix table below: a "tree" entry covers the
//     path itself and everything below it ("/sys/class/fc_hostX" is not
//     covered), a "file" entry only the path itself. Paths are taken as
//     written: "/sys//class/fc_host" or ".." components are not normalised.
//     Relative paths (also those given to the *at() forms) pass untouched;
//     a directory descriptor opened through the redirector already points
//     into the root.
//   - ROOT + path must fit into PATH_MAX bytes; otherwise the call fails with
//     ENAMETOOLONG and the real function is not called.
//   - Everything else is handed to the next definition of the function
//     (libc's, or a sanitizer's interceptor), found with dlsym(RTLD_NEXT) on
//     first use and cached; no allocation besides a stack buffer.
//
// Intercepted: open, open64, openat, openat64, __open_2, __open64_2,
// __openat_2, __openat64_2, fopen, fopen64, opendir, access, faccessat,
// stat, lstat, stat64, lstat64, fstatat, fstatat64, statx, readlink,
// readlinkat, realpath, canonicalize_file_name, scandir, scandir64, chdir,
// and the older
// glibc entry points __xstat, __lxstat, __xstat64, __lxstat64, __fxstatat,
// __fxstatat64 that binaries built before glibc 2.33 call, and getxattr,
// lgetxattr, listxattr, llistxattr (what "ls -l" asks). glibc's own
// fopen and opendir do not go through the public open, which is why they are
// intercepted themselves.
//
// The simulated host's SCSI device nodes ("/dev/sdb", listed in
// ROOT/sim/sg.json) are answered by sg_device.cpp: the open forms above
// (not fopen) ask it first, and ioctl and close are intercepted for the
// descriptors it hands out; every other descriptor goes to the real ioctl
// and close untouched.
//
// Two ways to use it
//   - LD_PRELOAD=libmirvaksimhost.so (what "mirvak-simhost run" sets up).
//   - Linked into a test program (the simhost_redirect object library): the
//     program's definitions then interpose for every shared library it loads,
//     the plug-in and the front library included. The effect is process-wide,
//     so tests set MIRVAK_SIM_ROOT only for as long as they need it.
//
// readlink and readlinkat end a redirected link's text with a NUL when
// the buffer has room for it (see ended_link_text).
//
// Every redirected call is counted (files, directories, other lookups; see
// mirvak_sim_redirected_files in redirect.h).
//
// The simulated tree's links are relative, as the kernel's are, so they
// resolve inside the root; realpath and canonicalize_file_name give their
// result without the root in front, as a path of the system.
//
// Adding a system path means adding one line to kPrefixes.

#undef _FORTIFY_SOURCE  // the fortified inline wrappers would clash with the definitions below

#include "redirect.h"
#include "sg_device.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>

// Entry points that glibc exports but no longer declares (or declares only
// for fortified builds).
extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int dirfd, const char* path, int flags);
int __openat64_2(int dirfd, const char* path, int flags);
int __xstat(int ver, const char* path, struct stat* buf);
int __lxstat(int ver, const char* path, struct stat* buf);
int __xstat64(int ver, const char* path, struct stat64* buf);
int __lxstat64(int ver, const char* path, struct stat64* buf);
int __fxstatat(int ver, int dirfd, const char* path, struct stat* buf, int flags);
int __fxstatat64(int ver, int dirfd, const char* path, struct stat64* buf, int flags);
}

namespace {

// The redirected system paths.
struct Prefix {
    const char* path;
    std::size_t len;
    bool tree;  // also everything below it
};

template <std::size_t N>
constexpr Prefix tree(const char (&p)[N]) { return {p, N - 1, true}; }
template <std::size_t N>
constexpr Prefix file(const char (&p)[N]) { return {p, N - 1, false}; }

constexpr Prefix kPrefixes[] = {
    tree("/sys/class/fc_host"),
    tree("/sys/class/scsi_host"),
    tree("/sys/class/fc_remote_ports"),
    tree("/sys/class/fc_transport"),
    tree("/sys/class/scsi_device"),
    tree("/sys/class/scsi_generic"),
    tree("/sys/class/block"),
    tree("/sys/block"),
    tree("/sys/bus/scsi"),
    tree("/sys/bus/pci"),
    tree("/sys/bus/fcoe"),
    tree("/sys/class/net"),
    tree("/sys/devices/pci0000:00"),
    tree("/sys/module/tuskstor"),
    file("/etc/hba.conf"),
};

bool redirected(const char* path) {
    for (const Prefix& p : kPrefixes) {
        if (strncmp(path, p.path, p.len) != 0) continue;
        const char next = path[p.len];
        if (next == '\0' || (p.tree && next == '/')) return true;
    }
    return false;
}

// Symbol versions under which glibc keeps entry points it no longer offers
// by default (the __xstat family), tried when the plain lookup fails.
constexpr const char* kLegacyVersions[] = {
#if defined(__x86_64__)
    "GLIBC_2.2.5", "GLIBC_2.4", "GLIBC_2.7",
#elif defined(__aarch64__)
    "GLIBC_2.17",
#elif defined(__i386__)
    "GLIBC_2.0", "GLIBC_2.1", "GLIBC_2.2", "GLIBC_2.4", "GLIBC_2.7",
#endif
    nullptr,
};

// The next definition of `name` after this object, looked up once. Racing
// first calls store the same value, so a plain atomic is enough.
void* next_symbol(std::atomic<void*>& slot, const char* name) {
    void* fn = slot.load(std::memory_order_acquire);
    if (fn != nullptr) return fn;
    fn = dlsym(RTLD_NEXT, name);
    for (const char* const* v = kLegacyVersions; fn == nullptr && *v != nullptr; ++v)
        fn = dlvsym(RTLD_NEXT, name, *v);
    slot.store(fn, std::memory_order_release);
    return fn;
}

// The next definition of the intercepted function fn, typed like it.
#define MIRVAK_NEXT(fn)                                                       \
    reinterpret_cast<decltype(&fn)>(next_symbol(                              \
        []() -> std::atomic<void*>& {                                         \
            static std::atomic<void*> slot{nullptr};                          \
            return slot;                                                      \
        }(),                                                                  \
        #fn))

// What an intercepted call does with its path, for the counts of
// redirected calls (redirect.h).
enum class Use { File, Directory, Lookup };

std::atomic<std::size_t> g_redirected_files{0};
std::atomic<std::size_t> g_redirected_dirs{0};
std::atomic<std::size_t> g_redirected_lookups{0};

void count_redirected(Use use) {
    std::atomic<std::size_t>& c =
        use == Use::File ? g_redirected_files : use == Use::Directory ? g_redirected_dirs : g_redirected_lookups;
    c.fetch_add(1, std::memory_order_relaxed);
}

// Calls real(mapped path) for the intercepted function; `failed` is its
// error result (with errno set) when the path cannot be mapped or the next
// definition is missing. A path that was redirected is counted under use.
template <typename R, typename Fn, typename Call>
R forward(Fn real, const char* path, R failed, Call call, Use use = Use::Lookup) {
    if (real == nullptr) {
        errno = ENOSYS;
        return failed;
    }
    char buf[PATH_MAX];
    const char* mapped = mirvak_sim_map_path(path, buf, sizeof buf);
    if (mapped == nullptr) return failed;
    if (mapped != path) count_redirected(use);
    return call(real, mapped);
}

// Whether open/openat were given the optional mode argument.
constexpr bool takes_mode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

// A resolved path below the root, written back without the root in front
// (in place: it only gets shorter). Paths elsewhere stay as they are.
char* strip_root(char* resolved) {
    const char* root = getenv(sim::kRootEnv);
    if (root == nullptr || root[0] == '\0') return resolved;
    std::size_t len = strlen(root);
    while (len > 1 && root[len - 1] == '/') --len;
    if (strncmp(resolved, root, len) != 0 || resolved[len] != '/') return resolved;
    memmove(resolved, resolved + len, strlen(resolved + len) + 1);
    return resolved;
}

// A redirected link's text, read into buf, also ends with a NUL when there
// is room after it. readlink itself leaves the rest of buf alone; fcoeadm
// (fcoe-utils 1.0.34) takes the text of a network device's "device" link
// as a C string from a buffer that still holds a longer path it wrote
// before, and would read a PCI function that is not there.
ssize_t ended_link_text(ssize_t n, bool redirected_path, char* buf, size_t size) {
    if (redirected_path && n >= 0 && static_cast<size_t>(n) < size) buf[n] = '\0';
    return n;
}

}  // namespace

namespace sim {
namespace sg {

int real_open(const char* path, int flags) {
    const auto real = MIRVAK_NEXT(open);
    if (real == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return real(path, flags);
}

int real_close(int fd) {
    const auto real = MIRVAK_NEXT(close);
    if (real == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return real(fd);
}

}  // namespace sg
}  // namespace sim

// A simulated device node answers the open itself.
#define MIRVAK_DEVICE_NODE(path, flags)                              \
    do {                                                             \
        int device_fd_ = -1;                                         \
        if (sim::sg::open_device((path), (flags), &device_fd_)) return device_fd_; \
    } while (0)

extern "C" const char* mirvak_sim_map_path(const char* path, char* buf, std::size_t size) {
    if (path == nullptr || path[0] != '/') return path;
    const char* root = getenv(sim::kRootEnv);
    if (root == nullptr || root[0] == '\0' || !redirected(path)) return path;
    const std::size_t root_len = strlen(root);
    const std::size_t path_len = strlen(path);
    if (root_len + path_len >= size) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    memcpy(buf, root, root_len);
    memcpy(buf + root_len, path, path_len + 1);
    return buf;
}

// The optional mode argument of open and openat (read only when present).
#define MIRVAK_MODE_ARG(flags, mode)           \
    do {                                       \
        if (takes_mode(flags)) {               \
            va_list ap;                        \
            va_start(ap, flags);               \
            (mode) = va_arg(ap, mode_t);       \
            va_end(ap);                        \
        }                                      \
    } while (0)

extern "C" {

int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    MIRVAK_MODE_ARG(flags, mode);
    MIRVAK_DEVICE_NODE(path, flags);
    return forward(MIRVAK_NEXT(open), path, -1,
                   [&](auto real, const char* p) { return real(p, flags, mode); }, Use::File);
}

int open64(const char* path, int flags, ...) {
    mode_t mode = 0;
    MIRVAK_MODE_ARG(flags, mode);
    MIRVAK_DEVICE_NODE(path, flags);
    return forward(MIRVAK_NEXT(open64), path, -1,
                   [&](auto real, const char* p) { return real(p, flags, mode); }, Use::File);
}

int openat(int dirfd, const char* path, int flags, ...) {
    mode_t mode = 0;
    MIRVAK_MODE_ARG(flags, mode);
    MIRVAK_DEVICE_NODE(path, flags);
    return forward(MIRVAK_NEXT(openat), path, -1,
                   [&](auto real, const char* p) { return real(dirfd, p, flags, mode); }, Use::File);
}

int openat64(int dirfd, const char* path, int flags, ...) {
    mode_t mode = 0;
    MIRVAK_MODE_ARG(flags, mode);
    MIRVAK_DEVICE_NODE(path, flags);
    return forward(MIRVAK_NEXT(openat64), path, -1,
                   [&](auto real, const char* p) { return real(dirfd, p, flags, mode); }, Use::File);
}

int __open_2(const char* path, int flags) {
    MIRVAK_DEVICE_NODE(path, flags);
    return forward(MIRVAK_NEXT(__open_2), path, -1,
                   [&](auto real, const char* p) { return real(p, flags); }, Use::File);
}

int __open64_2(const char* path, int flags) {
    MIRVAK_DEVICE_NODE(path, flags);
    return forward(MIRVAK_NEXT(__open64_2), path, -1,
                   [&](auto real, const char* p) { return real(p, flags); }, Use::File);
}

int __openat_2(int dirfd, const char* path, int flags) {
    MIRVAK_DEVICE_NODE(path, flags);
    return forward(MIRVAK_NEXT(__openat_2), path, -1,
                   [&](auto real, const char* p) { return real(dirfd, p, flags); }, Use::File);
}

int __openat64_2(int dirfd, const char* path, int flags) {
    MIRVAK_DEVICE_NODE(path, flags);
    return forward(MIRVAK_NEXT(__openat64_2), path, -1,
                   [&](auto real, const char* p) { return real(dirfd, p, flags); }, Use::File);
}

FILE* fopen(const char* path, const char* mode) {
    return forward(MIRVAK_NEXT(fopen), path, static_cast<FILE*>(nullptr),
                   [&](auto real, const char* p) { return real(p, mode); }, Use::File);
}

FILE* fopen64(const char* path, const char* mode) {
    return forward(MIRVAK_NEXT(fopen64), path, static_cast<FILE*>(nullptr),
                   [&](auto real, const char* p) { return real(p, mode); }, Use::File);
}

DIR* opendir(const char* path) {
    return forward(MIRVAK_NEXT(opendir), path, static_cast<DIR*>(nullptr),
                   [&](auto real, const char* p) { return real(p); }, Use::Directory);
}

int access(const char* path, int mode) noexcept {
    return forward(MIRVAK_NEXT(access), path, -1,
                   [&](auto real, const char* p) { return real(p, mode); });
}

int faccessat(int dirfd, const char* path, int mode, int flags) noexcept {
    return forward(MIRVAK_NEXT(faccessat), path, -1,
                   [&](auto real, const char* p) { return real(dirfd, p, mode, flags); });
}

int stat(const char* path, struct stat* buf) noexcept {
    return forward(MIRVAK_NEXT(stat), path, -1,
                   [&](auto real, const char* p) { return real(p, buf); });
}

int lstat(const char* path, struct stat* buf) noexcept {
    return forward(MIRVAK_NEXT(lstat), path, -1,
                   [&](auto real, const char* p) { return real(p, buf); });
}

int stat64(const char* path, struct stat64* buf) noexcept {
    return forward(MIRVAK_NEXT(stat64), path, -1,
                   [&](auto real, const char* p) { return real(p, buf); });
}

int lstat64(const char* path, struct stat64* buf) noexcept {
    return forward(MIRVAK_NEXT(lstat64), path, -1,
                   [&](auto real, const char* p) { return real(p, buf); });
}

int fstatat(int dirfd, const char* path, struct stat* buf, int flags) noexcept {
    return forward(MIRVAK_NEXT(fstatat), path, -1,
                   [&](auto real, const char* p) { return real(dirfd, p, buf, flags); });
}

int fstatat64(int dirfd, const char* path, struct stat64* buf, int flags) noexcept {
    return forward(MIRVAK_NEXT(fstatat64), path, -1,
                   [&](auto real, const char* p) { return real(dirfd, p, buf, flags); });
}

int statx(int dirfd, const char* path, int flags, unsigned int mask, struct statx* buf) noexcept {
    return forward(MIRVAK_NEXT(statx), path, -1,
                   [&](auto real, const char* p) { return real(dirfd, p, flags, mask, buf); });
}

int __xstat(int ver, const char* path, struct stat* buf) {
    return forward(MIRVAK_NEXT(__xstat), path, -1,
                   [&](auto real, const char* p) { return real(ver, p, buf); });
}

int __lxstat(int ver, const char* path, struct stat* buf) {
    return forward(MIRVAK_NEXT(__lxstat), path, -1,
                   [&](auto real, const char* p) { return real(ver, p, buf); });
}

int __xstat64(int ver, const char* path, struct stat64* buf) {
    return forward(MIRVAK_NEXT(__xstat64), path, -1,
                   [&](auto real, const char* p) { return real(ver, p, buf); });
}

int __lxstat64(int ver, const char* path, struct stat64* buf) {
    return forward(MIRVAK_NEXT(__lxstat64), path, -1,
                   [&](auto real, const char* p) { return real(ver, p, buf); });
}

int __fxstatat(int ver, int dirfd, const char* path, struct stat* buf, int flags) {
    return forward(MIRVAK_NEXT(__fxstatat), path, -1,
                   [&](auto real, const char* p) { return real(ver, dirfd, p, buf, flags); });
}

int __fxstatat64(int ver, int dirfd, const char* path, struct stat64* buf, int flags) {
    return forward(MIRVAK_NEXT(__fxstatat64), path, -1,
                   [&](auto real, const char* p) { return real(ver, dirfd, p, buf, flags); });
}

ssize_t getxattr(const char* path, const char* name, void* value, size_t size) noexcept {
    return forward(MIRVAK_NEXT(getxattr), path, ssize_t{-1},
                   [&](auto real, const char* p) { return real(p, name, value, size); });
}

ssize_t lgetxattr(const char* path, const char* name, void* value, size_t size) noexcept {
    return forward(MIRVAK_NEXT(lgetxattr), path, ssize_t{-1},
                   [&](auto real, const char* p) { return real(p, name, value, size); });
}

ssize_t listxattr(const char* path, char* list, size_t size) noexcept {
    return forward(MIRVAK_NEXT(listxattr), path, ssize_t{-1},
                   [&](auto real, const char* p) { return real(p, list, size); });
}

ssize_t llistxattr(const char* path, char* list, size_t size) noexcept {
    return forward(MIRVAK_NEXT(llistxattr), path, ssize_t{-1},
                   [&](auto real, const char* p) { return real(p, list, size); });
}

ssize_t readlink(const char* path, char* buf, size_t size) noexcept {
    return forward(MIRVAK_NEXT(readlink), path, ssize_t{-1}, [&](auto real, const char* p) {
        return ended_link_text(real(p, buf, size), p != path, buf, size);
    });
}

ssize_t readlinkat(int dirfd, const char* path, char* buf, size_t size) noexcept {
    return forward(MIRVAK_NEXT(readlinkat), path, ssize_t{-1}, [&](auto real, const char* p) {
        return ended_link_text(real(dirfd, p, buf, size), p != path, buf, size);
    });
}

int chdir(const char* path) noexcept {
    return forward(MIRVAK_NEXT(chdir), path, -1, [&](auto real, const char* p) { return real(p); },
                   Use::Directory);
}

int scandir(const char* path, struct dirent*** list, int (*select)(const struct dirent*),
            int (*compare)(const struct dirent**, const struct dirent**)) {
    return forward(MIRVAK_NEXT(scandir), path, -1,
                   [&](auto real, const char* p) { return real(p, list, select, compare); }, Use::Directory);
}

int scandir64(const char* path, struct dirent64*** list, int (*select)(const struct dirent64*),
              int (*compare)(const struct dirent64**, const struct dirent64**)) {
    return forward(MIRVAK_NEXT(scandir64), path, -1,
                   [&](auto real, const char* p) { return real(p, list, select, compare); }, Use::Directory);
}

char* realpath(const char* path, char* resolved) noexcept {
    char* const out = forward(MIRVAK_NEXT(realpath), path, static_cast<char*>(nullptr),
                              [&](auto real, const char* p) { return real(p, resolved); });
    return out == nullptr ? out : strip_root(out);
}

char* canonicalize_file_name(const char* path) noexcept {
    char* const out = forward(MIRVAK_NEXT(canonicalize_file_name), path, static_cast<char*>(nullptr),
                              [&](auto real, const char* p) { return real(p); });
    return out == nullptr ? out : strip_root(out);
}

// The third argument is passed on as a pointer, whatever it is, as libc's
// own wrapper does.
int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    int result = -1;
    if (sim::sg::device_ioctl(fd, request, arg, &result)) return result;
    const auto real = MIRVAK_NEXT(ioctl);
    if (real == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return real(fd, request, arg);
}

int close(int fd) {
    sim::sg::forget_descriptor(fd);
    return sim::sg::real_close(fd);
}

std::size_t mirvak_sim_redirected_files(void) { return g_redirected_files.load(std::memory_order_relaxed); }
std::size_t mirvak_sim_redirected_dirs(void) { return g_redirected_dirs.load(std::memory_order_relaxed); }
std::size_t mirvak_sim_redirected_lookups(void) { return g_redirected_lookups.load(std::memory_order_relaxed); }

void mirvak_sim_reset_redirected(void) {
    g_redirected_files.store(0, std::memory_order_relaxed);
    g_redirected_dirs.store(0, std::memory_order_relaxed);
    g_redirected_lookups.store(0, std::memory_order_relaxed);
}

}  // extern "C"
