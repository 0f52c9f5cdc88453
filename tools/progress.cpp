#include "tools/progress.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace mv::tool {

Progress::Progress(std::string what) : what_(std::move(what)) {
    if (!isatty(STDERR_FILENO)) return;
    worker_ = std::thread([this] { run(); });
}

Progress::~Progress() {
    if (!worker_.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
    }
    wake_.notify_all();
    worker_.join();
}

void Progress::run() {
    const auto start = std::chrono::steady_clock::now();
    bool shown = false;
    std::unique_lock<std::mutex> lock(mutex_);
    for (unsigned seconds = 1;; ++seconds) {
        if (wake_.wait_until(lock, start + std::chrono::seconds(seconds), [this] { return done_; })) break;
        std::fprintf(stderr, "\rmirvak-hba: %s... %u s", what_.c_str(), seconds);
        std::fflush(stderr);
        shown = true;
    }
    if (shown) {
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
    }
}

}  // namespace mv::tool
