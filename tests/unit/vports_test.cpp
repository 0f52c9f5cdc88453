// Virtual (NPIV) ports: listing a physical port's virtual ports, creating
// and deleting them.
#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "mirvak/hba_plugin.h"
#include "mirvak/mgmt.h"
#include "sim/tusksim.h"
#include "sim_env.h"

// Every way this program can sleep passes through here, so a test can tell
// whether a request waited, whatever the machine's load makes of its time.
namespace {
std::atomic<bool> g_counting_sleeps{false};
std::atomic<int> g_sleeps{0};
template <typename Fn>
Fn NextDefinition(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}
void CountSleep() {
    if (g_counting_sleeps) ++g_sleeps;
}
}  // namespace

extern "C" int nanosleep(const struct timespec* req, struct timespec* rem) {
    CountSleep();
    static auto next = NextDefinition<int (*)(const struct timespec*, struct timespec*)>("nanosleep");
    return next(req, rem);
}
extern "C" int clock_nanosleep(clockid_t clock, int flags, const struct timespec* req, struct timespec* rem) {
    CountSleep();
    static auto next =
        NextDefinition<int (*)(clockid_t, int, const struct timespec*, struct timespec*)>("clock_nanosleep");
    return next(clock, flags, req, rem);
}
extern "C" unsigned int sleep(unsigned int seconds) {
    CountSleep();
    static auto next = NextDefinition<unsigned int (*)(unsigned int)>("sleep");
    return next(seconds);
}
extern "C" int usleep(useconds_t usec) {
    CountSleep();
    static auto next = NextDefinition<int (*)(useconds_t)>("usleep");
    return next(usec);
}

namespace {

// Counts the sleeps taken while it lives.
class SleepCount {
  public:
    SleepCount() {
        g_sleeps = 0;
        g_counting_sleeps = true;
    }
    ~SleepCount() { g_counting_sleeps = false; }
    int Taken() const { return g_sleeps; }
};

using testenv::Calls;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::Untouched;

// Physical port P (2100000000000a01, port 0) with virtual ports V0, V1, V2
// in that order, and a second physical port Q (port 1) without any.
// V0: every field set, 3 targets (one offline, one vanished) and an
// initiator. V1: on port 1 (disabled in the port table), state with
// "READY" inside it. V2: offline, on port 0.
const char* kVports = R"(
   {"port_num":0,"port_wwn":"2100000000000a01","node_wwn":"2000000000000a01","lnode_id":1,
    "rnodes":[{"role":"target","port_wwn":"5000000000000001"}]},
   {"port_num":0,"word_5":5005,"mac":"0e:fc:00:00:00:01","fcid":"0x0a0b0c","flag":3,"word_28":"0x28282828",
    "port_wwn":"2800000000000a01","node_wwn":"2900000000000a01","cos":[128,0,128,128],"fcf_index":9,
    "word_148":148148,"lnode_id":21,"state":"READY","parent":"2100000000000a01",
    "rnodes":[{"role":"Target","port_wwn":"5000000000000011"},
              {"role":"initiator","port_wwn":"5000000000000012"},
              {"role":"TARGET","state":"OFFLINE","port_wwn":"5000000000000013"},
              {"role":"target","state":"DISAPPEARED","port_wwn":"5000000000000014"}]},
   {"port_num":1,"port_wwn":"2800000000000a02","node_wwn":"2900000000000a02","fcid":"0x0a0b0d","cos":[0,128,0,0],
    "lnode_id":22,"state":"LINK_READY_X","parent":"2100000000000a01"},
   {"port_num":0,"port_wwn":"2800000000000a03","node_wwn":"2900000000000a03","lnode_id":23,"state":"OFFLINE",
    "parent":"2100000000000a01"},
   {"port_num":1,"port_wwn":"2100000000000a02","node_wwn":"2000000000000a02","lnode_id":2})";

// Port table: 0 speed 8, 1 disabled (speed 16); each with its own MAC.
std::string Fabric(const std::string& lnodes, const std::string& ports = "") {
    const std::string table = ports.empty() ? R"([{"speed":8,"mac":"00:1b:9e:00:00:10"},
        {"enabled":0,"speed":16,"mac":"00:1b:9e:00:00:11"}])"
                                            : ports;
    return R"({"adapters":[{"instance":2,"hw":{"ports":)" + table + R"(},"lnodes":[)" + lnodes +
           R"(]},
      {"instance":5,"npiv":{"create_status":-95,"delete_status":-1,"refused_marker":true},
       "lnodes":[{"port_wwn":"2100000000000b01","lnode_id":1},
                 {"port_wwn":"2800000000000b01","lnode_id":2,"parent":"2100000000000b01"}]},
      {"instance":6,"npiv":{"create_status":-95,"delete_status":-1},
       "lnodes":[{"port_wwn":"2100000000000c01","lnode_id":1},
                 {"port_wwn":"2800000000000c01","lnode_id":2,"parent":"2100000000000c01"}]}]})";
}

const uint8_t kP[8] = {0x21, 0, 0, 0, 0, 0, 0x0a, 0x01};
const uint8_t kQ[8] = {0x21, 0, 0, 0, 0, 0, 0x0a, 0x02};
const uint8_t kV0[8] = {0x28, 0, 0, 0, 0, 0, 0x0a, 0x01};
const uint8_t kV0Node[8] = {0x29, 0, 0, 0, 0, 0, 0x0a, 0x01};
const uint8_t kV1[8] = {0x28, 0, 0, 0, 0, 0, 0x0a, 0x02};
const uint8_t kV2[8] = {0x28, 0, 0, 0, 0, 0, 0x0a, 0x03};
const uint8_t kZero[8] = {};
const uint8_t kV0Mac[6] = {0x0e, 0xfc, 0, 0, 0, 0x01};
const uint8_t kPort0Mac[6] = {0x00, 0x1b, 0x9e, 0, 0, 0x10};
const uint8_t kPort1Mac[6] = {0x00, 0x1b, 0x9e, 0, 0, 0x11};

const uint8_t* Bytes(const port_info& p) { return reinterpret_cast<const uint8_t*>(&p); }

bool Same(const uint8_t* a, const uint8_t* b, std::size_t n) { return std::memcmp(a, b, n) == 0; }

class VportTest : public testenv::SimTest {
protected:
    void Open(const std::string& fabric, const char* device = "/dev/tuskstor2") {
        UseFabric(fabric);
        handle = mirvak_OpenAdapter(device);
        ASSERT_NE(handle, 0xFFFFFFFFu);
        testenv::ResetCalls();
    }
    void TearDown() override {
        if (handle != 0xFFFFFFFFu) mirvak_CloseAdapter(handle);
        SimTest::TearDown();
    }
    HBA_HANDLE handle = 0xFFFFFFFFu;
    std::string out;
};

// ---- mirvak_GetAllVPortsForPort ----

class ListVportsTest : public VportTest {
protected:
    void Array(std::size_t n) {
        ports.assign(n, port_info{});
        Fill(ports.data(), n * sizeof(port_info));
    }
    HBA_UINT32 List(const uint8_t* wwpn, uint32_t expected) {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetAllVPortsForPort(handle, wwpn, ports.data(), expected); });
        return st;
    }
    // Only the fields the driver gives were written into record i.
    void ExpectOnlyDriverFields(std::size_t i) {
        const uint8_t* b = Bytes(ports[i]);
        EXPECT_TRUE(Untouched(b, 256)) << i;                // adapter_name
        EXPECT_TRUE(Untouched(b + 260, 4)) << i;            // rport_index
        EXPECT_TRUE(Untouched(b + 284, 4)) << i;            // PortType
        EXPECT_TRUE(Untouched(b + 296, 876 - 296)) << i;    // up to PortSpeed
        EXPECT_TRUE(Untouched(b + 880, 892 - 880)) << i;    // up to NumberofDiscoveredPorts
        EXPECT_TRUE(Untouched(b + 931, 972 - 931)) << i;    // vlan_id and the remote-port fields
    }
    std::vector<port_info> ports;
};

TEST_F(ListVportsTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Open(Fabric(kVports));
    Array(3);
    handle = 0xFFFFFFFFu;
    EXPECT_EQ(List(kP, 3), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(ports.data(), 3 * sizeof(port_info)));
    EXPECT_EQ(tusksim_call_total(), 0u);
    EXPECT_EQ(out, "");
}

TEST_F(ListVportsTest, FillsEachVirtualPortFromItsLocalNode) {
    Open(Fabric(kVports));
    Array(3);
    EXPECT_EQ(List(kP, 3), 0u);
    const port_info& v = ports[0];
    EXPECT_EQ(v.port_num, 0u);
    EXPECT_EQ(v.lnode_id, 21u);
    EXPECT_EQ(v.lnode_word_5, 5005u);
    EXPECT_EQ(v.phys_port, 0u);
    EXPECT_TRUE(Same(v.lnode_mac, kV0Mac, 6));
    EXPECT_EQ(v.fcf_index, 9u);
    EXPECT_EQ(v.lnode_word_148, 148148u);
    EXPECT_EQ(v.lnode_flag, 3u);
    EXPECT_EQ(v.lnode_word_28, 0x28282828u);
    EXPECT_EQ(v.attributes.PortState, uint32_t{HBA_PORTSTATE_ONLINE});
    EXPECT_TRUE(Same(v.attributes.NodeWWN.wwn, kV0Node, 8));
    EXPECT_TRUE(Same(v.attributes.PortWWN.wwn, kV0, 8));
    EXPECT_EQ(v.attributes.PortFcId, 0x0a0b0cu);
    EXPECT_TRUE(Same(v.port_mac, kPort0Mac, 6));
    EXPECT_EQ(v.attributes.PortSpeed, 4u);  // driver code 8
    EXPECT_EQ(v.attributes.NumberofDiscoveredPorts, 3u);
    EXPECT_EQ(out, "");
}

TEST_F(ListVportsTest, WritesNothingButTheDriversFields) {
    Open(Fabric(kVports));
    Array(3);
    EXPECT_EQ(List(kP, 3), 0u);
    for (std::size_t i = 0; i < 3; ++i) ExpectOnlyDriverFields(i);
}

TEST_F(ListVportsTest, PositionsFollowTheDriversList) {
    Open(Fabric(kVports));
    Array(3);
    EXPECT_EQ(List(kP, 3), 0u);
    EXPECT_EQ(ports[1].port_num, 1u);
    EXPECT_TRUE(Same(ports[1].attributes.PortWWN.wwn, kV1, 8));
    EXPECT_EQ(ports[1].lnode_id, 22u);
    EXPECT_EQ(ports[2].port_num, 2u);
    EXPECT_TRUE(Same(ports[2].attributes.PortWWN.wwn, kV2, 8));
    EXPECT_EQ(ports[2].lnode_id, 23u);
}

TEST_F(ListVportsTest, StateContainingReadyIsOnlineOtherwiseOffline) {
    Open(Fabric(kVports));
    Array(3);
    EXPECT_EQ(List(kP, 3), 0u);
    EXPECT_EQ(ports[1].attributes.PortState, uint32_t{HBA_PORTSTATE_ONLINE});   // "LINK_READY_X"
    EXPECT_EQ(ports[2].attributes.PortState, uint32_t{HBA_PORTSTATE_OFFLINE});  // "OFFLINE"
}

TEST_F(ListVportsTest, ClassOfServiceIsTheOrOfClassNumbers) {
    Open(Fabric(kVports));
    Array(3);
    for (auto& p : ports) p.attributes.PortSupportedClassofService = 0;
    EXPECT_EQ(List(kP, 3), 0u);
    EXPECT_EQ(ports[0].attributes.PortSupportedClassofService, 1u | 3u | 4u);  // classes 1, 3, 4
    EXPECT_EQ(ports[1].attributes.PortSupportedClassofService, 2u);
    EXPECT_EQ(ports[2].attributes.PortSupportedClassofService, 0u);
}

TEST_F(ListVportsTest, ClassOfServiceIsOredIntoTheCallersValue) {
    Open(Fabric(kVports));
    Array(3);
    EXPECT_EQ(List(kP, 3), 0u);
    EXPECT_EQ(ports[0].attributes.PortSupportedClassofService, 0xA5A5A5A5u | 7u);
    EXPECT_EQ(ports[2].attributes.PortSupportedClassofService, 0xA5A5A5A5u);
}

TEST_F(ListVportsTest, TargetsCountWhateverTheirState) {
    Open(Fabric(kVports));
    Array(3);
    EXPECT_EQ(List(kP, 3), 0u);
    EXPECT_EQ(ports[0].attributes.NumberofDiscoveredPorts, 3u);
    EXPECT_EQ(ports[1].attributes.NumberofDiscoveredPorts, 0u);
}

TEST_F(ListVportsTest, DisabledPortGivesItsMacButNoSpeed) {
    Open(Fabric(kVports));
    Array(3);
    EXPECT_EQ(List(kP, 3), 0u);
    EXPECT_TRUE(Same(ports[1].port_mac, kPort1Mac, 6));
    EXPECT_TRUE(Untouched(&ports[1].attributes.PortSpeed, 4));
    EXPECT_EQ(ports[1].phys_port, 1u);
}

TEST_F(ListVportsTest, SpeedCodesAreTheAgentsOwn) {
    const std::vector<std::pair<int, uint32_t>> table = {{1, 18}, {2, 1},  {4, 2},  {8, 4},
                                                         {16, 19}, {32, 20}, {10, 0}, {0, 0}};
    for (const auto& [code, speed] : table) {
        SCOPED_TRACE(code);
        if (handle != 0xFFFFFFFFu) mirvak_CloseAdapter(handle);
        Open(Fabric(R"({"port_wwn":"2100000000000a01"},
                       {"port_wwn":"2800000000000a01","parent":"2100000000000a01"})",
                    R"([{"speed":)" + std::to_string(code) + "}]"));
        Array(1);
        EXPECT_EQ(List(kP, 1), 0u);
        EXPECT_EQ(ports[0].attributes.PortSpeed, speed);
    }
}

TEST_F(ListVportsTest, PortOutsideTheTableGetsNoMacAndNoSpeed) {
    Open(Fabric(R"({"port_wwn":"2100000000000a01"},
                   {"port_num":2,"port_wwn":"2800000000000a01","parent":"2100000000000a01"})"));
    Array(1);
    EXPECT_EQ(List(kP, 1), 0u);
    EXPECT_EQ(ports[0].phys_port, 2u);
    EXPECT_TRUE(Untouched(ports[0].port_mac, 6));
    EXPECT_TRUE(Untouched(&ports[0].attributes.PortSpeed, 4));
}

TEST_F(ListVportsTest, FailedHardwareQueryLeavesMacAndSpeed) {
    Open(Fabric(kVports));
    Array(3);
    ASSERT_EQ(tusksim_add_fault("tusk_get_hw_info", 1, 7, 0), 0);
    EXPECT_EQ(List(kP, 3), 0u);
    EXPECT_TRUE(Untouched(ports[0].port_mac, 6));
    EXPECT_TRUE(Untouched(&ports[0].attributes.PortSpeed, 4));
    EXPECT_EQ(ports[0].lnode_id, 21u);
    EXPECT_TRUE(Same(ports[2].port_mac, kPort0Mac, 6));  // later entries ask again
    EXPECT_EQ(ports[2].attributes.PortSpeed, 4u);
}

TEST_F(ListVportsTest, DriverCallsPerVirtualPort) {
    Open(Fabric(kVports));
    Array(3);
    EXPECT_EQ(List(kP, 3), 0u);
    EXPECT_EQ(Calls("tusk_list_npiv_port"), 1u);
    EXPECT_EQ(Calls("tusk_get_lnode_info_by_fcid"), 6u);  // the port, then its targets' count
    EXPECT_EQ(Calls("tusk_get_hw_info"), 3u);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 5u + 1u + 1u);
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 0u);
}

TEST_F(ListVportsTest, NoVirtualPortsAndNoneExpectedIsSuccessWithNothingWritten) {
    Open(Fabric(kVports));
    Array(1);
    EXPECT_EQ(List(kQ, 0), 0u);
    EXPECT_TRUE(Untouched(ports.data(), sizeof(port_info)));
    EXPECT_EQ(Calls("tusk_list_npiv_port"), 1u);
    EXPECT_EQ(Calls("tusk_get_lnode_info_by_fcid"), 0u);
    EXPECT_EQ(out, "");
}

TEST_F(ListVportsTest, CountOneAboveOrBelowTheDriversIsRefusedWithNothingWritten) {
    Open(Fabric(kVports));
    for (const uint32_t expected : {2u, 4u, 0u}) {
        SCOPED_TRACE(expected);
        Array(4);
        testenv::ResetCalls();
        EXPECT_EQ(List(kP, expected), 1u);
        EXPECT_TRUE(Untouched(ports.data(), 4 * sizeof(port_info)));
        EXPECT_EQ(Calls("tusk_list_npiv_port"), 1u);
        EXPECT_EQ(tusksim_call_total(), 1u);
        EXPECT_EQ(out, "");
    }
}

TEST_F(ListVportsTest, FailedListIsAnErrorWithNothingWritten) {
    Open(Fabric(kVports));
    Array(3);
    EXPECT_EQ(List(kV0, 3), 1u);  // a virtual port has no list of its own
    EXPECT_TRUE(Untouched(ports.data(), 3 * sizeof(port_info)));
    ASSERT_EQ(tusksim_add_fault("tusk_list_npiv_port", 1, 33, 0), 0);
    testenv::ResetCalls();
    EXPECT_EQ(List(kP, 3), 1u);
    EXPECT_TRUE(Untouched(ports.data(), 3 * sizeof(port_info)));
    EXPECT_EQ(tusksim_call_total(), 1u);
    EXPECT_EQ(out, "");
}

TEST_F(ListVportsTest, EntryTheDriverCannotFindIsReportedFromZeros) {
    // The driver reports three virtual ports but lists two: the third entry
    // is all zeros and its lookup fails.
    Open(Fabric(R"({"port_num":0,"port_wwn":"2100000000000a01","npiv_reported_count":3},
                   {"port_num":1,"port_wwn":"2800000000000a01","parent":"2100000000000a01","lnode_id":7},
                   {"port_num":1,"port_wwn":"2800000000000a02","parent":"2100000000000a01","lnode_id":8})"));
    Array(3);
    EXPECT_EQ(List(kP, 3), 0u);
    const port_info& v = ports[2];
    EXPECT_EQ(v.port_num, 2u);
    EXPECT_EQ(v.attributes.PortState, uint32_t{HBA_PORTSTATE_OFFLINE});
    EXPECT_TRUE(Same(v.attributes.NodeWWN.wwn, kZero, 8));
    EXPECT_TRUE(Same(v.attributes.PortWWN.wwn, kZero, 8));
    EXPECT_EQ(v.attributes.PortFcId, 0u);
    EXPECT_EQ(v.lnode_id, 0u);
    EXPECT_EQ(v.lnode_word_5, 0u);
    EXPECT_EQ(v.phys_port, 0u);
    EXPECT_EQ(v.fcf_index, 0u);
    EXPECT_EQ(v.lnode_word_28, 0u);
    EXPECT_TRUE(Same(v.lnode_mac, kZero, 6));
    EXPECT_EQ(v.attributes.PortSupportedClassofService, 0xA5A5A5A5u);
    // The zeroed record names physical port 0: its MAC and speed.
    EXPECT_TRUE(Same(v.port_mac, kPort0Mac, 6));
    EXPECT_EQ(v.attributes.PortSpeed, 4u);
    // The count of its targets cannot be had either.
    EXPECT_EQ(v.attributes.NumberofDiscoveredPorts, 0xFFFFFFFFu);
    EXPECT_EQ(out, "mirvak_GetNumTargets_by_wwpn: Error fetching LNode info\n");
    EXPECT_EQ(ports[1].lnode_id, 8u);
    ExpectOnlyDriverFields(2);
}

TEST_F(ListVportsTest, ReportedCountBeyondTheListsRoomReadsOnly128Entries) {
    Open(Fabric(R"({"port_wwn":"2100000000000a01","npiv_reported_count":200},
                   {"port_wwn":"2800000000000a01","parent":"2100000000000a01","lnode_id":7})"));
    Array(200);
    EXPECT_EQ(List(kP, 200), 0u);
    EXPECT_TRUE(Same(ports[0].attributes.PortWWN.wwn, kV0, 8));
    for (uint32_t i = 0; i < 128; ++i) ASSERT_EQ(ports[i].port_num, i);
    EXPECT_TRUE(Untouched(&ports[128], 72 * sizeof(port_info)));
    EXPECT_EQ(Calls("tusk_get_hw_info"), 128u);
    EXPECT_EQ(Calls("tusk_get_lnode_info_by_fcid"), 256u);
}

TEST_F(ListVportsTest, MoreVirtualPortsThanTheListHoldsReadsOnly128) {
    std::string lnodes = R"({"port_wwn":"2100000000000a01"})";
    char wwpn[17];
    for (int i = 0; i < 130; ++i) {
        std::snprintf(wwpn, sizeof wwpn, "28000000%08x", i + 1);
        lnodes += R"(,{"port_wwn":")" + std::string(wwpn) + R"(","parent":"2100000000000a01","lnode_id":)" +
                  std::to_string(100 + i) + "}";
    }
    UseFabric(R"({"adapters":[{"instance":2,"npiv":{"max_vports":200},"lnodes":[)" + lnodes + "]}]}");
    handle = mirvak_OpenAdapter("/dev/tuskstor2");
    ASSERT_NE(handle, 0xFFFFFFFFu);
    Array(130);
    EXPECT_EQ(List(kP, 130), 0u);
    EXPECT_EQ(ports[127].lnode_id, 227u);
    EXPECT_EQ(ports[127].attributes.PortWWN.wwn[7], 128);
    EXPECT_TRUE(Untouched(&ports[128], 2 * sizeof(port_info)));
}

// ---- mirvak_CreateDelNPIV ----

class NpivTest : public VportTest {
protected:
    HBA_UINT32 Op(HBA_UINT16 op, const uint8_t* first, const uint8_t* second, const uint8_t* third,
                  const uint8_t* fourth, HBA_UINT32 instance = 2) {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_CreateDelNPIV(handle, instance, op, first, second, third, fourth); });
        return st;
    }
    // The virtual ports of P as the driver now lists them.
    std::vector<port_info> VportsOfP(uint32_t expected) {
        std::vector<port_info> v(expected ? expected : 1);
        std::memset(v.data(), 0, v.size() * sizeof(port_info));
        CaptureOut([&] { EXPECT_EQ(mirvak_GetAllVPortsForPort(handle, kP, v.data(), expected), 0u); });
        return v;
    }
};

const uint8_t kNewPort[8] = {0x28, 0, 0, 0, 0, 0, 0x0a, 0x09};
const uint8_t kNewNode[8] = {0x29, 0, 0, 0, 0, 0, 0x0a, 0x09};
const uint8_t kPNode[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0x01};

TEST_F(NpivTest, CreatePutsTheSecondWwnFirstAndTheFirstAtEight) {
    Open(Fabric(kVports));
    EXPECT_EQ(Op(0, kNewNode, kNewPort, kP, kPNode), 0u);
    EXPECT_EQ(out, "");
    EXPECT_EQ(Calls("tusk_create_npiv_port"), 1u);
    EXPECT_EQ(Calls("tusk_delete_npiv_port"), 0u);
    EXPECT_EQ(tusksim_call_total(), 1u);
    // Request offset 0 is the new port's WWPN, 8 its WWNN, 16 the physical port.
    const auto v = VportsOfP(4);
    EXPECT_TRUE(Same(v[3].attributes.PortWWN.wwn, kNewPort, 8));
    EXPECT_TRUE(Same(v[3].attributes.NodeWWN.wwn, kNewNode, 8));
}

TEST_F(NpivTest, NullFirstWwnLeavesRequestBytesEightToFifteenZero) {
    Open(Fabric(kVports));
    EXPECT_EQ(Op(0, nullptr, kNewPort, kP, kPNode), 0u);
    const auto v = VportsOfP(4);
    EXPECT_TRUE(Same(v[3].attributes.PortWWN.wwn, kNewPort, 8));
    EXPECT_TRUE(Same(v[3].attributes.NodeWWN.wwn, kZero, 8));
}

TEST_F(NpivTest, CreateWithNullFirstAndSecondSendsZeroWwns) {
    Open(Fabric(kVports));
    // The driver refuses a zero virtual-port WWPN (-EINVAL).
    EXPECT_EQ(Op(0, nullptr, nullptr, kP, kPNode), static_cast<HBA_UINT32>(-22));
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[0] failed -22\n");
    EXPECT_EQ(Calls("tusk_create_npiv_port"), 1u);
}

TEST_F(NpivTest, ThirdWwnNamesThePhysicalPort) {
    Open(Fabric(kVports));
    EXPECT_EQ(Op(0, kNewNode, kNewPort, kQ, kPNode), 0u);
    EXPECT_EQ(VportsOfP(3)[2].lnode_id, 23u);  // P's list is unchanged
    std::vector<port_info> q(1);
    CaptureOut([&] { EXPECT_EQ(mirvak_GetAllVPortsForPort(handle, kQ, q.data(), 1), 0u); });
    EXPECT_TRUE(Same(q[0].attributes.PortWWN.wwn, kNewPort, 8));
    EXPECT_EQ(q[0].phys_port, 1u);
}

TEST_F(NpivTest, DeleteIsAnyOperationButZero) {
    for (const HBA_UINT16 op : {HBA_UINT16{1}, HBA_UINT16{7}, HBA_UINT16{0xFFFF}}) {
        SCOPED_TRACE(op);
        if (handle != 0xFFFFFFFFu) mirvak_CloseAdapter(handle);
        Open(Fabric(kVports));
        EXPECT_EQ(Op(op, nullptr, kV1, kZero, kZero), 0u);
        EXPECT_EQ(out, "");
        EXPECT_EQ(Calls("tusk_delete_npiv_port"), 1u);
        EXPECT_EQ(Calls("tusk_create_npiv_port"), 0u);
        const auto v = VportsOfP(2);
        EXPECT_TRUE(Same(v[0].attributes.PortWWN.wwn, kV0, 8));
        EXPECT_TRUE(Same(v[1].attributes.PortWWN.wwn, kV2, 8));
    }
}

TEST_F(NpivTest, TheInstanceArgumentIsNotUsed) {
    Open(Fabric(kVports));
    EXPECT_EQ(Op(0, kNewNode, kNewPort, kP, kPNode, 31), 0u);
    EXPECT_EQ(Op(1, nullptr, kNewPort, kZero, kZero, 0xFFFFFFFFu), 0u);
}

TEST_F(NpivTest, RefusedCreateMarkedByTheDriverIsForty) {
    Open(Fabric(kVports), "/dev/tuskstor5");
    const uint8_t port[8] = {0x28, 0, 0, 0, 0, 0, 0x0b, 0x02};
    const uint8_t physical[8] = {0x21, 0, 0, 0, 0, 0, 0x0b, 0x01};
    EXPECT_EQ(Op(0, nullptr, port, physical, kZero), 40u);
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[0] failed -95\n");
}

TEST_F(NpivTest, RefusedDeleteMarkedByTheDriverIsFortyAndNamesTheOperation) {
    Open(Fabric(kVports), "/dev/tuskstor5");
    const uint8_t port[8] = {0x28, 0, 0, 0, 0, 0, 0x0b, 0x01};
    EXPECT_EQ(Op(1, nullptr, port, kZero, kZero), 40u);
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[1] failed -1\n");
    EXPECT_EQ(Op(9, nullptr, port, kZero, kZero), 40u);
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[9] failed -1\n");
}

TEST_F(NpivTest, RefusalWithoutTheMarkerPassesTheDriversResultOn) {
    Open(Fabric(kVports), "/dev/tuskstor6");
    const uint8_t port[8] = {0x28, 0, 0, 0, 0, 0, 0x0c, 0x02};
    const uint8_t physical[8] = {0x21, 0, 0, 0, 0, 0, 0x0c, 0x01};
    EXPECT_EQ(Op(0, nullptr, port, physical, kZero), static_cast<HBA_UINT32>(-95));
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[0] failed -95\n");
    const uint8_t vport[8] = {0x28, 0, 0, 0, 0, 0, 0x0c, 0x01};
    EXPECT_EQ(Op(1, nullptr, vport, kZero, kZero), 0xFFFFFFFFu);
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[1] failed -1\n");
}

TEST_F(NpivTest, FailureWithoutTheMarkerKeepsAPositiveStatus) {
    Open(Fabric(kVports), "/dev/tuskstor5");
    ASSERT_EQ(tusksim_add_fault("tusk_create_npiv_port", 1, 12, 0), 0);  // a fault leaves no marker
    const uint8_t port[8] = {0x28, 0, 0, 0, 0, 0, 0x0b, 0x02};
    const uint8_t physical[8] = {0x21, 0, 0, 0, 0, 0, 0x0b, 0x01};
    EXPECT_EQ(Op(0, nullptr, port, physical, kZero), 12u);
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[0] failed 12\n");
}

TEST_F(NpivTest, DriverAnswersAFailedHandle) {
    // The handle goes to the driver as it is; its refusal is passed on.
    Open(Fabric(kVports));
    const HBA_HANDLE good = handle;
    handle = 0xFFFFFFFFu;
    EXPECT_EQ(Op(0, kNewNode, kNewPort, kP, kPNode), static_cast<HBA_UINT32>(-9));
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[0] failed -9\n");
    EXPECT_EQ(Calls("tusk_create_npiv_port"), 1u);
    handle = good;
    EXPECT_EQ(VportsOfP(3)[2].lnode_id, 23u);
}

// No sleep is taken around the driver's call: counted, not timed, so a busy
// machine cannot make it fail.
TEST_F(NpivTest, DoesNotWaitAfterTheDriver) {
    Open(Fabric(kVports));
    SleepCount sleeps;
    EXPECT_EQ(Op(0, kNewNode, kNewPort, kP, kPNode), 0u);
    EXPECT_EQ(Op(1, nullptr, kNewPort, kZero, kZero), 0u);
    EXPECT_EQ(sleeps.Taken(), 0);
}

// The count above sees the sleeps a library takes.
TEST(SleepCountTest, SeesEveryWayToSleep) {
    SleepCount sleeps;
    std::this_thread::sleep_for(std::chrono::microseconds(1));
    usleep(1);
    sleep(0);
    const struct timespec short_wait = {0, 1000};
    nanosleep(&short_wait, nullptr);
    clock_nanosleep(CLOCK_MONOTONIC, 0, &short_wait, nullptr);
    EXPECT_EQ(sleeps.Taken(), 5);
}

}  // namespace
