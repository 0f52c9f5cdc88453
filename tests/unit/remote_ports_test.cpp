// Remote ports: one target by ordinals, the targets of a local port into the
// caller's buffers, and every live target of a local port in new arrays.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mirvak/hba_plugin.h"
#include "mirvak/mgmt.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::Calls;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::Untouched;

// Remote-node words at 1408, 1412, ..., 1440: base + offset.
std::string RWords(uint32_t base) {
    std::string s = "[";
    for (uint32_t off = 1408; off <= 1440; off += 4) s += (off == 1408 ? "" : ",") + std::to_string(base + off);
    return s + "]";
}

// A remote node whose numbers all derive from n: rnode_index 100+n, word_4
// n*1000+4, fcid 0x010000+n, byte_12 n%256, port WWN 50..n, node WWN 51..n,
// words n*100000+off.
std::string Rnode(int n, const std::string& role, const std::string& state, const std::string& cos = "[128,0,128,0]") {
    char wwn[17];
    std::string s = R"({"role":")" + role + R"(","state":")" + state + R"(","word_4":)" + std::to_string(n * 1000 + 4) +
                    R"(,"fcid":)" + std::to_string(0x010000 + n) + R"(,"byte_12":)" + std::to_string(n % 256) +
                    R"(,"rnode_index":)" + std::to_string(100 + n) +
                    R"(,"cos":)" + cos;
    std::snprintf(wwn, sizeof wwn, "50000000%08x", n);
    s += R"(,"port_wwn":")" + std::string(wwn) + R"(")";
    std::snprintf(wwn, sizeof wwn, "51000000%08x", n);
    s += R"(,"node_wwn":")" + std::string(wwn) + R"(")";
    return s + R"(,"words":)" + RWords(uint32_t(n) * 100000) + "}";
}

// L0 (position 0, port 0): r1 initiator, r2 "Target", r3 "TARGET" offline,
// r4 target "PLOGI_READY", r5 initiator vanished, r6 target "LOGO".
// L1 (position 1, port 1): not initialised, one ready target r7.
// L2 (position 2, port 3): live targets only: r8 "Target", r9 initiator,
// r10 "target" "RSCN_READY", r11 "tArGeT" "LOGO"; num_rnodes 77.
// L3 (position 3): only initiators. L4: no remote nodes.
std::string Lnodes() {
    return R"({"port_num":0,"port_wwn":"2000000000000a00","lnode_id":10,"rnodes":[)" + Rnode(1, "initiator", "READY") +
           "," + Rnode(2, "Target", "READY", "[128,0,128,128]") + "," + Rnode(3, "TARGET", "OFFLINE") + "," +
           Rnode(4, "target", "PLOGI_READY", "[0,128,0,0]") + "," + Rnode(5, "initiator", "DISAPPEARED") + "," +
           Rnode(6, "target", "LOGO") + R"(]},
      {"port_num":1,"port_wwn":"2000000000000a01","lnode_id":11,"state":"UNINIT","rnodes":[)" +
           Rnode(7, "target", "READY") + R"(]},
      {"port_num":3,"port_wwn":"2000000000000a02","lnode_id":12,"num_rnodes":77,"rnodes":[)" +
           Rnode(8, "Target", "READY") + "," + Rnode(9, "initiator", "READY") + "," +
           Rnode(10, "target", "RSCN_READY", "[0,0,0,128]") + "," + Rnode(11, "tArGeT", "LOGO") + R"(]},
      {"port_num":0,"port_wwn":"2000000000000a03","lnode_id":13,"rnodes":[)" +
           Rnode(12, "initiator", "READY") + "," + Rnode(13, "Initiator", "READY") + R"(]},
      {"port_num":0,"port_wwn":"2000000000000a04","lnode_id":14})";
}

std::string Fabric(const std::string& lnodes) {
    return R"({"adapters":[{"instance":2,"lnodes":[)" + lnodes + "]}]}";
}

const uint8_t kL0[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0x00};
const uint8_t kL1[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0x01};
const uint8_t kL2[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0x02};
const uint8_t kL3[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0x03};
const uint8_t kL4[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0x04};
const uint8_t kUnknown[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0x99};

// Remote node n's port and node WWNs (n below 256).
std::vector<uint8_t> PortWwn(int n) { return {0x50, 0, 0, 0, 0, 0, uint8_t(n >> 8), uint8_t(n)}; }
std::vector<uint8_t> NodeWwn(int n) { return {0x51, 0, 0, 0, 0, 0, uint8_t(n >> 8), uint8_t(n)}; }

bool Is(const HBA_WWN& w, const std::vector<uint8_t>& want) { return std::memcmp(w.wwn, want.data(), 8) == 0; }

const uint8_t* Bytes(const void* p) { return static_cast<const uint8_t*>(p); }

bool AllZero(const void* p, std::size_t n) { return Untouched(p, n, 0); }

class RemoteTest : public testenv::SimTest {
protected:
    void Open(const std::string& fabric) {
        UseFabric(fabric);
        handle = mirvak_OpenAdapter("/dev/tuskstor2");
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

// ---- mirvak_GetKXDiscoveredPortAttributes ----

class DiscoveredTest : public RemoteTest {
protected:
    void SetUp() override {
        RemoteTest::SetUp();
        Open(Fabric(Lnodes()));
        Fill(&info, sizeof info);
    }
    HBA_UINT32 Get(uint32_t lnode, uint32_t target) {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetKXDiscoveredPortAttributes(handle, lnode, target, &info); });
        return st;
    }
    // Remote node n was chosen: its four fields, nothing else.
    void ExpectChosen(int n) {
        EXPECT_EQ(std::string(info.role), "target");
        EXPECT_TRUE(Untouched(info.role + 7, 32 - 7));
        EXPECT_EQ(info.lnode_id, uint32_t(n * 1000 + 4));
        EXPECT_EQ(info.rnode_index, uint32_t(100 + n));
        EXPECT_EQ(info.rnode_byte_12, uint32_t(n % 256));
        EXPECT_TRUE(Untouched(&info, 896));
        EXPECT_TRUE(Untouched(Bytes(&info) + 900, 932 - 900));
    }
    port_info info;
};

TEST_F(DiscoveredTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    handle = 0xFFFFFFFFu;
    EXPECT_EQ(Get(0, 0), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(&info, sizeof info));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

TEST_F(DiscoveredTest, FirstTargetSkipsTheLiveInitiatorBeforeIt) {
    EXPECT_EQ(Get(0, 0), 0u);
    ExpectChosen(2);  // "Target" reported lower-cased
    EXPECT_EQ(out, "");
}

TEST_F(DiscoveredTest, OfflineNodesTakeANumber) {
    EXPECT_EQ(Get(0, 2), 0u);
    ExpectChosen(4);
    Fill(&info, sizeof info);
    EXPECT_EQ(Get(0, 4), 0u);  // the vanished initiator took number 3
    ExpectChosen(6);
}

TEST_F(DiscoveredTest, TheNumberOfAnOfflineNodeChoosesNothing) {
    for (const uint32_t t : {1u, 3u, 5u}) {
        SCOPED_TRACE(t);
        EXPECT_EQ(Get(0, t), 0u);
        EXPECT_TRUE(Untouched(&info, sizeof info));
        EXPECT_EQ(out, "");
    }
}

TEST_F(DiscoveredTest, PortNotInitialisedNumbersItsNodesButChoosesNone) {
    EXPECT_EQ(Get(1, 0), 0u);
    EXPECT_TRUE(Untouched(&info, sizeof info));
}

TEST_F(DiscoveredTest, LocalPortsAreCountedByPositionWhateverTheirPortNumber) {
    EXPECT_EQ(Get(2, 1), 0u);  // L2, the second target: r10
    ExpectChosen(10);
}

TEST_F(DiscoveredTest, LocalOrdinalBeyondTheLastIsZeroWithNothingWritten) {
    EXPECT_EQ(Get(5, 0), 0u);
    EXPECT_TRUE(Untouched(&info, sizeof info));
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 6u);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 0u);
}

TEST_F(DiscoveredTest, StopsAtTheChosenTarget) {
    EXPECT_EQ(Get(0, 0), 0u);
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 1u);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 2u);
}

TEST_F(DiscoveredTest, FailedLocalNodeQueryIsIllegalIndex) {
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, 4, 0), 0);
    EXPECT_EQ(Get(0, 0), 6u);
    EXPECT_TRUE(Untouched(&info, sizeof info));
    testenv::ResetCalls();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 3, 4, 0), 0);
    EXPECT_EQ(Get(0, 9), 6u);  // L0 searched in vain first
    EXPECT_TRUE(Untouched(&info, sizeof info));
    EXPECT_EQ(out, "");
}

TEST_F(DiscoveredTest, FailedRemoteNodeQueryEndsOnlyThatPortsSearch) {
    ASSERT_EQ(tusksim_add_fault("tusk_get_rnode_info", 2, 4, 0), 0);
    EXPECT_EQ(Get(0, 0), 0u);  // the list then runs out
    EXPECT_TRUE(Untouched(&info, sizeof info));
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 6u);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 2u);
}

// ---- mirvak_GetKXDiscoveredPortAttributes_by_wwpn ----

class ByWwpnTest : public RemoteTest {
protected:
    void TearDown() override {
        std::free(ports);
        std::free(stats);
        RemoteTest::TearDown();
    }
    void Key(const uint8_t* wwpn) {
        std::memset(&key, 0, sizeof key);
        std::strcpy(key.adapter_name, "/dev/tuskstor2");
        std::memcpy(key.attributes.PortWWN.wwn, wwpn, 8);
    }
    // The caller's buffers: 256 KiB each, pattern-filled.
    void Buffers(bool with_stats = true) {
        ports = static_cast<char*>(std::malloc(kBuf));
        Fill(ports, kBuf);
        if (with_stats) {
            stats = static_cast<char*>(std::malloc(kBuf));
            Fill(stats, kBuf);
        }
    }
    HBA_UINT32 Get(char** stats_arg) {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] {
            st = mirvak_GetKXDiscoveredPortAttributes_by_wwpn(handle, &key, &ports, &size, stats_arg);
        });
        return st;
    }
    const port_info& Port(std::size_t i) const { return reinterpret_cast<const port_info*>(ports)[i]; }
    const port_stats& Stats(std::size_t i) const { return reinterpret_cast<const port_stats*>(stats)[i]; }

    // A live target n in slot i of a local port on port_num with num_rnodes.
    void ExpectLive(std::size_t i, int n, uint32_t port_num, uint32_t num_rnodes,
                    uint32_t state, uint32_t cos) {
        SCOPED_TRACE(i);
        port_info want;
        std::memset(&want, 0, sizeof want);
        std::strcpy(want.adapter_name, "/dev/tuskstor2");
        want.rport_index = uint32_t(i);
        want.port_num = port_num;
        want.attributes.PortState = state;
        std::memcpy(want.attributes.NodeWWN.wwn, NodeWwn(n).data(), 8);
        std::memcpy(want.attributes.PortWWN.wwn, PortWwn(n).data(), 8);
        want.attributes.PortFcId = uint32_t(0x010000 + n);
        want.attributes.PortSupportedClassofService = cos;
        want.attributes.NumberofDiscoveredPorts = num_rnodes;
        std::strcpy(want.role, "target");
        want.lnode_id = uint32_t(n * 1000 + 4);
        want.rnode_index = uint32_t(100 + n);
        want.rnode_byte_12 = uint32_t(n % 256);
        EXPECT_EQ(std::memcmp(&Port(i), &want, sizeof want), 0);
    }
    void ExpectStats(std::size_t i, int n) {
        SCOPED_TRACE(i);
        port_stats want;
        std::memset(&want, 0, sizeof want);
        const uint32_t base = uint32_t(n) * 100000;
        want.counter0 = base + 1424;
        want.counter1 = base + 1432;
        want.counter2 = base + 1436;
        want.counter3 = base + 1440;
        want.rcounter0 = base + 1408;
        want.rcounter1 = base + 1412;
        want.rcounter2 = base + 1416;
        want.rcounter3 = base + 1420;
        EXPECT_EQ(std::memcmp(&Stats(i), &want, sizeof want), 0);
    }

    static constexpr std::size_t kBuf = 0x40000;
    port_info key;
    char* ports = nullptr;
    char* stats = nullptr;
    unsigned int size = 0xA5A5A5A5u;
};

TEST_F(ByWwpnTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Open(Fabric(Lnodes()));
    Key(kL2);
    Buffers();
    handle = 0xFFFFFFFFu;
    char* const before = ports;
    EXPECT_EQ(Get(&stats), 0xFFFFFFFFu);
    EXPECT_EQ(ports, before);
    EXPECT_TRUE(Untouched(ports, kBuf));
    EXPECT_TRUE(Untouched(stats, kBuf));
    EXPECT_EQ(size, 0xA5A5A5A5u);
    EXPECT_EQ(tusksim_call_total(), 0u);
}

TEST_F(ByWwpnTest, CopiesEveryLiveTargetWithItsStatistics) {
    Open(Fabric(Lnodes()));
    Key(kL2);
    Buffers();
    EXPECT_EQ(Get(&stats), 0u);
    EXPECT_EQ(size, 3u * 972u);
    ExpectLive(0, 8, 3, 77, HBA_PORTSTATE_ONLINE, 1 | 3);
    ExpectLive(1, 10, 3, 77, HBA_PORTSTATE_ONLINE, 4);   // "RSCN_READY"
    ExpectLive(2, 11, 3, 77, HBA_PORTSTATE_OFFLINE, 1 | 3);  // "LOGO"
    ExpectStats(0, 8);
    ExpectStats(1, 10);
    ExpectStats(2, 11);
    // Only the answer's bytes of the caller's buffers are written.
    EXPECT_TRUE(Untouched(ports + 3 * 972, kBuf - 3 * 972));
    EXPECT_TRUE(Untouched(stats + 3 * 432, kBuf - 3 * 432));
    EXPECT_EQ(out, "");
}

TEST_F(ByWwpnTest, DriverCalls) {
    Open(Fabric(Lnodes()));
    Key(kL2);
    Buffers();
    EXPECT_EQ(Get(&stats), 0u);
    EXPECT_EQ(Calls("tusk_get_lnode_info_by_fcid"), 2u);  // the port, then its targets' count
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 5u + 4u);     // the count's walk, then the list's (ends at the last slot)
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 0u);
}

TEST_F(ByWwpnTest, WithoutAStatisticsArgumentCopiesThePorts) {
    Open(Fabric(Lnodes()));
    Key(kL2);
    Buffers(false);
    EXPECT_EQ(Get(nullptr), 0u);
    EXPECT_EQ(size, 3u * 972u);
    ExpectLive(0, 8, 3, 77, HBA_PORTSTATE_ONLINE, 1 | 3);
    ExpectLive(2, 11, 3, 77, HBA_PORTSTATE_OFFLINE, 1 | 3);
}

TEST_F(ByWwpnTest, StatisticsAskedForWithoutABufferCopyNothingYetSucceed) {
    Open(Fabric(Lnodes()));
    Key(kL2);
    Buffers(false);
    char* none = nullptr;
    EXPECT_EQ(Get(&none), 0u);
    EXPECT_EQ(none, nullptr);
    EXPECT_TRUE(Untouched(ports, kBuf));
    EXPECT_EQ(size, 0xA5A5A5A5u);
}

TEST_F(ByWwpnTest, ListEndsAtTheFirstTargetThatIsNotLive) {
    Open(Fabric(Lnodes()));
    Key(kL0);
    Buffers();
    EXPECT_EQ(Get(&stats), 0u);
    EXPECT_EQ(size, 4u * 972u);  // every target of the port counts for the size
    ExpectLive(0, 2, 0, 6, HBA_PORTSTATE_ONLINE, 1 | 3 | 4);
    ExpectStats(0, 2);
    // The offline target: its name, numbers, state and WWNs only.
    port_info want;
    std::memset(&want, 0, sizeof want);
    std::strcpy(want.adapter_name, "/dev/tuskstor2");
    want.rport_index = 1;
    want.port_num = 0;
    want.rnode_index = 103;
    want.attributes.PortState = HBA_PORTSTATE_OFFLINE;
    std::memcpy(want.attributes.NodeWWN.wwn, NodeWwn(3).data(), 8);
    std::memcpy(want.attributes.PortWWN.wwn, PortWwn(3).data(), 8);
    EXPECT_EQ(std::memcmp(&Port(1), &want, sizeof want), 0);
    EXPECT_TRUE(AllZero(ports + 2 * 972, 2 * 972));
    EXPECT_TRUE(AllZero(stats + 432, 3 * 432));
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 7u + 3u);
}

TEST_F(ByWwpnTest, VanishedTargetEndsTheListAsLinkDown) {
    Open(Fabric(R"({"port_wwn":"2000000000000a00","lnode_id":10,"rnodes":[)" + Rnode(1, "target", "DISAPPEARED") +
                "," + Rnode(2, "target", "READY") + "]}"));
    Key(kL0);
    Buffers();
    EXPECT_EQ(Get(&stats), 0u);
    EXPECT_EQ(size, 2u * 972u);
    EXPECT_EQ(Port(0).attributes.PortState, uint32_t{HBA_PORTSTATE_LINKDOWN});
    EXPECT_TRUE(Is(Port(0).attributes.PortWWN, PortWwn(1)));
    EXPECT_EQ(std::string(Port(0).role), "");
    EXPECT_TRUE(AllZero(ports + 972, 972));
}

TEST_F(ByWwpnTest, PortNotInitialisedEndsTheListAtItsFirstTarget) {
    Open(Fabric(Lnodes()));
    Key(kL1);
    Buffers();
    EXPECT_EQ(Get(&stats), 0u);
    EXPECT_EQ(size, 972u);
    EXPECT_EQ(Port(0).attributes.PortState, uint32_t{HBA_PORTSTATE_LINKDOWN});  // the target itself is "READY"
    EXPECT_TRUE(Is(Port(0).attributes.PortWWN, PortWwn(7)));
    EXPECT_TRUE(Is(Port(0).attributes.NodeWWN, NodeWwn(7)));
    EXPECT_EQ(Port(0).port_num, 1u);
    EXPECT_EQ(Port(0).lnode_id, 0u);
    EXPECT_TRUE(AllZero(stats, 432));
}

TEST_F(ByWwpnTest, PortWithoutTargetsIsIllegalIndexWithNothingWritten) {
    Open(Fabric(Lnodes()));
    for (const uint8_t* wwpn : {kL3, kL4}) {
        Key(wwpn);
        std::free(ports);
        std::free(stats);
        Buffers();
        char* const before = ports;
        EXPECT_EQ(Get(&stats), 6u);
        EXPECT_EQ(ports, before);
        EXPECT_TRUE(Untouched(ports, kBuf));
        EXPECT_TRUE(Untouched(stats, kBuf));
        EXPECT_EQ(size, 0xA5A5A5A5u);
        EXPECT_EQ(out, "");
    }
}

TEST_F(ByWwpnTest, UnknownPortReturnsTheLookupsStatus) {
    Open(Fabric(Lnodes()));
    Key(kUnknown);
    Buffers();
    EXPECT_EQ(Get(&stats), static_cast<HBA_UINT32>(-2));
    EXPECT_EQ(out, "tusk_get_lnode_info_by_fcid failed\n");
    EXPECT_TRUE(Untouched(ports, kBuf));
    EXPECT_TRUE(Untouched(stats, kBuf));
    EXPECT_EQ(size, 0xA5A5A5A5u);
    EXPECT_EQ(Calls("tusk_get_lnode_info_by_fcid"), 1u);
    EXPECT_EQ(tusksim_call_total(), 1u);
}

TEST_F(ByWwpnTest, PortWithoutANodeIdIsZeroWithNothingWritten) {
    Open(Fabric(R"({"port_wwn":"2000000000000a00","lnode_id":4294967295,"rnodes":[)" + Rnode(1, "target", "READY") +
                "]}"));
    Key(kL0);
    Buffers();
    EXPECT_EQ(Get(&stats), 0u);
    EXPECT_TRUE(Untouched(ports, kBuf));
    EXPECT_EQ(size, 0xA5A5A5A5u);
    EXPECT_EQ(tusksim_call_total(), 1u);
    EXPECT_EQ(out, "");
}

TEST_F(ByWwpnTest, TargetCountThatCannotBeHadIsAnAllocationFailure) {
    // The second lookup (the count's) fails: 0xFFFFFFFF records cannot be
    // allocated.
    Open(Fabric(Lnodes()));
    Key(kL2);
    Buffers();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info_by_fcid", 2, 3, 0), 0);
    EXPECT_EQ(Get(&stats), 1u);
    EXPECT_EQ(out, "mirvak_GetNumTargets_by_wwpn: Error fetching LNode info\n");
    EXPECT_TRUE(Untouched(ports, kBuf));
    EXPECT_EQ(size, 0xA5A5A5A5u);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 0u);
}

TEST_F(ByWwpnTest, ListStopsAtTheLastCountedSlot) {
    // The count's walk fails after one target: only one slot.
    Open(Fabric(Lnodes()));
    Key(kL2);
    Buffers();
    ASSERT_EQ(tusksim_add_fault("tusk_get_rnode_info", 3, 3, 0), 0);
    EXPECT_EQ(Get(&stats), 0u);
    EXPECT_EQ(size, 972u);
    ExpectLive(0, 8, 3, 77, HBA_PORTSTATE_ONLINE, 1 | 3);
    EXPECT_TRUE(Untouched(ports + 972, kBuf - 972));
    EXPECT_TRUE(Untouched(stats + 432, kBuf - 432));
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 3u + 1u);
}

TEST_F(ByWwpnTest, TargetsBeyondACountOfZeroHaveNoSlot) {
    // The count's walk fails at once: no slot for the targets found later.
    Open(Fabric(Lnodes()));
    Key(kL2);
    Buffers();
    ASSERT_EQ(tusksim_add_fault("tusk_get_rnode_info", 1, 3, 0), 0);
    EXPECT_EQ(Get(&stats), 6u);
    EXPECT_TRUE(Untouched(ports, kBuf));
    EXPECT_TRUE(Untouched(stats, kBuf));
    EXPECT_EQ(size, 0xA5A5A5A5u);
}

// Local port L with n live targets, its rnodes numbered from 1.
std::string ManyTargets(int n) {
    std::string s = R"({"port_num":2,"port_wwn":"2000000000000a00","lnode_id":10,"rnodes":[)";
    for (int i = 1; i <= n; ++i) {
        std::string r = Rnode(i, "target", "READY");
        r.insert(1, R"("in_sysfs":false,)");  // no host view needed: quicker to set up
        s += (i == 1 ? "" : ",") + r;
    }
    return s + "]}";
}

TEST_F(ByWwpnTest, PortsAnswerBeyond256KiBGrowsTheCallersPortsBuffer) {
    Open(Fabric(ManyTargets(270)));  // 270 x 972 > 0x3FFFF; 270 x 432 is not
    Key(kL0);
    Buffers();
    char* const stats_before = stats;
    EXPECT_EQ(Get(&stats), 0u);
    EXPECT_EQ(size, 270u * 972u);
    EXPECT_EQ(stats, stats_before);
    ExpectLive(0, 1, 2, 270, HBA_PORTSTATE_ONLINE, 1 | 3);
    ExpectLive(269, 270, 2, 270, HBA_PORTSTATE_ONLINE, 1 | 3);
    ExpectStats(269, 270);
    EXPECT_TRUE(Untouched(stats + 270 * 432, kBuf - 270 * 432));
}

TEST_F(ByWwpnTest, StatisticsBeyond256KiBGrowTheStatisticsBufferToo) {
    Open(Fabric(ManyTargets(607)));  // 607 x 432 > 0x3FFFF
    Key(kL0);
    Buffers();
    EXPECT_EQ(Get(&stats), 0u);
    EXPECT_EQ(size, 607u * 972u);
    ExpectLive(606, 607, 2, 607, HBA_PORTSTATE_ONLINE, 1 | 3);
    ExpectStats(0, 1);
    ExpectStats(606, 607);
}

TEST_F(ByWwpnTest, LargeAnswerWithoutStatisticsGrowsThePortsBuffer) {
    Open(Fabric(ManyTargets(270)));
    Key(kL0);
    Buffers(false);
    EXPECT_EQ(Get(nullptr), 0u);
    EXPECT_EQ(size, 270u * 972u);
    ExpectLive(269, 270, 2, 270, HBA_PORTSTATE_ONLINE, 1 | 3);
}

TEST_F(ByWwpnTest, LargeAnswerWithStatisticsAskedForWithoutABufferCopiesThePorts) {
    Open(Fabric(ManyTargets(270)));
    Key(kL0);
    Buffers(false);
    char* none = nullptr;
    EXPECT_EQ(Get(&none), 0u);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(size, 270u * 972u);
    ExpectLive(269, 270, 2, 270, HBA_PORTSTATE_ONLINE, 1 | 3);
}

TEST_F(ByWwpnTest, AnswerJustUnder256KiBFitsTheCallersBuffer) {
    // 269 x 972 = 261468 and 269 x 432: both fit.
    Open(Fabric(ManyTargets(269)));
    Key(kL0);
    Buffers();
    char* const before = ports;
    EXPECT_EQ(Get(&stats), 0u);
    EXPECT_EQ(ports, before);
    EXPECT_EQ(size, 269u * 972u);
    EXPECT_TRUE(Untouched(ports + 269 * 972, kBuf - 269 * 972));
}

// ---- mirvak_GetAllRPortsForVPort ----

class AllRPortsTest : public RemoteTest {
protected:
    void TearDown() override {
        if (ports != kSentinelPorts) std::free(ports);
        if (stats != kSentinelStats) std::free(stats);
        RemoteTest::TearDown();
    }
    HBA_UINT32 Get(const uint8_t* wwpn, bool with_stats) {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetAllRPortsForVPort(handle, wwpn, &ports, &count, &stats, with_stats); });
        return st;
    }
    void ExpectOutputsUntouched() {
        EXPECT_EQ(ports, kSentinelPorts);
        EXPECT_EQ(stats, kSentinelStats);
        EXPECT_EQ(count, 0xA5A5A5A5u);
    }
    // Record i is remote node n, every other byte zero.
    void ExpectPort(std::size_t i, int n, uint32_t state, uint32_t cos) {
        SCOPED_TRACE(i);
        port_info want;
        std::memset(&want, 0, sizeof want);
        want.attributes.PortState = state;
        std::memcpy(want.attributes.NodeWWN.wwn, NodeWwn(n).data(), 8);
        std::memcpy(want.attributes.PortWWN.wwn, PortWwn(n).data(), 8);
        want.attributes.PortFcId = uint32_t(0x010000 + n);
        want.attributes.PortSupportedClassofService = cos;
        want.rnode_index = uint32_t(100 + n);
        std::strcpy(want.role, "target");
        EXPECT_EQ(std::memcmp(&ports[i], &want, sizeof want), 0);
    }
    void ExpectStats(std::size_t i, int n) {
        SCOPED_TRACE(i);
        port_stats want;
        std::memset(&want, 0, sizeof want);
        const uint32_t base = uint32_t(n) * 100000;
        want.rport_index = uint32_t(i);
        want.counter0 = base + 1424;
        want.counter2 = base + 1436;
        want.counter3 = base + 1440;
        want.rcounter0 = base + 1408;
        want.rcounter1 = base + 1412;
        want.rcounter2 = base + 1416;
        want.rcounter3 = base + 1420;
        EXPECT_EQ(std::memcmp(&stats[i], &want, sizeof want), 0);
    }

    port_info* const kSentinelPorts = reinterpret_cast<port_info*>(uintptr_t{0x1111});
    port_stats* const kSentinelStats = reinterpret_cast<port_stats*>(uintptr_t{0x2222});
    port_info* ports = kSentinelPorts;
    port_stats* stats = kSentinelStats;
    unsigned int count = 0xA5A5A5A5u;
};

TEST_F(AllRPortsTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Open(Fabric(Lnodes()));
    handle = 0xFFFFFFFFu;
    EXPECT_EQ(Get(kL0, true), 0xFFFFFFFFu);
    ExpectOutputsUntouched();
    EXPECT_EQ(tusksim_call_total(), 0u);
}

TEST_F(AllRPortsTest, ListsLiveTargetsInDriverOrder) {
    Open(Fabric(Lnodes()));
    EXPECT_EQ(Get(kL0, false), 0u);
    ASSERT_EQ(count, 3u);
    ExpectPort(0, 2, HBA_PORTSTATE_ONLINE, 1 | 3 | 4);
    ExpectPort(1, 4, HBA_PORTSTATE_ONLINE, 2);  // "PLOGI_READY"
    ExpectPort(2, 6, HBA_PORTSTATE_OFFLINE, 1 | 3);  // "LOGO": live, but not ready
    EXPECT_EQ(out, "");
}

// The arrays grow as targets are found (by doubling); a list longer than
// several growth steps comes back whole, in order, each with its counters.
TEST_F(AllRPortsTest, ManyTargetsAreAllListedInDriverOrder) {
    Open(Fabric(ManyTargets(37)));
    EXPECT_EQ(Get(kL0, true), 0u);
    ASSERT_EQ(count, 37u);
    for (int i = 0; i < 37; ++i) {
        ExpectPort(std::size_t(i), i + 1, HBA_PORTSTATE_ONLINE, 1 | 3);
        ExpectStats(std::size_t(i), i + 1);
    }
}

TEST_F(AllRPortsTest, WithoutTheFlagTheStatisticsPointerIsLeftAlone) {
    Open(Fabric(Lnodes()));
    EXPECT_EQ(Get(kL0, false), 0u);
    EXPECT_EQ(stats, kSentinelStats);
}

TEST_F(AllRPortsTest, WithTheFlagEachTargetGetsItsCountersButCounterOne) {
    Open(Fabric(Lnodes()));
    EXPECT_EQ(Get(kL2, true), 0u);
    ASSERT_EQ(count, 3u);
    ExpectPort(0, 8, HBA_PORTSTATE_ONLINE, 1 | 3);
    ExpectPort(1, 10, HBA_PORTSTATE_ONLINE, 4);
    ExpectPort(2, 11, HBA_PORTSTATE_OFFLINE, 1 | 3);
    ExpectStats(0, 8);
    ExpectStats(1, 10);
    ExpectStats(2, 11);
}

TEST_F(AllRPortsTest, DriverCalls) {
    Open(Fabric(Lnodes()));
    EXPECT_EQ(Get(kL0, true), 0u);
    EXPECT_EQ(Calls("tusk_get_lnode_info_by_fcid"), 1u);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 7u);
    EXPECT_EQ(tusksim_call_total(), 8u);
}

TEST_F(AllRPortsTest, OnlyInitiatorsIsIllegalIndexWithANullArray) {
    Open(Fabric(Lnodes()));
    EXPECT_EQ(Get(kL3, true), 6u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(ports, nullptr);
    EXPECT_EQ(stats, nullptr);
}

TEST_F(AllRPortsTest, OnlyOfflineTargetsIsIllegalIndexWithANullArray) {
    Open(Fabric(R"({"port_wwn":"2000000000000a00","lnode_id":10,"rnodes":[)" + Rnode(1, "target", "OFFLINE") +
                "," + Rnode(2, "Target", "DISAPPEARED") + "]}"));
    EXPECT_EQ(Get(kL0, false), 6u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(ports, nullptr);
    EXPECT_EQ(stats, kSentinelStats);
}

TEST_F(AllRPortsTest, PortNotInitialisedListsNothing) {
    Open(Fabric(Lnodes()));
    EXPECT_EQ(Get(kL1, true), 6u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(ports, nullptr);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 2u);
}

TEST_F(AllRPortsTest, PortWithoutRemoteNodesListsNothing) {
    Open(Fabric(Lnodes()));
    EXPECT_EQ(Get(kL4, false), 6u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(ports, nullptr);
}

TEST_F(AllRPortsTest, UnknownPortReturnsTheLookupsStatus) {
    Open(Fabric(Lnodes()));
    EXPECT_EQ(Get(kUnknown, true), static_cast<HBA_UINT32>(-2));
    EXPECT_EQ(out, "Invalid LNode WWPN!\n");
    ExpectOutputsUntouched();
    EXPECT_EQ(tusksim_call_total(), 1u);
}

TEST_F(AllRPortsTest, PortWithoutANodeIdIsZeroWithNothingStored) {
    Open(Fabric(R"({"port_wwn":"2000000000000a00","lnode_id":4294967295,"rnodes":[)" + Rnode(1, "target", "READY") +
                "]}"));
    EXPECT_EQ(Get(kL0, true), 0u);
    ExpectOutputsUntouched();
    EXPECT_EQ(tusksim_call_total(), 1u);
    EXPECT_EQ(out, "");
}

TEST_F(AllRPortsTest, FailedRemoteNodeQueryEndsTheList) {
    Open(Fabric(Lnodes()));
    ASSERT_EQ(tusksim_add_fault("tusk_get_rnode_info", 4, 3, 0), 0);
    EXPECT_EQ(Get(kL0, true), 0u);
    ASSERT_EQ(count, 1u);
    ExpectPort(0, 2, HBA_PORTSTATE_ONLINE, 1 | 3 | 4);
    ExpectStats(0, 2);
}

TEST_F(AllRPortsTest, VirtualPortIsListedLikeAnyLocalPort) {
    Open(Fabric(R"({"port_wwn":"2000000000000a00","lnode_id":10},
                   {"port_wwn":"2800000000000a00","lnode_id":20,"parent":"2000000000000a00","rnodes":[)" +
                Rnode(1, "TARGET", "READY") + "]}"));
    const uint8_t vport[8] = {0x28, 0, 0, 0, 0, 0, 0x0a, 0x00};
    EXPECT_EQ(Get(vport, true), 0u);
    ASSERT_EQ(count, 1u);
    ExpectPort(0, 1, HBA_PORTSTATE_ONLINE, 1 | 3);
    ExpectStats(0, 1);
}

TEST_F(AllRPortsTest, ManyTargetsGrowTheArraysOneByOne) {
    Open(Fabric(ManyTargets(300)));
    EXPECT_EQ(Get(kL0, true), 0u);
    ASSERT_EQ(count, 300u);
    ExpectPort(299, 300, HBA_PORTSTATE_ONLINE, 1 | 3);
    ExpectStats(299, 300);
}

}  // namespace
