// Several threads of one management agent calling the plug-in at once: through
// Debian's front library (which serialises nothing) and through the facade,
// on the default simulated system. Every request is first made alone, one
// after the other, and its answer kept (status, every byte of the caller's
// buffers, written or not) with the lines it printed; then 7 threads make the
// same requests in a mix for a bounded time, one of them listing the adapters
// again and again, and each answer must be the one made alone. The lines
// printed meanwhile must each be a whole line some request printed alone.
//
// MIRVAK_STRESS_SECONDS sets how long the mixed run lasts (default 3); each
// thread makes at least one round of its requests whatever the time.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <hbaapi.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "facade_keys.h"
#include "mirvak/fcp_mapping.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/mgmt_records.h"
#include "mirvak/mv_fcoe_ini.h"
#include "sim_env.h"

namespace {

constexpr int kThreads = 7;
// The block an agent hands to GetRemotePortInfo.
constexpr std::size_t kAgentBlock = 0x40000;
// Bytes of a caller's buffer that no request of the default system fills:
// they must come back as they were.
constexpr uint8_t kPattern = 0xA5;

double StressSeconds() {
    const char* s = std::getenv("MIRVAK_STRESS_SECONDS");
    const double v = s != nullptr ? std::atof(s) : 0.0;
    return v > 0 ? v : 3.0;
}

// An answer as bytes: the status, then each buffer whole.
class Answer {
public:
    Answer& put(uint64_t v) {
        bytes_.append(reinterpret_cast<const char*>(&v), sizeof v);
        return *this;
    }
    Answer& put(const void* p, std::size_t n) {
        put(static_cast<uint64_t>(n));
        bytes_.append(static_cast<const char*>(p), n);
        return *this;
    }
    std::string take() { return std::move(bytes_); }

private:
    std::string bytes_;
};

// One request and the answers it gave alone: with the instance map loaded
// and after it was released.
struct Request {
    std::string name;
    std::function<std::string()> run;
    bool lists_adapters = false;  // asks the front library to list them (not while the map is released)
    std::string loaded, released;
    std::string printed;  // what it printed alone
};

// Standard output into a file while the threads run; the whole lines it got.
class OutputToFile {
public:
    OutputToFile() {
        char tmpl[] = "/tmp/mirvak-stress-out-XXXXXX";
        const int fd = mkstemp(tmpl);
        path_ = tmpl;
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
    ~OutputToFile() { restore(); std::remove(path_.c_str()); }
    std::string restore() {
        if (saved_ >= 0) {
            std::fflush(stdout);
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
            saved_ = -1;
        }
        std::ifstream in(path_, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

private:
    std::string path_;
    int saved_ = -1;
};

std::string WwnText(const HBA_WWN& w) {
    char text[17];
    for (int i = 0; i < 8; ++i) std::snprintf(text + 2 * i, 3, "%02x", w.wwn[i]);
    return text;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

class ConcurrentCallers : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        RegisterPlugin(MIRVAK_PLUGIN_PATH);
        UseDefaultFabric();
        ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
        fcoe_ = std::make_unique<MvFCoEIni>();
        ASSERT_NO_FATAL_FAILURE(MakeRequests());
        ASSERT_GE(requests_.size(), 12u);
        RecordAlone();
    }
    void TearDown() override {
        fcoe_.reset();
        HBA_FreeLibrary();
        SimTest::TearDown();
    }

    void Add(std::string name, std::function<std::string()> run, bool lists_adapters = false) {
        Request r;
        r.name = std::move(name);
        r.run = std::move(run);
        r.lists_adapters = lists_adapters;
        requests_.push_back(std::move(r));
    }
    void MakeRequests();
    void AddAdapterRequests(const std::string& name);
    void AddFacadeRemotePorts(const std::string& name, HBA_UINT32 port);
    void AddFacadeLuns(const std::string& name, HBA_UINT32 port, const HBA_WWN& wwpn, const HBA_WWN& target);
    void RecordAlone();
    // Runs kThreads threads: thread 0 runs `first` again and again, the
    // others the requests in turn (each from its own place in the list),
    // each answer checked against the one made alone (either one made alone
    // with either_state). The requests that differed go to failures_; a
    // printed line that no request printed alone fails the test.
    void RunMixed(const std::function<void()>& first, bool either_state);

    std::unique_ptr<MvFCoEIni> fcoe_;
    std::vector<Request> requests_;
    std::vector<std::string> names_;
    std::set<std::string> lines_alone_;
    std::atomic<uint64_t> calls_{0};
    std::mutex failures_mutex_;
    std::vector<std::string> failures_;
};

// The adapter's attributes and its ports' through the front library; its
// discovered ports, FCP target mapping and SCSI commands through the
// plug-in's own entry points (the front library's table order puts other
// functions in those slots of the plug-in's table, so an agent calls them by
// name beside it).
void ConcurrentCallers::AddAdapterRequests(const std::string& n) {
    Add("front library: adapter attributes " + n, [n] {
        Answer a;
        const HBA_HANDLE h = HBA_OpenAdapter(const_cast<char*>(n.c_str()));
        HBA_ADAPTERATTRIBUTES attr;
        std::memset(&attr, kPattern, sizeof attr);
        a.put(h != 0).put(HBA_GetAdapterAttributes(h, &attr)).put(&attr, sizeof attr);
        HBA_CloseAdapter(h);
        return a.take();
    });
    const HBA_HANDLE h = mirvak_OpenAdapter(n.c_str());
    ASSERT_NE(h, 0xFFFFFFFFu) << n;
    HBA_ADAPTERATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);
    ASSERT_EQ(mirvak_GetAdapterAttributes(h, &attr), HBA_STATUS_OK);
    for (HBA_UINT32 p = 0; p < attr.NumberOfPorts; ++p) {
        HBA_PORTATTRIBUTES port;
        std::memset(&port, 0, sizeof port);
        ASSERT_EQ(mirvak_GetAdapterPortAttributes(h, p, &port), HBA_STATUS_OK);
        const std::string where = n + " port " + std::to_string(p);
        Add("front library: port attributes " + where, [n, p] {
            Answer a;
            const HBA_HANDLE h = HBA_OpenAdapter(const_cast<char*>(n.c_str()));
            HBA_PORTATTRIBUTES attr;
            std::memset(&attr, kPattern, sizeof attr);
            a.put(h != 0).put(HBA_GetAdapterPortAttributes(h, p, &attr)).put(&attr, sizeof attr);
            HBA_CloseAdapter(h);
            return a.take();
        });
        Add("discovered ports " + where, [n, p] {
            Answer a;
            const HBA_HANDLE h = mirvak_OpenAdapter(n.c_str());
            // One past the last too: its failure is an answer.
            for (HBA_UINT32 d = 0; d <= 16; ++d) {
                HBA_PORTATTRIBUTES found;
                std::memset(&found, kPattern, sizeof found);
                const HBA_STATUS st = mirvak_GetDiscoveredPortAttributes(h, p, d, &found);
                a.put(st).put(&found, sizeof found);
                if (st != HBA_STATUS_OK) break;
            }
            mirvak_CloseAdapter(h);
            return a.take();
        });
        AddFacadeRemotePorts(n, p);
        for (HBA_UINT32 d = 0; d < port.NumberofDiscoveredPorts && d < 2; ++d) {
            HBA_PORTATTRIBUTES target;
            std::memset(&target, 0, sizeof target);
            if (mirvak_GetDiscoveredPortAttributes(h, p, d, &target) != HBA_STATUS_OK) continue;
            AddFacadeLuns(n, p, port.PortWWN, target.PortWWN);
        }
        // SCSI commands to LUNs 0 and 1 behind the port, where there is such a LUN.
        for (const HBA_UINT64 lun : {0x0ull, 0x0001000000000000ull}) {
            const HBA_WWN wwn = port.PortWWN;
            uint8_t rsp[96], sense[32];
            HBA_STATUS found = HBA_STATUS_ERROR;
            testenv::CaptureErr([&] { found = mirvak_SendScsiInquiry(h, wwn, lun, 0, 0, rsp, 96, sense, 32); });
            if (found != HBA_STATUS_OK) continue;
            Add("SCSI commands " + where + " LUN " + std::to_string(lun >> 48), [n, wwn, lun] {
                Answer a;
                const HBA_HANDLE h = mirvak_OpenAdapter(n.c_str());
                uint8_t rsp[256], sense[64];
                std::memset(rsp, kPattern, sizeof rsp);
                std::memset(sense, kPattern, sizeof sense);
                a.put(mirvak_SendScsiInquiry(h, wwn, lun, 0, 0, rsp, 96, sense, sizeof sense)).put(rsp, sizeof rsp);
                a.put(sense, sizeof sense);
                std::memset(rsp, kPattern, sizeof rsp);
                a.put(mirvak_SendReportLUNs(h, wwn, rsp, sizeof rsp, sense, sizeof sense)).put(rsp, sizeof rsp);
                std::memset(rsp, kPattern, sizeof rsp);
                a.put(mirvak_SendReadCapacity(h, wwn, lun, rsp, 32, sense, sizeof sense)).put(rsp, sizeof rsp);
                mirvak_CloseAdapter(h);
                return a.take();
            });
        }
    }
    mirvak_CloseAdapter(h);
    Add("target mapping " + n, [n] {
        Answer a;
        const HBA_HANDLE h = mirvak_OpenAdapter(n.c_str());
        constexpr std::size_t kRoom = 64;
        std::vector<uint8_t> buf(sizeof(MV_FCPTARGETMAPPING) + kRoom * sizeof(MV_FCPSCSIENTRY), kPattern);
        auto* map = reinterpret_cast<MV_FCPTARGETMAPPING*>(buf.data());
        map->NumberOfEntries = 0;
        a.put(mirvak_GetFCPTargetMappingv1(h, map)).put(buf.data(), buf.size());
        mirvak_CloseAdapter(h);
        return a.take();
    });
}

void ConcurrentCallers::AddFacadeRemotePorts(const std::string& name, HBA_UINT32 port) {
    MvFCoEIni* f = fcoe_.get();
    const std::string where = name + " port " + std::to_string(port);
    const port_info by_number = testenv::PortKey(name.c_str(), port);
    Add("facade remote ports " + where, [f, by_number] {
        Answer a;
        port_info key = by_number;
        char* block = static_cast<char*>(std::malloc(kAgentBlock));
        std::memset(block, kPattern, kAgentBlock);
        unsigned int size = 0xFFFFFFFFu;
        char* const given = block;
        a.put(static_cast<uint32_t>(f->GetRemotePortInfo(&key, &block, &size))).put(size).put(block == given);
        a.put(block, kAgentBlock);
        std::free(block);
        return a.take();
    });
}

void ConcurrentCallers::AddFacadeLuns(const std::string& name, HBA_UINT32 port, const HBA_WWN& wwpn,
                                      const HBA_WWN& target) {
    MvFCoEIni* f = fcoe_.get();
    const std::string where = name + " port " + std::to_string(port) + " target " + WwnText(target);
    const vport_in lun_key = testenv::VKey(name.c_str(), static_cast<uint16_t>(port), 0, 0, wwpn.wwn, target.wwn);
    Add("facade LUNs " + where, [f, lun_key] {
        Answer a;
        vport_in key = lun_key;
        char* luns = nullptr;
        unsigned int size = 0xFFFFFFFFu;
        a.put(static_cast<uint32_t>(f->GetLunInfo(&key, &luns, &size))).put(size);
        if (luns != nullptr) a.put(luns, size);
        std::free(luns);
        return a.take();
    });
}

void ConcurrentCallers::MakeRequests() {
    const HBA_UINT32 n = HBA_GetNumberOfAdapters();
    ASSERT_EQ(n, 2u);
    for (HBA_UINT32 i = 0; i < n; ++i) {
        char name[256] = {};
        ASSERT_EQ(HBA_GetAdapterName(i, name), HBA_STATUS_OK);
        names_.emplace_back(name);
    }
    const auto list = [] {
        Answer a;
        const HBA_UINT32 count = HBA_GetNumberOfAdapters();
        a.put(count);
        for (HBA_UINT32 i = 0; i < count + 1; ++i) {
            char name[256];
            std::memset(name, kPattern, sizeof name);
            a.put(HBA_GetAdapterName(i, name)).put(name, sizeof name);
        }
        return a.take();
    };
    Add("front library lists the adapters", list, true);
    for (HBA_UINT32 i = 0; i <= n; ++i) {
        Add("adapter name " + std::to_string(i), [i] {
            Answer a;
            char name[256];
            std::memset(name, kPattern, sizeof name);
            a.put(mirvak_GetAdapterName(i, name)).put(name, sizeof name);
            return a.take();
        });
    }
    for (HBA_UINT32 i = 0; i < n; ++i) ASSERT_NO_FATAL_FAILURE(AddAdapterRequests(names_[i]));
    MvFCoEIni* f = fcoe_.get();
    Add("facade snapshot", [f] {
        Answer a;
        unsigned int size = 0xFFFFFFFFu;
        void* snapshot = f->GetFCoEAll(nullptr, &size);
        a.put(snapshot != nullptr).put(size);
        if (snapshot != nullptr) a.put(snapshot, size);
        std::free(snapshot);
        return a.take();
    });
    Add("facade adapters", [f] {
        Answer a;
        std::vector<uint8_t> buf(8 * sizeof(adapter_info), kPattern);
        unsigned int size = 0xFFFFFFFFu;
        a.put(static_cast<uint32_t>(f->GetFCoEAdapters(buf.data(), &size))).put(size).put(buf.data(), buf.size());
        return a.take();
    });
}

void ConcurrentCallers::RecordAlone() {
    for (Request& r : requests_) {
        r.printed = testenv::CaptureOut([&] { r.loaded = r.run(); });
        // Made twice alone: a request whose answer changes from one call to
        // the next could not be compared.
        std::string again;
        testenv::CaptureOut([&] { again = r.run(); });
        ASSERT_EQ(again, r.loaded) << r.name << " answers differently when repeated alone";
        for (const std::string& line : Lines(r.printed)) lines_alone_.insert(line);
    }
    // With the instance map released (as after a facade's destruction), then
    // loaded again.
    ASSERT_EQ(mirvak_FreeLibrary(), HBA_STATUS_OK);
    for (Request& r : requests_) {
        if (r.lists_adapters) continue;
        const std::string printed = testenv::CaptureOut([&] { r.released = r.run(); });
        for (const std::string& line : Lines(printed)) lines_alone_.insert(line);
    }
    ASSERT_EQ(mirvak_LoadLibrary(), HBA_STATUS_OK);
}

void ConcurrentCallers::RunMixed(const std::function<void()>& first, bool either_state) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(StressSeconds());
    std::atomic<int> busy{kThreads - 1};
    OutputToFile output;
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        // At least once, then until the others are done.
        do first(); while (busy.load() > 0);
    });
    for (int t = 1; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::size_t done = 0;
            for (std::size_t i = static_cast<std::size_t>(t) * 5;; ++i, ++done) {
                if (done >= requests_.size() && std::chrono::steady_clock::now() >= deadline) break;
                const Request& r = requests_[i % requests_.size()];
                if (either_state && r.lists_adapters) continue;
                const std::string got = r.run();
                calls_.fetch_add(1);
                if (got == r.loaded || (either_state && got == r.released)) continue;
                std::lock_guard<std::mutex> lock(failures_mutex_);
                failures_.push_back(r.name);
            }
            busy.fetch_sub(1);
        });
    }
    for (std::thread& t : threads) t.join();
    const std::string printed = output.restore();
    std::size_t strange = 0;
    for (const std::string& line : Lines(printed)) {
        if (lines_alone_.count(line) != 0) continue;
        if (++strange <= 5) ADD_FAILURE() << "a line no request prints alone: \"" << line << "\"";
    }
    EXPECT_EQ(strange, 0u);
}

TEST_F(ConcurrentCallers, EveryAnswerIsTheOneMadeAlone) {
    std::atomic<uint64_t> listings{0};
    const Request& list = requests_.front();
    ASSERT_TRUE(list.lists_adapters);
    RunMixed(
        [&] {
            if (list.run() != list.loaded) {
                std::lock_guard<std::mutex> lock(failures_mutex_);
                failures_.push_back(list.name);
            }
            listings.fetch_add(1);
        },
        false);
    EXPECT_GE(listings.load(), 1u);
    EXPECT_GE(calls_.load(), (kThreads - 1) * requests_.size());
    EXPECT_TRUE(failures_.empty()) << failures_.size() << " answers differed, the first from: " << failures_.front();
}

// Facade objects made and destroyed on one thread (each construction loads
// the instance map anew, each destruction releases it) while the others
// call: each answer is the one made alone with the map loaded or the one
// made alone with it released, never anything read from freed memory.
TEST_F(ConcurrentCallers, ReloadsAndReleasesNeverShowAnotherAnswer) {
    std::atomic<uint64_t> lifetimes{0};
    RunMixed(
        [&] {
            { MvFCoEIni another; }
            lifetimes.fetch_add(1);
        },
        true);
    EXPECT_GE(lifetimes.load(), 1u);
    EXPECT_TRUE(failures_.empty()) << failures_.size() << " answers differed, the first from: " << failures_.front();
}

}  // namespace
