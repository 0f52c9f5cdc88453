#include "snapshot_commands.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "codes.h"
#include "snapshot_decode.h"

using nlohmann::json;

namespace mv::tool {

namespace {

// Snapshot files larger than this are not read (a snapshot of the largest
// system the driver can describe is far smaller).
constexpr std::size_t kMaxSnapshotFile = std::size_t{1} << 30;

// Shows "gathering the snapshot... N s" on standard error, once a second
// after the first, for as long as it lives; only when standard error is a
// terminal. The line is cleared at the end.
class Progress {
public:
    Progress() {
        if (!isatty(STDERR_FILENO)) return;
        worker_ = std::thread([this] { run(); });
    }
    ~Progress() {
        if (!worker_.joinable()) return;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        wake_.notify_all();
        worker_.join();
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    void run() {
        const auto start = std::chrono::steady_clock::now();
        bool shown = false;
        std::unique_lock<std::mutex> lock(mutex_);
        for (unsigned seconds = 1;; ++seconds) {
            if (wake_.wait_until(lock, start + std::chrono::seconds(seconds), [this] { return done_; })) break;
            std::fprintf(stderr, "\rmirvak-hba: gathering the snapshot... %u s", seconds);
            std::fflush(stderr);
            shown = true;
        }
        if (shown) {
            std::fprintf(stderr, "\r\033[K");
            std::fflush(stderr);
        }
    }

    std::thread worker_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool done_ = false;
};

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

Outcome decoded(const unsigned char* data, std::size_t size, json about) {
    json tree;
    try {
        tree = decode_snapshot(data, size);
    } catch (const DecodeError& e) {
        throw RequestFailed(FCOE_ERR_FAILED, "cannot decode the snapshot (" + std::to_string(size) +
                                                 " bytes) at byte " + std::to_string(e.offset) + ": " + e.what());
    }
    about["bytes"] = size;
    about["snapshot"] = tree;
    Outcome o;
    o.data = about;
    o.text = [about](std::FILE* out) {
        std::string head = "Snapshot: " + std::to_string(about["bytes"].get<std::size_t>()) + " bytes";
        if (about.contains("raw_file")) head += ", saved to " + about["raw_file"].get<std::string>();
        if (about.contains("file")) head += ", read from " + about["file"].get<std::string>();
        std::fprintf(out, "%s\n%s", head.c_str(), snapshot_text(about["snapshot"]).c_str());
    };
    return o;
}

void save(const std::string& file, const void* data, std::size_t size) {
    std::FILE* f = std::fopen(file.c_str(), "wb");
    if (f == nullptr)
        throw RequestFailed(FCOE_ERR_FAILED, "cannot write " + file + ": " + std::strerror(errno));
    const bool written = std::fwrite(data, 1, size, f) == size;
    const int write_errno = errno;
    if (std::fclose(f) != 0 || !written)
        throw RequestFailed(FCOE_ERR_FAILED, "cannot write " + file + ": " + std::strerror(written ? errno : write_errno));
}

}  // namespace

Outcome snapshot_command(Session& s, const std::string& raw_file) {
    unsigned int size = 0;
    std::unique_ptr<unsigned char, FreeDeleter> data;
    {
        Progress progress;
        data.reset(static_cast<unsigned char*>(s.facade().GetFCoEAll(nullptr, &size)));
    }
    if (!data)
        throw RequestFailed(FCOE_ERR_FAILED, "GetFCoEAll failed: no snapshot (" +
                                                 std::string(size == 0 ? "no adapters, or " : "") +
                                                 "the library could not allocate it)");
    json about = json::object();
    if (!raw_file.empty()) {
        save(raw_file, data.get(), size);
        about["raw_file"] = raw_file;
    }
    return decoded(data.get(), size, about);
}

Outcome decode_command(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) throw RequestFailed(FCOE_ERR_FAILED, "cannot read " + file + ": " + std::strerror(errno));
    std::vector<unsigned char> bytes;
    char chunk[65536];
    while (in) {
        in.read(chunk, sizeof chunk);
        bytes.insert(bytes.end(), chunk, chunk + in.gcount());
        if (bytes.size() > kMaxSnapshotFile)
            throw RequestFailed(FCOE_ERR_FAILED, file + " is larger than any snapshot (over 1 GiB)");
    }
    if (in.bad()) throw RequestFailed(FCOE_ERR_FAILED, "cannot read " + file);
    return decoded(bytes.data(), bytes.size(), json{{"file", file}});
}

}  // namespace mv::tool
