// The simulated driver library's state: the fabric in force, where it came
// from, the open handles, call counts and faults. One instance per process;
// every entry point takes its lock.
#ifndef MIRVAK_SIM_DRIVER_STATE_H
#define MIRVAK_SIM_DRIVER_STATE_H

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fabric.h"

namespace tusksim {

// Environment variable naming the description file loaded at first use.
constexpr const char* kFabricEnv = "MIRVAK_SIM_FABRIC";

// The operations, in the order of sim::kOperationNames.
enum class Op : std::size_t {
    OpenAdapter, OpenAdapterStr, CloseAdapter, ProbeAdapter, GetHwInfo, GetLnodeInfo,
    GetLnodeInfoByFcid, GetRnodeInfo, GetFcfInfo, ListNpivPort, CreateNpivPort, DeleteNpivPort
};
constexpr std::size_t kOpCount = sim::kOperationNames.size();
std::optional<Op> op_by_name(const char* name);

constexpr uint32_t kFirstHandle = 3;
constexpr uint32_t kLastHandle = 0xFFFF;

class Driver {
public:
    std::mutex& mutex() { return mutex_; }

    // Loading. persist_path names the file that NPIV changes are written
    // back to (empty: none). The description's faults replace those in force.
    void install(sim::Fabric f, std::string persist_path);
    // What first use does: the file named by MIRVAK_SIM_FABRIC, else the
    // default. A description that cannot be used is reported on standard
    // error and leaves a fabric without adapters; the result is then -1.
    int load_from_environment();
    void ensure_loaded();

    sim::Fabric& fabric() { return fabric_; }
    // Write the fabric back to the file it came from, if any: 0 or kIoError.
    // Each writer writes its own temporary file beside it and renames it
    // over the file, so a reader never sees half a description.
    int persist();

    // Changes of the description file by several processes: lock_file()
    // takes an exclusive lock on <file>.lock (kept until the result is
    // destroyed; nothing to lock when the fabric came from no file), and
    // reread() then replaces the adapters with the file's, so that a change
    // starts from every change other processes made before. Faults in force
    // stay. Both answer 0 or kIoError (reported on standard error); a lock
    // file that cannot be made is no error (the write-back will fail).
    class FileLock {
    public:
        FileLock() = default;
        FileLock(const FileLock&) = delete;
        FileLock& operator=(const FileLock&) = delete;
        ~FileLock();
        void hold(int fd) { fd_ = fd; }
    private:
        int fd_ = -1;
    };
    int lock_file(FileLock& lock);
    int reread();

    // What a fault that hits a call asks: return `status` at once, or, with
    // a release file named, block until that file exists and then answer as
    // usual.
    struct Hit {
        int status = 0;
        std::string hang;
    };
    // Counts a call of op; when a fault hits it, what the fault asks.
    std::optional<Hit> enter(Op op);
    uint64_t calls(Op op) const { return calls_[static_cast<std::size_t>(op)]; }
    uint64_t total_calls() const;
    void reset_counts() {
        calls_.fill(0);
        most_in_flight_ = 0;
    }
    // Operations running or waiting for the lock at once: counted before the
    // lock is taken, so that callers that enter the library together show.
    void arrive() {
        const uint32_t now = ++in_flight_;
        uint32_t most = most_in_flight_.load();
        while (now > most && !most_in_flight_.compare_exchange_weak(most, now)) {
        }
    }
    void depart() { --in_flight_; }
    uint32_t most_in_flight() const { return most_in_flight_.load(); }
    void add_fault(Op op, uint32_t nth, int status, bool every, std::string hang = "");
    void clear_faults() { faults_.clear(); }

    // Handles: open answers TUSK_INVALID_HANDLE when no adapter has the instance.
    uint32_t open(uint32_t instance);
    bool close(uint32_t handle);
    // The adapter behind an open handle, or nullptr with the status to return.
    sim::Adapter* adapter(uint32_t handle, int& status);
    std::size_t open_handles() const { return handles_.size(); }
    // The handle the latest successful open gave (0 before any).
    uint32_t last_handle() const { return last_handle_; }

    std::string& dump_buffer() { return dump_; }

private:
    struct ActiveFault {
        Op op;
        uint32_t nth;
        int status;
        bool every;
        std::string hang;
        uint64_t seen = 0;
    };

    std::mutex mutex_;
    bool loaded_ = false;
    sim::Fabric fabric_;
    std::string persist_path_;
    std::array<uint64_t, kOpCount> calls_{};
    std::atomic<uint32_t> in_flight_{0};
    std::atomic<uint32_t> most_in_flight_{0};
    std::vector<ActiveFault> faults_;
    std::map<uint32_t, uint32_t> handles_;  // handle -> adapter instance
    // Handles look like the descriptors the real driver hands out: small
    // numbers (the HBA API front library keeps only a handle's low 16 bits).
    uint32_t next_handle_ = kFirstHandle;
    uint32_t last_handle_ = 0;
    std::string dump_;
};

Driver& driver();

}  // namespace tusksim

#endif
