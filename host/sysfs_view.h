// A per-request view of the host's sysfs tree.
//
// A top-level request that walks the tree many times (the snapshot, the FCP
// target mapping, the LUN queries) opens a SysfsRequest for its duration.
// While one is open, every directory listing, every file's first bytes and
// every existence check is asked of the kernel once and then answered from
// memory, failures included: a file or directory that could not be opened or
// read is remembered with its errno, and each later reader sees that same
// failure, so the walks print the same lines and leave the same values as
// when they read the kernel every time.
//
// A request opened inside another reuses the outer one's view; the view is
// dropped when the outermost request ends, on every way out of it. With no
// request open, Directory and the readers in sysfs.cpp go to the kernel on
// every call, as they always have.
//
// The view belongs to the thread that runs the request: each thread has its
// own (and the library's entry lock, driver/entry_lock.h, lets one request
// run at a time), so a request never sees another's answers.
#ifndef MIRVAK_HOST_SYSFS_VIEW_H
#define MIRVAK_HOST_SYSFS_VIEW_H

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace mv::host {

// What opening a file and reading its start gave.
struct FileBytes {
    // Bytes kept of a file: a sysfs attribute is at most one page.
    static constexpr std::size_t kMaxBytes = 4096;

    bool opened = false;
    int open_errno = 0;            // why it did not open
    bool on_descriptor_0 = false;  // it opened on descriptor 0 (standard input was closed)
    bool read_failed = false;      // the first read failed ...
    int read_errno = 0;            // ... with this error
    std::string bytes;             // its first kMaxBytes bytes

    // What fgets(buf, size, f) gives on the freshly opened file: false when
    // nothing could be read; otherwise the first line (newline kept) cut to
    // size - 1 bytes, terminated.
    bool gets(char* buf, int size) const;
    // What read(fd, buf, n) gives on the freshly opened file: the byte count,
    // or -1 with errno set to the read's error.
    ssize_t read(void* buf, std::size_t n) const;
};

// What opening and reading a directory gave.
struct Listing {
    bool opened = false;
    int open_errno = 0;              // why it did not open
    std::vector<std::string> names;  // every entry, "." and ".." included, in the kernel's order
    bool close_failed = false;       // closedir failed ...
    int close_errno = 0;             // ... with this error
};

// Opens the view for this request, or joins the view of the request that
// is already running.
class SysfsRequest {
public:
    SysfsRequest();
    ~SysfsRequest();
    SysfsRequest(const SysfsRequest&) = delete;
    SysfsRequest& operator=(const SysfsRequest&) = delete;
};

// The open view's answer for this path (read from the kernel on first use);
// null when no view is open.
const FileBytes* view_file(const char* path);
const Listing* view_listing(const char* path);
// access(path, F_OK), answered by the open view or, with none open, by the
// kernel.
int access_exists(const char* path);

// Something a walk works out once from the view (an index) and keeps with
// it; released with the view.
class ViewMemo {
public:
    virtual ~ViewMemo() = default;
};
// The open view's memo, null when none was kept or no view is open; keeping
// one does nothing when no view is open.
ViewMemo* view_memo();
void keep_view_memo(std::unique_ptr<ViewMemo> memo);

// A directory's entries, from the open view or, with none open, from the
// kernel as they are read.
class Directory {
public:
    // A null path reads as a directory that could not be opened.
    explicit Directory(const char* path);
    ~Directory();
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    bool opened() const { return opened_; }
    // Why it could not be opened.
    int open_errno() const { return open_errno_; }
    // The next entry's name; null at the end (at once when not opened).
    const char* next();
    // Closes it (once): false, with errno set, when closedir failed; true
    // when it was not open.
    bool close();

private:
    DIR* dir_ = nullptr;
    const Listing* listing_ = nullptr;
    std::size_t pos_ = 0;
    bool opened_ = false;
    bool closed_ = false;
    int open_errno_ = 0;
};

// A file opened for reading, from the open view or, with none open, with
// open(2): what the readers that take descriptors use.
class File {
public:
    explicit File(const char* path);
    ~File() { close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // What open returned, as far as callers look at it: -1 (failed, see
    // open_errno), 0 (descriptor 0, standard input having been closed) or 1
    // (any other descriptor).
    int open_result() const { return open_result_; }
    int open_errno() const { return open_errno_; }
    // read(2) on it (the first read, from the view): the byte count, or -1
    // with errno set.
    ssize_t read(void* buf, std::size_t n);
    void close();

private:
    const FileBytes* seen_ = nullptr;
    int fd_ = -1;
    int open_result_ = -1;
    int open_errno_ = 0;
};

// Test-only: with false, SysfsRequest opens no view and every reader goes to
// the kernel, so that a test can compare both ways on one tree. Not part of
// the library's interface (not exported); reached only by programs built
// from the library's sources.
void set_view_enabled_for_tests(bool enabled);

}  // namespace mv::host

#endif
