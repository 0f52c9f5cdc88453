// How long the plug-in's heaviest requests take on small, medium and large
// simulated systems, and how much of the driver and of sysfs each call
// touches.
//
// For each size the program makes a fabric (sim/scale_fabric.h), loads it
// into the simulated driver library, writes its host view (sysfs tree and
// SCSI device index) under a private folder and points the path redirector,
// which is linked into this program as into the tests, at it. Then it times:
//
//   Floor                one plain pass over the part of the sysfs tree the
//                        plug-in's requests read, walked the way they walk
//                        it (through the older link names): every directory
//                        they list opened and every file they read opened
//                        and read once, through the same redirected paths;
//   GetFCoEAll           MvFCoEIni::GetFCoEAll, the whole-system snapshot;
//   ExporterReading      one reading of the whole system as the exporter
//                        (and `mirvak-hba metrics`) takes it, LUNs included:
//                        the snapshot and the requests it leaves to make;
//   GetFCPTargetMapping  version 2 (with the LUID of each LUN, asked of the
//                        simulated device nodes over SG_IO) for physical
//                        port 0 of the first adapter;
//   GetLunInfo           MvFCoEIni::GetLunInfo for the last target of the
//                        last physical port of the last adapter, named by WWN;
//   DistributionFCPTargetMapping
//                        the distribution's own sysfs-based HBA library
//                        (registered alone in the simulated host's
//                        hba.conf) asked for the version 2 mapping of the
//                        same port as GetFCPTargetMapping through the
//                        distribution's front library, on the same tree.
//                        (Ours is called through its own entry point: the
//                        front library routes no version 2 mapping to it.)
//
//   LockCost/REQUEST     GetFCoEAll, GetFCPTargetMapping and GetLunInfo as
//                        above, each iteration once with the library's lock
//                        and once without it (its test-only switch), in
//                        turn, the order swapped every iteration (after one
//                        untimed call; the snapshot of the systems with
//                        over a hundred local ports four times, the others
//                        for at least 2 s); counters
//                        locked_ms and unlocked_ms (thread CPU time per
//                        call), their wall-time twins locked_wall_ms and
//                        unlocked_wall_ms, and cost_pct, what the lock adds
//                        in CPU time, in percent.
//
// Counters, per call: drv_calls (driver library operations,
// tusksim_call_total), files, dirs and lookups (paths the redirector mapped
// into the simulated host: files opened, directories opened, other look-ups
// such as access and stat), sg_opens (simulated device nodes opened), and
// for the snapshot its length in bytes.
//
// What the plug-in prints (progress lines) goes to /dev/null while it is
// timed; formatting it is part of the time.
//
// The folder for the trees: $MIRVAK_BENCH_DIR, else /dev/shm when it is
// there (a tmpfs, so that the disk does not dominate), else $TMPDIR or /tmp.
#include <benchmark/benchmark.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "driver/entry_lock.h"
#include "mirvak/fcp_mapping.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/mgmt_records.h"
#include "metrics.h"
#include "mirvak/mv_fcoe_ini.h"
#include "redirect.h"
#include "scale_fabric.h"
#include "sysfs_gen.h"
#include "tusksim.h"

namespace {

namespace fs = std::filesystem;

struct Size {
    const char* name;
    sim::ScaleParams params;
};

// adapters, physical ports per adapter, virtual ports per port, targets per
// local port, LUNs per target. 32 targets stay below the 35 discovered
// ports beyond which the snapshot pauses 5 seconds on purpose. The wide
// shapes double the local ports from one to the next (many virtual ports
// with few targets each, as on a virtualisation host).
const Size kSizes[] = {
    {"small", {1, 1, 1, 2, 2}},
    {"medium", {2, 2, 4, 8, 4}},
    {"large", {4, 2, 16, 32, 8}},
    {"wide32", {4, 2, 32, 8, 2}},
    {"wide64", {4, 2, 64, 8, 2}},
    {"wide128", {4, 2, 128, 8, 2}},
};

std::string bench_parent() {
    if (const char* d = std::getenv("MIRVAK_BENCH_DIR"); d != nullptr && d[0] != '\0') return d;
    if (access("/dev/shm", W_OK) == 0) return "/dev/shm";
    if (const char* t = std::getenv("TMPDIR"); t != nullptr && t[0] != '\0') return t;
    return "/tmp";
}

// One simulated system: the fabric in the driver, its host on disk, the
// facade loaded, and the keys the requests use.
class World {
public:
    explicit World(const Size& size) : fabric_(sim::scale_fabric(size.params)) {
        std::string tmpl = bench_parent() + "/mirvak-bench-" + size.name + "-XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("cannot make a folder under " + bench_parent());
        root_ = tmpl;
        char err[512] = {};
        const std::string text = sim::fabric_to_json(fabric_).dump();
        if (tusksim_load_text(text.c_str(), size.name, err, sizeof err) != 0) throw std::runtime_error(err);
        sim::generate_host(fabric_, root_);
        setenv(sim::kRootEnv, root_.c_str(), 1);
        facade_ = std::make_unique<MvFCoEIni>();

        const HBA_UINT32 n = mirvak_GetNumberOfAdapters();
        for (HBA_UINT32 i = 0; i < n; ++i) {
            char name[256] = {};
            if (mirvak_GetAdapterName(i, name) == HBA_STATUS_OK) names_.emplace_back(name);
        }
        if (names_.size() != fabric_.adapters.size()) throw std::runtime_error("the plug-in does not list every adapter");

        // GetFCPTargetMapping: physical port 0 of the first adapter.
        handle_ = mirvak_OpenAdapter(names_.front().c_str());
        if (handle_ == 0xFFFFFFFFu) throw std::runtime_error("cannot open " + names_.front());
        std::memcpy(mapping_port_.wwn, fabric_.adapters.front().lnodes.front().port_wwn.data(), 8);
        const sim::LocalNode& first = fabric_.adapters.front().lnodes.front();
        std::size_t port_luns = 0;
        for (const auto& rn : first.rnodes) port_luns += rn.luns.size();
        // Room for every LUN of the port, whatever positions the entries take.
        mapping_.assign(sizeof(uint32_t) + sizeof(MV_FCPSCSIENTRYV2) * (port_luns + 1), 0);

        // GetLunInfo: the last target of the last physical port of the last adapter.
        const sim::Adapter& last = fabric_.adapters.back();
        const uint32_t port = size.params.ports - 1;
        const sim::LocalNode& ln = last.lnodes[port];
        std::memset(&lun_key_, 0, sizeof lun_key_);
        std::snprintf(lun_key_.adapter_name, sizeof lun_key_.adapter_name, "%s", names_.back().c_str());
        lun_key_.port_num = static_cast<uint16_t>(port);
        lun_key_.rport_index = static_cast<uint16_t>(ln.rnodes.size() - 1);
        std::memcpy(lun_key_.vport_wwpn, ln.port_wwn.data(), 8);
        std::memcpy(lun_key_.rport_wwpn, ln.rnodes.back().port_wwn.data(), 8);

        open_distribution_library(port_luns);
    }

    ~World() {
        if (distribution_handle_ != 0) HBA_CloseAdapter(distribution_handle_);
        if (front_loaded_) HBA_FreeLibrary();
        if (handle_ != 0xFFFFFFFFu) mirvak_CloseAdapter(handle_);
        facade_.reset();
        unsetenv(sim::kRootEnv);
        std::error_code ec;
        fs::remove_all(root_, ec);
    }

    MvFCoEIni& facade() { return *facade_; }
    HBA_HANDLE handle() const { return handle_; }
    const HBA_WWN& mapping_port() const { return mapping_port_; }
    void* mapping() { return mapping_.data(); }
    vport_in& lun_key() { return lun_key_; }
    // The distribution's library: the adapter whose port is the mapping's
    // port (0 when it is not listed; distribution_error() says why).
    HBA_HANDLE distribution_handle() const { return distribution_handle_; }
    const std::string& distribution_error() const { return distribution_error_; }
    HBA_FCPTARGETMAPPINGV2* distribution_mapping() {
        return reinterpret_cast<HBA_FCPTARGETMAPPINGV2*>(distribution_mapping_.data());
    }
    HBA_UINT32 distribution_room() const { return distribution_room_; }

private:
    // Registers the distribution's library alone in the tree's hba.conf,
    // loads it through the front library and opens the adapter of the
    // mapping's port.
    void open_distribution_library(std::size_t port_luns) {
        if (!fs::exists(MIRVAK_DISTRIBUTION_HBA_LIBRARY)) {
            distribution_error_ = std::string(MIRVAK_DISTRIBUTION_HBA_LIBRARY) + " is not installed";
            return;
        }
        std::ofstream(root_ + "/etc/hba.conf", std::ios::app)
            << "org.distribution.hbalinux\t" << MIRVAK_DISTRIBUTION_HBA_LIBRARY << "\n";
        if (HBA_LoadLibrary() != HBA_STATUS_OK) {
            distribution_error_ = "the front library did not load";
            return;
        }
        front_loaded_ = true;
        const HBA_UINT32 n = HBA_GetNumberOfAdapters();
        for (HBA_UINT32 i = 0; i < n && distribution_handle_ == 0; ++i) {
            char name[256] = {};
            if (HBA_GetAdapterName(i, name) != HBA_STATUS_OK) continue;
            const HBA_HANDLE h = HBA_OpenAdapter(name);
            if (h == 0) continue;
            HBA_PORTATTRIBUTES p;
            std::memset(&p, 0, sizeof p);
            if (HBA_GetAdapterPortAttributes(h, 0, &p) == HBA_STATUS_OK &&
                std::memcmp(p.PortWWN.wwn, mapping_port_.wwn, 8) == 0) {
                distribution_handle_ = h;
            } else {
                HBA_CloseAdapter(h);
            }
        }
        if (distribution_handle_ == 0) {
            distribution_error_ = "the distribution's library does not list the mapping's port";
            return;
        }
        distribution_room_ = static_cast<HBA_UINT32>(port_luns + 1);
        distribution_mapping_.assign(sizeof(HBA_FCPTARGETMAPPINGV2) + sizeof(HBA_FCPSCSIENTRYV2) * distribution_room_, 0);
    }

    sim::Fabric fabric_;
    std::string root_;
    std::unique_ptr<MvFCoEIni> facade_;
    std::vector<std::string> names_;
    HBA_HANDLE handle_ = 0xFFFFFFFFu;
    HBA_WWN mapping_port_{};
    std::vector<uint8_t> mapping_;
    vport_in lun_key_{};
    bool front_loaded_ = false;
    HBA_HANDLE distribution_handle_ = 0;
    std::string distribution_error_;
    std::vector<char> distribution_mapping_;
    HBA_UINT32 distribution_room_ = 0;
};

// The system of one size; building another removes the one before. Null,
// with the benchmark marked failed, when it cannot be built.
World* world(benchmark::State& st, std::size_t size) {
    static std::unique_ptr<World> current;
    static std::size_t current_size = static_cast<std::size_t>(-1);
    if (current_size != size) {
        current.reset();
        current_size = static_cast<std::size_t>(-1);
        try {
            current = std::make_unique<World>(kSizes[size]);
        } catch (const std::exception& e) {
            st.SkipWithError(e.what());
            return nullptr;
        }
        current_size = size;
    }
    return current.get();
}

// Standard output to /dev/null while the plug-in is timed.
class Quiet {
public:
    Quiet() {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            close(null);
        }
    }
    ~Quiet() {
        std::fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
    }

private:
    int saved_ = -1;
};

// Driver calls and redirected paths over the timed loop, per iteration.
class Tally {
public:
    Tally() {
        tusksim_reset_counts();
        mirvak_sim_reset_redirected();
        mirvak_simsg_reset();
    }
    void report(benchmark::State& st) const {
        const auto per_call = [&](double v) { return benchmark::Counter(v, benchmark::Counter::kAvgIterations); };
        st.counters["drv_calls"] = per_call(static_cast<double>(tusksim_call_total()));
        st.counters["files"] = per_call(static_cast<double>(mirvak_sim_redirected_files()));
        st.counters["dirs"] = per_call(static_cast<double>(mirvak_sim_redirected_dirs()));
        st.counters["lookups"] = per_call(static_cast<double>(mirvak_sim_redirected_lookups()));
        st.counters["sg_opens"] = per_call(static_cast<double>(mirvak_simsg_opens()));
    }
};

// The entries of a directory, "." and ".." left out; none when it cannot
// be opened.
std::vector<std::string> list_dir(const std::string& dir) {
    std::vector<std::string> out;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return out;
    while (const dirent* e = readdir(d))
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) out.emplace_back(e->d_name);
    closedir(d);
    return out;
}

void read_file(const std::string& path, std::size_t& bytes) {
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return;
    char buf[4096];
    ssize_t n = 0;
    while ((n = read(fd, buf, sizeof buf)) > 0) bytes += static_cast<std::size_t>(n);
    close(fd);
}

// What the plug-in's requests read of the tree, walked as they walk it and
// each directory listed and each file read once: /sys/class/fc_host, each
// hostH and its port_name, hostH/device, each rport-H:0-M and its
// fc_remote_ports:rport-H:0-M/port_name, each targetH:0:T, each LUN
// directory with a vendor file and its vendor, and each block:sdX/size.
// The older link names are followed as the plug-in follows them; the
// kernel's other views and attributes (statistics, scsi_host, generic and
// block classes, the PCI functions) are not read.
void read_as_requests(std::size_t& bytes) {
    const std::string classes = "/sys/class/fc_host";
    for (const std::string& h : list_dir(classes)) {
        if (h.find("host") == std::string::npos) continue;
        const std::string host = classes + "/" + h;
        list_dir(host);
        read_file(host + "/port_name", bytes);
        const std::string device = host + "/device";
        for (const std::string& r : list_dir(device)) {
            if (r.find("rport") == std::string::npos) continue;
            const std::string rport = device + "/" + r;
            read_file(rport + "/fc_remote_ports:" + r + "/port_name", bytes);
            for (const std::string& t : list_dir(rport)) {
                if (t.find("target") == std::string::npos) continue;
                const std::string target = rport + "/" + t;
                for (const std::string& l : list_dir(target)) {
                    const std::string lun = target + "/" + l;
                    if (access((lun + "/vendor").c_str(), F_OK) != 0) continue;
                    read_file(lun + "/vendor", bytes);
                    for (const std::string& b : list_dir(lun))
                        if (b.rfind("block:", 0) == 0) read_file(lun + "/" + b + "/size", bytes);
                }
            }
        }
    }
}

void BM_Floor(benchmark::State& st, std::size_t size) {
    if (world(st, size) == nullptr) return;
    std::size_t bytes = 0;
    Tally tally;
    for (auto _ : st) {
        read_as_requests(bytes);
        benchmark::DoNotOptimize(bytes);
    }
    tally.report(st);
}

void BM_GetFCoEAll(benchmark::State& st, std::size_t size) {
    World* const world_of_size = world(st, size);
    if (world_of_size == nullptr) return;
    World& w = *world_of_size;
    unsigned int length = 0;
    Tally tally;
    {
        Quiet quiet;
        for (auto _ : st) {
            void* snapshot = w.facade().GetFCoEAll(nullptr, &length);
            benchmark::DoNotOptimize(snapshot);
            if (snapshot == nullptr) {
                st.SkipWithError("GetFCoEAll returned no snapshot");
                break;
            }
            std::free(snapshot);
        }
    }
    tally.report(st);
    st.counters["bytes"] = static_cast<double>(length);
}

void BM_ExporterReading(benchmark::State& st, std::size_t size) {
    World* const world_of_size = world(st, size);
    if (world_of_size == nullptr) return;
    World& w = *world_of_size;
    std::size_t series = 0;
    Tally tally;
    {
        Quiet quiet;
        for (auto _ : st) {
            const mv::exporter::Reading r = mv::exporter::collect_system(w.facade(), mv::exporter::CollectOptions{});
            series = 0;
            for (const auto& f : r.families) series += f.metric.size();
            if (!r.success) {
                st.SkipWithError("the reading did not read every adapter");
                break;
            }
        }
    }
    tally.report(st);
    st.counters["series"] = static_cast<double>(series);
}

void BM_GetFCPTargetMapping(benchmark::State& st, std::size_t size) {
    World* const world_of_size = world(st, size);
    if (world_of_size == nullptr) return;
    World& w = *world_of_size;
    int status = 0;
    uint32_t entries = 0;
    Tally tally;
    {
        Quiet quiet;
        for (auto _ : st) {
            std::memset(w.mapping(), 0, sizeof(uint32_t));  // NumberOfEntries from 0
            status = GetFCPTargetMapping(w.handle(), w.mapping(), 1, w.mapping_port());
            if (status != 0) {
                st.SkipWithError(("GetFCPTargetMapping returned " + std::to_string(status)).c_str());
                break;
            }
        }
    }
    tally.report(st);
    std::memcpy(&entries, w.mapping(), sizeof entries);
    st.counters["entries"] = entries;
}

void BM_GetLunInfo(benchmark::State& st, std::size_t size) {
    World* const world_of_size = world(st, size);
    if (world_of_size == nullptr) return;
    World& w = *world_of_size;
    int status = FCOE_OK;
    unsigned int length = 0;
    Tally tally;
    {
        Quiet quiet;
        for (auto _ : st) {
            char* luns = nullptr;
            status = w.facade().GetLunInfo(&w.lun_key(), &luns, &length);
            std::free(luns);
            if (status != FCOE_OK) {
                st.SkipWithError(("GetLunInfo returned " + std::to_string(status)).c_str());
                break;
            }
        }
    }
    tally.report(st);
    st.counters["luns"] = static_cast<double>(length / sizeof(lun_info));
}

// One request for LockCost, made once; false when it failed.
bool snapshot_once(World& w) {
    unsigned int length = 0;
    void* snapshot = w.facade().GetFCoEAll(nullptr, &length);
    std::free(snapshot);
    return snapshot != nullptr;
}

bool mapping_once(World& w) {
    std::memset(w.mapping(), 0, sizeof(uint32_t));
    return GetFCPTargetMapping(w.handle(), w.mapping(), 1, w.mapping_port()) == 0;
}

bool lun_info_once(World& w) {
    char* luns = nullptr;
    unsigned int length = 0;
    const int status = w.facade().GetLunInfo(&w.lun_key(), &luns, &length);
    std::free(luns);
    return status == FCOE_OK;
}

double thread_cpu_ms() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

double wall_ms() {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The request with and without the library's lock, in turn within each
// iteration (the order swapped every time), so that whatever else the
// machine does falls on both alike.
void BM_LockCost(benchmark::State& st, std::size_t size, bool (*once)(World&)) {
    World* const world_of_size = world(st, size);
    if (world_of_size == nullptr) return;
    World& w = *world_of_size;
    double cpu[2] = {0, 0}, wall[2] = {0, 0};  // [0] without the lock, [1] with it
    bool locked_first = true;
    {
        Quiet quiet;
        // Once untimed first: the first request on a fresh tree pays for
        // the kernel's caches.
        if (!once(w)) {
            st.SkipWithError("the request failed");
            return;
        }
        for (auto _ : st) {
            for (int k = 0; k < 2; ++k) {
                const bool locked = (k == 0) == locked_first;
                mv::set_entry_lock_enabled_for_tests(locked);
                const double c0 = thread_cpu_ms(), w0 = wall_ms();
                const bool ok = once(w);
                cpu[locked] += thread_cpu_ms() - c0;
                wall[locked] += wall_ms() - w0;
                mv::set_entry_lock_enabled_for_tests(true);
                if (!ok) {
                    st.SkipWithError("the request failed");
                    return;
                }
            }
            locked_first = !locked_first;
        }
    }
    const double n = static_cast<double>(st.iterations());
    st.counters["locked_ms"] = cpu[1] / n;
    st.counters["unlocked_ms"] = cpu[0] / n;
    st.counters["locked_wall_ms"] = wall[1] / n;
    st.counters["unlocked_wall_ms"] = wall[0] / n;
    st.counters["cost_pct"] = cpu[0] > 0 ? (cpu[1] / cpu[0] - 1) * 100 : 0.0;
}

void BM_DistributionFCPTargetMapping(benchmark::State& st, std::size_t size) {
    World* const world_of_size = world(st, size);
    if (world_of_size == nullptr) return;
    World& w = *world_of_size;
    if (w.distribution_handle() == 0) {
        st.SkipWithError(w.distribution_error().c_str());
        return;
    }
    HBA_WWN port = w.mapping_port();
    Tally tally;
    {
        Quiet quiet;
        for (auto _ : st) {
            w.distribution_mapping()->NumberOfEntries = w.distribution_room();
            const HBA_STATUS status = HBA_GetFcpTargetMappingV2(w.distribution_handle(), port, w.distribution_mapping());
            if (status != HBA_STATUS_OK) {
                st.SkipWithError(("HBA_GetFcpTargetMappingV2 returned " + std::to_string(status)).c_str());
                break;
            }
        }
    }
    tally.report(st);
    st.counters["entries"] = w.distribution_mapping()->NumberOfEntries;
}

// The console output, then a summary of each shape measured in this run:
// GetFCoEAll against Floor in time and in files and directories opened per
// call, and, from one wide shape to the next (twice the local ports), how
// the snapshot's time grew.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal.
    SummaryReporter() : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_Defaults : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.error_occurred || r.run_type != Run::RT_Iteration) continue;
            const auto counter = [&](const char* name) {
                const auto it = r.counters.find(name);
                return it == r.counters.end() ? 0.0 : it->second.value;
            };
            // With repetitions, the least disturbed one counts (the machine
            // may be busy with other work).
            const auto [it, first] = measured_.try_emplace(r.run_name.function_name);
            Measured& m = it->second;
            m.ms = first ? r.GetAdjustedRealTime() : std::min(m.ms, r.GetAdjustedRealTime());
            m.cpu_ms = first ? r.GetAdjustedCPUTime() : std::min(m.cpu_ms, r.GetAdjustedCPUTime());
            m.opened = counter("files") + counter("dirs");
            if (r.run_name.function_name.rfind("LockCost/", 0) == 0) {
                LockCost& c = lock_costs_[r.run_name.function_name];
                c.locked = counter("locked_ms");
                c.unlocked = counter("unlocked_ms");
                c.locked_wall = counter("locked_wall_ms");
                c.unlocked_wall = counter("unlocked_wall_ms");
                c.iterations = r.iterations;
            }
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::FILE* out = stdout;
        std::fprintf(out,
                     "\nGetFCoEAll against Floor, measured in this run (wall time; CPU time in brackets; the\n"
                     "fastest repetition of each; opn: files and directories opened per call):\n");
        std::fprintf(out, "%-8s %6s %10s %10s %16s %9s %9s %7s %11s %11s\n", "shape", "local", "Floor ms",
                     "FCoEAll ms", "ratio", "Floor opn", "FCoE opn", "ratio", "Mapping ms", "LunInfo ms");
        const Measured* previous_wide = nullptr;
        std::string growth;
        for (const Size& size : kSizes) {
            const std::string n = size.name;
            const Measured* floor = find("Floor/" + n);
            const Measured* all = find("GetFCoEAll/" + n);
            if (floor == nullptr && all == nullptr) continue;
            const sim::ScaleCounts c = sim::scale_counts(size.params);
            const Measured none;
            const Measured& f = floor != nullptr ? *floor : none;
            const Measured& a = all != nullptr ? *all : none;
            const Measured* mapping = find("GetFCPTargetMapping/" + n);
            const Measured* lun_info = find("GetLunInfo/" + n);
            std::fprintf(out, "%-8s %6llu %10.1f %10.1f %6.2fx (%5.2fx) %9.0f %9.0f %6.2fx %11.2f %11.2f\n",
                         n.c_str(), static_cast<unsigned long long>(c.physical_ports + c.virtual_ports), f.ms, a.ms,
                         ratio(a.ms, f.ms), ratio(a.cpu_ms, f.cpu_ms), f.opened, a.opened, ratio(a.opened, f.opened),
                         mapping != nullptr ? mapping->ms : 0.0, lun_info != nullptr ? lun_info->ms : 0.0);
            if (n.rfind("wide", 0) == 0 && all != nullptr) {
                if (previous_wide != nullptr) {
                    char line[128];
                    std::snprintf(line, sizeof line, "  %-8s %5.2fx (%5.2fx)\n", n.c_str(),
                                  ratio(all->ms, previous_wide->ms), ratio(all->cpu_ms, previous_wide->cpu_ms));
                    growth += line;
                }
                previous_wide = all;
            }
        }
        if (!growth.empty())
            std::fprintf(out, "GetFCoEAll time against the wide shape before it (twice the local ports):\n%s",
                         growth.c_str());
        exporter_summary(out);
        std::string mappings;
        for (const Size& size : kSizes) {
            const std::string n = size.name;
            const Measured* ours = find("GetFCPTargetMapping/" + n);
            const Measured* theirs = find("DistributionFCPTargetMapping/" + n);
            if (ours == nullptr || theirs == nullptr) continue;
            char line[160];
            std::snprintf(line, sizeof line, "%-8s %10.2f %10.2f %7.2fx (%5.2fx) %9.0f %9.0f\n", n.c_str(), ours->ms,
                          theirs->ms, ratio(theirs->ms, ours->ms), ratio(theirs->cpu_ms, ours->cpu_ms), ours->opened,
                          theirs->opened);
            mappings += line;
        }
        if (!mappings.empty())
            std::fprintf(out,
                         "\nFCP target mapping, version 2, of the same port: the distribution's sysfs library\n"
                         "(through the front library) against ours, measured in this run (wall; CPU in brackets):\n"
                         "%-8s %10s %10s %16s %9s %9s\n%s",
                         "shape", "ours ms", "distr. ms", "distr./ours", "ours opn", "distr opn", mappings.c_str());
        print_lock_costs(out);
    }

private:
    // What the lock adds to each request, measured in this run.
    void print_lock_costs(std::FILE* out) const {
        if (lock_costs_.empty()) return;
        std::fprintf(out,
                     "\nThe library's lock: each request with and without it, in turn, in this run (CPU ms per\n"
                     "call; wall ms in brackets; cost: what the lock adds, in CPU time):\n"
                     "%-36s %6s %20s %20s %8s\n",
                     "request", "iter", "locked ms", "unlocked ms", "cost");
        for (const Size& size : kSizes) {
            for (const char* request : {"GetFCoEAll", "GetFCPTargetMapping", "GetLunInfo"}) {
                const auto it = lock_costs_.find(std::string("LockCost/") + request + "/" + size.name);
                if (it == lock_costs_.end()) continue;
                const LockCost& c = it->second;
                std::fprintf(out, "%-36s %6lld %9.3f (%8.3f) %9.3f (%8.3f) %+7.2f%%\n", it->first.c_str() + 9,
                             static_cast<long long>(c.iterations), c.locked, c.locked_wall, c.unlocked,
                             c.unlocked_wall, c.unlocked > 0 ? (c.locked / c.unlocked - 1) * 100 : 0.0);
            }
        }
    }
    struct LockCost {
        double locked = 0, unlocked = 0, locked_wall = 0, unlocked_wall = 0;
        int64_t iterations = 0;
    };
    std::map<std::string, LockCost> lock_costs_;

    // The exporter's reading against the snapshot alone, per fabric.
    void exporter_summary(std::FILE* out) const {
        std::string lines;
        for (const Size& size : kSizes) {
            const std::string n = size.name;
            const Measured* all = find("GetFCoEAll/" + n);
            const Measured* reading = find("ExporterReading/" + n);
            if (all == nullptr || reading == nullptr) continue;
            const sim::ScaleCounts c = sim::scale_counts(size.params);
            char line[160];
            std::snprintf(line, sizeof line, "%-8s %6llu %10.1f %10.1f %6.2fx (%5.2fx) %9.0f %9.0f\n", n.c_str(),
                          static_cast<unsigned long long>(c.physical_ports + c.virtual_ports), all->ms, reading->ms,
                          ratio(reading->ms, all->ms), ratio(reading->cpu_ms, all->cpu_ms), all->opened,
                          reading->opened);
            lines += line;
        }
        if (lines.empty()) return;
        std::fprintf(out,
                     "\nThe exporter's reading against GetFCoEAll, measured in this run (wall; CPU in brackets):\n"
                     "%-8s %6s %10s %10s %16s %9s %9s\n%s",
                     "shape", "local", "FCoEAll ms", "reading ms", "ratio", "FCoE opn", "read opn", lines.c_str());
    }

    struct Measured {
        double ms = 0;
        double cpu_ms = 0;
        double opened = 0;
    };
    static double ratio(double a, double b) { return b > 0 ? a / b : 0.0; }
    const Measured* find(const std::string& name) const {
        const auto it = measured_.find(name);
        return it == measured_.end() ? nullptr : &it->second;
    }
    std::map<std::string, Measured> measured_;
};

}  // namespace

int main(int argc, char** argv) {
    for (std::size_t s = 0; s < std::size(kSizes); ++s) {
        const std::string n = kSizes[s].name;
        const sim::ScaleCounts c = sim::scale_counts(kSizes[s].params);
        benchmark::AddCustomContext(
            "fabric " + n, std::to_string(kSizes[s].params.adapters) + " adapters x " +
                               std::to_string(kSizes[s].params.ports) + " ports x " +
                               std::to_string(kSizes[s].params.vports) + " virtual ports x " +
                               std::to_string(kSizes[s].params.targets) + " targets x " +
                               std::to_string(kSizes[s].params.luns) + " LUNs = " +
                               std::to_string(c.physical_ports + c.virtual_ports) + " local ports, " +
                               std::to_string(c.targets) + " targets, " + std::to_string(c.luns) + " LUNs");
        benchmark::RegisterBenchmark(("Floor/" + n).c_str(), BM_Floor, s)->Unit(benchmark::kMillisecond)->UseRealTime();
        benchmark::RegisterBenchmark(("GetFCoEAll/" + n).c_str(), BM_GetFCoEAll, s)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("ExporterReading/" + n).c_str(), BM_ExporterReading, s)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("GetFCPTargetMapping/" + n).c_str(), BM_GetFCPTargetMapping, s)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("GetLunInfo/" + n).c_str(), BM_GetLunInfo, s)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("DistributionFCPTargetMapping/" + n).c_str(), BM_DistributionFCPTargetMapping, s)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        const std::pair<const char*, bool (*)(World&)> lock_costs[] = {
            {"GetFCoEAll", snapshot_once}, {"GetFCPTargetMapping", mapping_once}, {"GetLunInfo", lun_info_once}};
        for (const auto& [request, once] : lock_costs) {
            auto* b = benchmark::RegisterBenchmark(("LockCost/" + std::string(request) + "/" + n).c_str(), BM_LockCost,
                                                   s, once);
            b->Unit(benchmark::kMillisecond)->UseRealTime();
            // The snapshot of the systems with over a hundred local ports
            // takes seconds: four rounds, each order twice.
            if (once == snapshot_once && c.physical_ports + c.virtual_ports > 100) b->Iterations(4);
            else b->MinTime(2.0);
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::AddCustomContext("simulated host", "trees under " + bench_parent());
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
