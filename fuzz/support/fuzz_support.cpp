#include "fuzz_support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "redirect.h"
#include "temp_dir.h"

namespace fuzz {

namespace {
uint64_t g_sleeps = 0;
}

void fill(void* p, std::size_t n, uint8_t pattern) { std::memset(p, pattern, n); }

void check_untouched(const void* p, std::size_t n, uint8_t pattern, const char* what) {
    const auto* b = static_cast<const uint8_t*>(p);
    // Every byte holds the pattern when the first does and each equals the
    // next: one memcmp over the range rather than an instrumented loop (the
    // agent's buffers are half a megabyte).
    if (n == 0 || (b[0] == pattern && std::memcmp(b, b + 1, n - 1) == 0)) return;
    for (std::size_t i = 0; i < n; ++i) {
        if (b[i] != pattern) {
            std::fprintf(stderr, "written outside the answer: %s, byte %zu\n", what, i);
            std::abort();
        }
    }
}

void quiet_stdout() {
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
}

const std::string& empty_host() {
    static const std::unique_ptr<sim::TempDir> dir = [] {
        // In memory where the machine has a tmpfs: the host target writes a
        // tree here for every input, and a disk file system spends most of
        // the run creating and removing its inodes.
        struct stat shm;
        const bool in_memory = std::getenv("TMPDIR") == nullptr && stat("/dev/shm", &shm) == 0 &&
                               S_ISDIR(shm.st_mode) && access("/dev/shm", W_OK) == 0;
        if (in_memory) setenv("TMPDIR", "/dev/shm", 1);
        auto d = std::make_unique<sim::TempDir>("mirvak-fuzz");
        if (in_memory) unsetenv("TMPDIR");
        setenv(sim::kRootEnv, d->path().c_str(), 1);
        return d;
    }();
    return dir->path();
}

uint64_t sleeps() { return g_sleeps; }

}  // namespace fuzz

// The snapshot pauses deliberately for ports with many remote ports and
// virtual ports (through std::this_thread::sleep_for, which ends in
// nanosleep). The library is compiled unchanged; in the fuzz targets this
// definition takes the place of the C library's, counts the pause and
// returns at once, so that an input reaching the pause does not stall the
// run.
extern "C" int nanosleep(const struct timespec*, struct timespec* rem) {
    ++fuzz::g_sleeps;
    if (rem != nullptr) rem->tv_sec = rem->tv_nsec = 0;
    return 0;
}
