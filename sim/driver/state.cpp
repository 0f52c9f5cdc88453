#include "state.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "model.h"
#include "mirvak/tuskstor.h"

namespace tusksim {

namespace {

void report(const std::string& line) { std::fprintf(stderr, "libtuskstor (simulated): %s\n", line.c_str()); }

}  // namespace

std::optional<Op> op_by_name(const char* name) {
    if (name == nullptr) return std::nullopt;
    for (std::size_t i = 0; i < kOpCount; ++i) {
        if (std::strcmp(name, sim::kOperationNames[i]) == 0) return static_cast<Op>(i);
    }
    return std::nullopt;
}

void Driver::install(sim::Fabric f, std::string persist_path) {
    fabric_ = std::move(f);
    persist_path_ = std::move(persist_path);
    faults_.clear();
    for (const auto& fault : fabric_.faults) {
        // The description's operation names were checked when it was read.
        if (const auto op = op_by_name(fault.op.c_str())) add_fault(*op, fault.nth, fault.status, fault.every, fault.hang);
    }
    loaded_ = true;
}

int Driver::load_from_environment() {
    const char* path = std::getenv(kFabricEnv);
    try {
        if (path != nullptr && *path != '\0') {
            install(sim::load_fabric_file(path), path);
        } else {
            install(sim::parse_fabric_text(sim::default_fabric_text(), "<default>"), "");
        }
        return 0;
    } catch (const sim::FabricError& e) {
        report(e.what());
    }
    install(sim::Fabric{}, "");
    return -1;
}

void Driver::ensure_loaded() {
    if (!loaded_) load_from_environment();
}

int Driver::persist() {
    if (persist_path_.empty()) return 0;
    // Written beside the file and renamed over it, so a reader never sees
    // half a description; the name is this writer's own.
    static unsigned serial = 0;
    const std::string tmp =
        persist_path_ + ".tmp." + std::to_string(getpid()) + "." + std::to_string(++serial);
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << sim::fabric_to_json(fabric_).dump(2) << '\n';
        out.close();
        if (!out) {
            report("cannot write " + tmp + ": " + std::strerror(errno));
            std::remove(tmp.c_str());
            return kIoError;
        }
    }
    if (std::rename(tmp.c_str(), persist_path_.c_str()) != 0) {
        report("cannot replace " + persist_path_ + ": " + std::strerror(errno));
        std::remove(tmp.c_str());
        return kIoError;
    }
    return 0;
}

Driver::FileLock::~FileLock() {
    if (fd_ >= 0) ::close(fd_);  // closing drops the lock
}

int Driver::lock_file(FileLock& lock) {
    if (persist_path_.empty()) return 0;
    const std::string name = persist_path_ + ".lock";
    const int fd = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    // No lock file can be made where the description lies: nobody can
    // write a change there either, and the write-back reports it.
    if (fd < 0) return 0;
    int rc = 0;
    do rc = flock(fd, LOCK_EX);
    while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        report("cannot lock " + name + ": " + std::strerror(errno));
        ::close(fd);
        return kIoError;
    }
    lock.hold(fd);
    return 0;
}

int Driver::reread() {
    if (persist_path_.empty()) return 0;
    // A file that is gone holds nothing newer; the write-back reports it.
    std::error_code ec;
    if (!std::filesystem::exists(persist_path_, ec)) return 0;
    try {
        fabric_.adapters = sim::load_fabric_file(persist_path_).adapters;
        return 0;
    } catch (const sim::FabricError& e) {
        report(e.what());
    }
    return kIoError;
}

std::optional<Driver::Hit> Driver::enter(Op op) {
    ++calls_[static_cast<std::size_t>(op)];
    std::optional<Hit> hit;
    for (auto& f : faults_) {
        if (f.op != op) continue;
        ++f.seen;
        if (!hit && (f.seen == f.nth || (f.every && f.seen >= f.nth))) hit = Hit{f.status, f.hang};
    }
    return hit;
}

uint64_t Driver::total_calls() const {
    uint64_t total = 0;
    for (const auto c : calls_) total += c;
    return total;
}

void Driver::add_fault(Op op, uint32_t nth, int status, bool every, std::string hang) {
    faults_.push_back(ActiveFault{op, nth, status, every, std::move(hang)});
}

uint32_t Driver::open(uint32_t instance) {
    const auto& adapters = fabric_.adapters;
    const bool present = std::any_of(adapters.begin(), adapters.end(),
                                     [&](const sim::Adapter& a) { return a.instance == instance; });
    if (!present) return TUSK_INVALID_HANDLE;
    uint32_t h = next_handle_;
    while (handles_.count(h) != 0) h = h >= kLastHandle ? kFirstHandle : h + 1;
    next_handle_ = h >= kLastHandle ? kFirstHandle : h + 1;
    handles_[h] = instance;
    last_handle_ = h;
    return h;
}

bool Driver::close(uint32_t handle) { return handles_.erase(handle) != 0; }

sim::Adapter* Driver::adapter(uint32_t handle, int& status) {
    const auto it = handles_.find(handle);
    if (it == handles_.end()) {
        status = kBadHandle;
        return nullptr;
    }
    for (auto& a : fabric_.adapters) {
        if (a.instance == it->second) return &a;
    }
    status = kNoDevice;
    return nullptr;
}

Driver& driver() {
    // Never destroyed: a plug-in may still call in while the process exits.
    static Driver* const d = new Driver;
    return *d;
}

}  // namespace tusksim
