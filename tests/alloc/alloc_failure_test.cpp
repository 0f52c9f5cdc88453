// Allocation failures: every request of the standard face, the extended
// interface and the facade, run again and again on the default fabric with
// the n-th allocation of the request failing (n = 1, 2, ...), until a run
// makes fewer than n allocations. Each run must end with the request's
// answer or its documented failure, without a crash and without an
// exception leaving the library; under the sanitizer build the leak check at
// exit sees every block freed.
//
// The hook: this program holds the plug-in's own code, linked with
// --wrap=malloc,--wrap=calloc,--wrap=realloc, so that every C allocation of
// the plug-in (and of the path redirector) passes through the wrappers
// below; and it replaces the global operator new and new[] (plain and
// nothrow), so that every C++ allocation does too. Armed, they count both
// kinds together and fail the chosen one: null from the C functions and the
// nothrow forms, std::bad_alloc from the others. The simulated SCSI devices
// and the simulated driver library answer the plug-in with allocations of
// their own; those are not counted (they are not the plug-in). The plug-in
// itself exports nothing more.
#include <gtest/gtest.h>
#include <time.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "facade_keys.h"
#include "mirvak/fcp_mapping.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/host_view.h"
#include "mirvak/mgmt.h"
#include "mirvak/mv_fcoe_ini.h"
#include "mirvak/port_helpers.h"
#include "sim_env.h"

extern "C" {
void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void* __real_realloc(void*, std::size_t);
}

// The simulated SCSI devices' answers (sim/host/sg_device.h), under their
// link names: wrapped too (-Wl,--wrap), see unarmed() below.
extern "C" {
bool __real__ZN3sim2sg11open_deviceEPKciPi(const char* path, int flags, int* result);
bool __real__ZN3sim2sg12device_ioctlEimPvPi(int fd, unsigned long request, void* arg, int* result);
}

namespace {
bool g_armed = false;
uint64_t g_count = 0;
uint64_t g_fail_at = 0;
bool g_failed = false;
uint64_t g_sleeps = 0;

bool fail_now() {
    if (!g_armed) return false;
    if (++g_count != g_fail_at) return false;
    g_failed = true;
    return true;
}

// Runs f with the hook disarmed: allocations made on the simulated host's
// side of a call are not the plug-in's.
template <class F>
auto unarmed(F f) {
    const bool armed = g_armed;
    g_armed = false;
    auto r = f();
    g_armed = armed;
    return r;
}

void* new_or_null(std::size_t n) {
    if (fail_now()) return nullptr;
    return __real_malloc(n == 0 ? 1 : n);
}

void* new_or_throw(std::size_t n) {
    void* p = new_or_null(n);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
}  // namespace

// The global allocation functions of this program (the plug-in's code is
// part of it): the n-th call fails while armed. Every form of delete is
// replaced with them, so that blocks go back the way they came.
void* operator new(std::size_t n) { return new_or_throw(n); }
void* operator new[](std::size_t n) { return new_or_throw(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return new_or_null(n); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return new_or_null(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

extern "C" {
void* __wrap_malloc(std::size_t n) { return fail_now() ? nullptr : __real_malloc(n); }
void* __wrap_calloc(std::size_t k, std::size_t n) { return fail_now() ? nullptr : __real_calloc(k, n); }
void* __wrap_realloc(void* p, std::size_t n) { return fail_now() ? nullptr : __real_realloc(p, n); }

// The snapshot's deliberate pause for ports with many remote ports: counted
// here and not waited for, so that the walk's hundreds of snapshots stay
// affordable. The plug-in's code is unchanged.
int nanosleep(const struct timespec*, struct timespec* rem) {
    ++g_sleeps;
    if (rem != nullptr) rem->tv_sec = rem->tv_nsec = 0;
    return 0;
}

// The simulated driver library answers from a fabric it reads with
// allocations of its own: its twelve operations run unarmed (wrapped too).
#define MIRVAK_UNARMED_DRIVER_CALL(ret, name, params, args)                  \
    ret __real_##name params;                                               \
    ret __wrap_##name params { return unarmed([&] { return __real_##name args; }); }
MIRVAK_UNARMED_DRIVER_CALL(uint32_t, open_adapter, (uint32_t i), (i))
MIRVAK_UNARMED_DRIVER_CALL(uint32_t, open_adapter_str, (const char* p), (p))
MIRVAK_UNARMED_DRIVER_CALL(int, close_adapter, (uint32_t h), (h))
MIRVAK_UNARMED_DRIVER_CALL(int, tusk_probe_adapter, (uint32_t h), (h))
MIRVAK_UNARMED_DRIVER_CALL(int, tusk_get_hw_info, (uint32_t h, void* a), (h, a))
MIRVAK_UNARMED_DRIVER_CALL(int, tusk_get_lnode_info, (uint32_t h, void* a, uint64_t c), (h, a, c))
MIRVAK_UNARMED_DRIVER_CALL(int, tusk_get_lnode_info_by_fcid, (uint32_t h, void* a, int how), (h, a, how))
MIRVAK_UNARMED_DRIVER_CALL(int, tusk_get_rnode_info, (uint32_t h, void* a, uint32_t c, uint32_t l), (h, a, c, l))
MIRVAK_UNARMED_DRIVER_CALL(int, tusk_get_fcf_info, (uint32_t h, void* a, uint32_t c), (h, a, c))
MIRVAK_UNARMED_DRIVER_CALL(int, tusk_list_npiv_port, (uint32_t h, void* a, uint32_t n), (h, a, n))
MIRVAK_UNARMED_DRIVER_CALL(int, tusk_create_npiv_port, (uint32_t h, void* a), (h, a))
MIRVAK_UNARMED_DRIVER_CALL(int, tusk_delete_npiv_port, (uint32_t h, void* a), (h, a))
#undef MIRVAK_UNARMED_DRIVER_CALL

bool __wrap__ZN3sim2sg11open_deviceEPKciPi(const char* path, int flags, int* result) {
    return unarmed([&] { return __real__ZN3sim2sg11open_deviceEPKciPi(path, flags, result); });
}
bool __wrap__ZN3sim2sg12device_ioctlEimPvPi(int fd, unsigned long request, void* arg, int* result) {
    return unarmed([&] { return __real__ZN3sim2sg12device_ioctlEimPvPi(fd, request, arg, result); });
}
}

namespace {

using testenv::PortKey;
using testenv::VKey;

constexpr const char* kAdapter = "/dev/tuskstor1";  // the default fabric's first adapter
constexpr uint8_t kPort0[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x00};
constexpr uint8_t kPort1[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};
constexpr uint8_t kVport[8] = {0x28, 0x01, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};
constexpr uint8_t kTarget0[8] = {0x50, 0x0a, 0x09, 0x80, 0x00, 0xa1, 0x00, 0x01};
constexpr uint8_t kVTarget[8] = {0x50, 0x06, 0x01, 0x60, 0x00, 0xa1, 0x02, 0x01};
// The largest number of allocations one request is walked through, and the
// time the whole walk may take: the walk stops early rather than make the
// sanitizer suite slow (the count reached is printed).
constexpr uint64_t kMaxFailures = 4000;
constexpr auto kBudget = std::chrono::seconds(60);

// One request: returns its result code (or 0 / 1 for a pointer answer),
// releasing whatever it allocated.
struct Case {
    const char* name;
    std::function<long()> run;
    std::set<long> failures;  // the documented results of an allocation failure
};

HBA_HANDLE open0() { return mirvak_OpenAdapter(kAdapter); }

template <class F>
long with_adapter(F f) {
    const HBA_HANDLE h = open0();
    const long r = f(h);
    mirvak_CloseAdapter(h);
    return r;
}

std::vector<Case> cases() {
    std::vector<Case> c;
    const std::set<long> none;
    // ---- standard face ----
    c.push_back({"LoadLibrary", [] { return long(mirvak_LoadLibrary()); }, {HBA_STATUS_ERROR}});
    c.push_back({"GetAdapterAttributes", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         HBA_ADAPTERATTRIBUTES a;
                         return long(mirvak_GetAdapterAttributes(h, &a));
                     });
                 }, none});
    c.push_back({"GetAdapterPortAttributes", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         HBA_PORTATTRIBUTES a;
                         return long(mirvak_GetAdapterPortAttributes(h, 0, &a));
                     });
                 }, none});
    c.push_back({"GetAllAdapterPortsAttributes", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         HBA_PORTATTRIBUTES a[4];
                         return long(mirvak_GetAllAdapterPortsAttributes(h, a, 4));
                     });
                 }, none});
    c.push_back({"GetPortStatistics", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         HBA_PORTSTATISTICS s;
                         return long(mirvak_GetPortStatistics(h, 0, &s));
                     });
                 }, none});
    c.push_back({"GetDiscoveredPortAttributes", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         HBA_PORTATTRIBUTES a;
                         return long(mirvak_GetDiscoveredPortAttributes(h, 0, 0, &a));
                     });
                 }, none});
    c.push_back({"GetPortAttributesByWWN", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         HBA_PORTATTRIBUTES a;
                         HBA_WWN w;
                         std::memcpy(w.wwn, kTarget0, 8);
                         return long(mirvak_GetPortAttributesByWWN(h, w, &a));
                     });
                 }, none});
    c.push_back({"GetFCPTargetMappingv1", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         static std::vector<unsigned char> m(4 + 64 * sizeof(MV_FCPSCSIENTRY));  // made unarmed
                         const uint32_t n = 64;
                         std::memcpy(m.data(), &n, 4);
                         return long(mirvak_GetFCPTargetMappingv1(h, reinterpret_cast<MV_FCPTARGETMAPPING*>(m.data())));
                     });
                 }, {1}});
    c.push_back({"GetFCPTargetMappingv2", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         static std::vector<unsigned char> m(4 + 64 * sizeof(MV_FCPSCSIENTRYV2));  // made unarmed
                         const uint32_t n = 64;
                         std::memcpy(m.data(), &n, 4);
                         HBA_WWN w;
                         std::memcpy(w.wwn, kPort0, 8);
                         return long(mirvak_GetFCPTargetMappingv2(h, w, reinterpret_cast<MV_FCPTARGETMAPPINGV2*>(m.data())));
                     });
                 }, {1}});
    c.push_back({"SendScsiInquiry", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         unsigned char rsp[96], sense[32];
                         HBA_WWN w;
                         std::memcpy(w.wwn, kPort0, 8);
                         return long(mirvak_SendScsiInquiry(h, w, 0, 0, 0, rsp, sizeof rsp, sense, sizeof sense));
                     });
                 }, {1, 14, long(0xFFFFFFFFu)}});
    c.push_back({"SendReportLUNs", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         unsigned char rsp[1024], sense[32];
                         HBA_WWN w;
                         std::memcpy(w.wwn, kPort0, 8);
                         return long(mirvak_SendReportLUNs(h, w, rsp, sizeof rsp, sense, sizeof sense));
                     });
                 }, {1, 14, long(0xFFFFFFFFu)}});
    c.push_back({"SendReadCapacity", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         unsigned char rsp[32], sense[32];
                         HBA_WWN w;
                         std::memcpy(w.wwn, kPort0, 8);
                         return long(mirvak_SendReadCapacity(h, w, 0, rsp, sizeof rsp, sense, sizeof sense));
                     });
                 }, {1, 14, long(0xFFFFFFFFu)}});
    // ---- extended interface ----
    c.push_back({"GetKXAdapterPortAttributes", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         port_info p{};
                         return long(mirvak_GetKXAdapterPortAttributes(h, 0, &p));
                     });
                 }, none});
    c.push_back({"get_path_for_KXpwwn", [] {
                     char out[256];
                     return long(get_path_for_KXpwwn(kPort0, out));
                 }, {long(0xFFFFFFFFu)}});
    c.push_back({"GetKXPortStatistics", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         port_info k = PortKey(kAdapter, 0, kPort0);
                         port_stats s;
                         return long(mirvak_GetKXPortStatistics(h, &k, &s));
                     });
                 }, none});
    c.push_back({"GetAllVPortsForPort", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         port_info p[4];
                         return long(mirvak_GetAllVPortsForPort(h, kPort1, p, 2));
                     });
                 }, {1}});
    c.push_back({"GetKXDiscoveredPortAttributes_by_wwpn", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         port_info k = PortKey(kAdapter, 0, kPort0);
                         char* ports = static_cast<char*>(std::malloc(256 * 1024));
                         char* stats = static_cast<char*>(std::malloc(256 * 1024));
                         unsigned int size = 0;
                         const long r = ports && stats ? long(mirvak_GetKXDiscoveredPortAttributes_by_wwpn(h, &k, &ports, &size, &stats)) : 1;
                         std::free(ports);
                         std::free(stats);
                         return r;
                     });
                 }, {1, 6}});
    c.push_back({"GetAllRPortsForVPort", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         port_info* ports = nullptr;
                         port_stats* stats = nullptr;
                         unsigned int count = 0;
                         const long r = long(mirvak_GetAllRPortsForVPort(h, kVport, &ports, &count, &stats, true));
                         std::free(ports);
                         std::free(stats);
                         return r;
                     });
                 }, {1}});
    c.push_back({"GetKXLunCount", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         vport_in k = VKey(kAdapter, 0, 0, 0);
                         int count = 0;
                         return long(mirvak_GetKXLunCount(h, &k, &count));
                     });
                 }, none});
    // The array is sized by a count taken before the walk (a count taken
    // while an allocation fails can be short, and the caller's array with
    // it); the fill's own allocations fail.
    c.push_back({"GetKXLunInfo", [] {
                     const bool armed = g_armed;
                     g_armed = false;
                     const HBA_HANDLE h = open0();
                     vport_in k = VKey(kAdapter, 0, 0, 0);
                     int count = 0;
                     mirvak_GetKXLunCount(h, &k, &count);
                     std::vector<lun_info> luns(static_cast<std::size_t>(count > 0 ? count : 0) + 1);
                     g_armed = armed;
                     const long r = long(mirvak_GetKXLunInfo(h, &k, luns.data(), nullptr));
                     mirvak_CloseAdapter(h);
                     return r;
                 }, none});
    c.push_back({"GetKXVPortLunInfo_by_wwn", [] {
                     return with_adapter([](HBA_HANDLE h) {
                         lun_info* luns = nullptr;
                         unsigned int count = 0;
                         const long r = long(mirvak_GetKXVPortLunInfo_by_wwn(h, kPort0, kTarget0, &luns, &count));
                         std::free(luns);
                         return r;
                     });
                 }, none});
    // ---- facade ----
    static std::vector<unsigned char> buf(512 * 1024);
    c.push_back({"GetFCoEAdapters", [] {
                     MvFCoEIni f;
                     unsigned int size = 0;
                     return long(f.GetFCoEAdapters(buf.data(), &size));
                 }, {FCOE_ERR_NO_MEMORY, FCOE_ERR_NO_ADAPTERS}});
    c.push_back({"GetAllPortsInfo", [] {
                     MvFCoEIni f;
                     port_info k = PortKey(kAdapter);
                     unsigned int size = 0;
                     return long(f.GetAllPortsInfo(&k, buf.data(), &size));
                 }, {FCOE_ERR_NO_MEMORY, FCOE_ERR_ADAPTER_OPEN}});
    c.push_back({"GetPortInfo", [] {
                     MvFCoEIni f;
                     port_info k = PortKey(kAdapter);
                     unsigned int size = 0;
                     return long(f.GetPortInfo(&k, buf.data(), &size));
                 }, {FCOE_ERR_NO_MEMORY, FCOE_ERR_ADAPTER_OPEN, FCOE_ERR_FAILED}});
    c.push_back({"GetRemotePortInfo", [] {
                     MvFCoEIni f;
                     port_info k = PortKey(kAdapter, 0, kPort0);
                     char* block = static_cast<char*>(std::malloc(256 * 1024));
                     unsigned int size = 0;
                     const long r = block ? long(f.GetRemotePortInfo(&k, &block, &size)) : FCOE_ERR_NO_MEMORY;
                     std::free(block);
                     return r;
                 }, {FCOE_ERR_NO_MEMORY, FCOE_ERR_ADAPTER_OPEN, FCOE_ERR_FAILED, FCOE_ERR_NO_REMOTE_PORTS}});
    c.push_back({"GetRPortForVPort", [] {
                     MvFCoEIni f;
                     vport_in k = VKey(kAdapter, 1, 0, 0, kVport);
                     char* block = nullptr;
                     unsigned int size = 0;
                     const long r = long(f.GetRPortForVPort(&k, &block, &size));
                     std::free(block);
                     return r;
                 }, {FCOE_ERR_NO_MEMORY, FCOE_ERR_ADAPTER_OPEN, FCOE_ERR_FAILED, FCOE_ERR_NO_REMOTE_PORTS}});
    c.push_back({"GetVirPortForPort", [] {
                     MvFCoEIni f;
                     port_info k = PortKey(kAdapter, 1, kPort1);
                     char* block = nullptr;
                     unsigned int size = 0;
                     const long r = long(f.GetVirPortForPort(&k, &block, &size));
                     std::free(block);
                     return r;
                 }, {FCOE_ERR_NO_MEMORY, FCOE_ERR_ADAPTER_OPEN, FCOE_ERR_FAILED, FCOE_ERR_VIRTUAL_PORT, -1}});
    c.push_back({"GetVPortLunInfo", [] {
                     MvFCoEIni f;
                     vport_in k = VKey(kAdapter, 1, 0, 0, kVport, kVTarget);
                     char* block = nullptr;
                     unsigned int size = 0;
                     const long r = long(f.GetVPortLunInfo(&k, &block, &size));
                     std::free(block);
                     return r;
                 }, {FCOE_ERR_NO_MEMORY, FCOE_ERR_ADAPTER_OPEN, FCOE_ERR_NO_LUNS, FCOE_ERR_LUN_INFO}});
    c.push_back({"GetLunInfo", [] {
                     MvFCoEIni f;
                     vport_in k = VKey(kAdapter, 0, 0, 0);
                     char* block = nullptr;
                     unsigned int size = 0;
                     const long r = long(f.GetLunInfo(&k, &block, &size));
                     std::free(block);
                     return r;
                 }, {FCOE_ERR_NO_MEMORY, FCOE_ERR_ADAPTER_OPEN, FCOE_ERR_NO_LUNS, FCOE_ERR_LUN_INFO}});
    c.push_back({"GetFCoEAll", [] {
                     MvFCoEIni f;
                     unsigned int size = 0;
                     void* all = f.GetFCoEAll(nullptr, &size);
                     const long r = all != nullptr ? 0 : 1;
                     std::free(all);
                     return r;
                 }, {1}});
    return c;
}

class AllocFailureTest : public testenv::SimTest {};

TEST_F(AllocFailureTest, EveryRequestAnswersEachFailedAllocation) {
    UseDefaultFabric();
    const auto start = std::chrono::steady_clock::now();
    for (const Case& c : cases()) {
        // The answer without failures.
        const long normal = c.run();
        uint64_t n = 1;
        for (; n <= kMaxFailures; ++n) {
            g_count = 0;
            g_fail_at = n;
            g_failed = false;
            g_armed = true;
            const long r = c.run();
            g_armed = false;
            if (!g_failed) break;  // the request made fewer than n allocations
            EXPECT_TRUE(r == normal || c.failures.count(r) != 0)
                << c.name << ": allocation " << n << " failed, result " << r << " (normal " << normal << ")";
            if (std::chrono::steady_clock::now() - start > kBudget) break;
        }
        std::printf("%s: %llu allocation failures walked (answer %ld)\n", c.name, static_cast<unsigned long long>(n - 1), normal);
        // The library is still whole: the same request answers as before.
        EXPECT_EQ(c.run(), normal) << c.name;
        if (std::chrono::steady_clock::now() - start > kBudget) {
            std::printf("time budget spent; the walk stops at %s\n", c.name);
            break;
        }
    }
}

}  // namespace
