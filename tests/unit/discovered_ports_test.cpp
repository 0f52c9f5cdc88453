// Discovered ports of the standard face and the lookup by WWN.
#include <cstring>
#include <string>

#include "mirvak/hba_plugin.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::Calls;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::Untouched;

std::string Fabric(const std::string& lnodes) {
    return R"({"adapters":[{"instance":2,"hw":{"ports":[{"speed":8},{"speed":16}]},
      "fcfs":[{"fcf_index":1,"vlan":10,"fabric_name":"1000000000000001"}],
      "lnodes":[)" + lnodes + "]}]}";
}

// Port 0: a target, an initiator, an offline target, a capital-letter target.
const char* kPort0 = R"({"port_num":0,"port_wwn":"20000000000000a0","node_wwn":"10000000000000a0",
   "lnode_id":1,"fcf_index":1,"num_rnodes":7,"scsi_host":3,
   "rnodes":[{"port_wwn":"50000000000000b1","node_wwn":"40000000000000b1","fcid":"0x0b0001","cos":[128,0,128,0]},
             {"port_wwn":"50000000000000b2","node_wwn":"40000000000000b2","role":"initiator"},
             {"port_wwn":"50000000000000b3","node_wwn":"40000000000000b3","state":"OFFLINE"},
             {"port_wwn":"50000000000000b4","node_wwn":"40000000000000b4","role":"TARGET","fcid":"0x0b0004",
              "state":"NOTREADYYET","cos":[0,0,0,128]}]})";
// Port 1: two targets.
const char* kPort1 = R"({"port_num":1,"port_wwn":"20000000000000c0","node_wwn":"10000000000000c0",
   "lnode_id":2,"fcf_index":1,"num_rnodes":2,"scsi_host":4,
   "rnodes":[{"port_wwn":"50000000000000d1","node_wwn":"40000000000000d1","fcid":"0x0d0001"},
             {"port_wwn":"50000000000000d2","node_wwn":"40000000000000d2","fcid":"0x0d0002","state":"BLOCKED"}]})";

HBA_WWN Wwn(uint64_t v) {
    HBA_WWN w;
    for (int i = 0; i < 8; ++i) w.wwn[i] = static_cast<uint8_t>(v >> (56 - 8 * i));
    return w;
}

// `count` bytes of the same value, as a raw patch's hex text.
std::string Letters(int count, const char* byte) {
    std::string hex;
    for (int i = 0; i < count; ++i) hex += (i ? " " : "") + std::string(byte);
    return hex;
}

bool WwnIs(const HBA_WWN& w, uint64_t v) {
    const HBA_WWN e = Wwn(v);
    return std::memcmp(w.wwn, e.wwn, 8) == 0;
}

class DiscoveredPortsTest : public testenv::SimTest {
protected:
    void Use(const std::string& lnodes) {
        UseFabric(Fabric(lnodes));
        handle = mirvak_OpenAdapter("/dev/tuskstor2");
        ASSERT_NE(handle, 0xFFFFFFFFu);
        testenv::ResetCalls();
        Fill(&attr, sizeof attr);
    }
    void TearDown() override {
        if (handle != 0xFFFFFFFFu) mirvak_CloseAdapter(handle);
        tusksim_clear_faults();
        SimTest::TearDown();
    }
    HBA_STATUS Get(HBA_UINT32 port, HBA_UINT32 n) {
        HBA_STATUS st = 0;
        out = CaptureOut([&] { st = mirvak_GetDiscoveredPortAttributes(handle, port, n, &attr); });
        return st;
    }
    HBA_STATUS ByWwn(uint64_t wwn) {
        HBA_STATUS st = 0;
        out = CaptureOut([&] { st = mirvak_GetPortAttributesByWWN(handle, Wwn(wwn), &attr); });
        return st;
    }
    // Fields the discovered-port answer never writes.
    void ExpectUnnamedFieldsUntouched() {
        EXPECT_TRUE(Untouched(&attr.PortType, sizeof attr.PortType));
        EXPECT_TRUE(Untouched(&attr.PortSupportedFc4Types, sizeof attr.PortSupportedFc4Types));
        EXPECT_TRUE(Untouched(&attr.PortActiveFc4Types, sizeof attr.PortActiveFc4Types));
        EXPECT_TRUE(Untouched(attr.PortSymbolicName, sizeof attr.PortSymbolicName));
        EXPECT_TRUE(Untouched(attr.OSDeviceName, sizeof attr.OSDeviceName));
        EXPECT_TRUE(Untouched(&attr.PortSupportedSpeed, sizeof attr.PortSupportedSpeed));
        EXPECT_TRUE(Untouched(&attr.PortSpeed, sizeof attr.PortSpeed));
        EXPECT_TRUE(Untouched(&attr.PortMaxFrameSize, sizeof attr.PortMaxFrameSize));
        EXPECT_TRUE(Untouched(&attr.FabricName, sizeof attr.FabricName));
    }
    HBA_HANDLE handle = 0xFFFFFFFFu;
    HBA_PORTATTRIBUTES attr;
    std::string out;
};

TEST_F(DiscoveredPortsTest, InvalidHandleAnswersMinusOneBeforeAnyDriverCall) {
    Use(kPort0);
    EXPECT_EQ(mirvak_GetDiscoveredPortAttributes(0xFFFFFFFFu, 0, 0, &attr), 0xFFFFFFFFu);
    EXPECT_EQ(mirvak_GetPortAttributesByWWN(0xFFFFFFFFu, Wwn(0x20000000000000a0), &attr), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

TEST_F(DiscoveredPortsTest, FirstTargetIsFilledFromTheRemoteNode) {
    Use(kPort0);
    EXPECT_EQ(Get(0, 0), 0u);
    EXPECT_TRUE(WwnIs(attr.PortWWN, 0x50000000000000b1));
    EXPECT_TRUE(WwnIs(attr.NodeWWN, 0x40000000000000b1));
    EXPECT_EQ(attr.PortState, 2u);
    EXPECT_EQ(attr.PortFcId, 0x0b0001u);
    EXPECT_EQ(attr.NumberofDiscoveredPorts, 7u);  // the local node's num_rnodes
    ExpectUnnamedFieldsUntouched();
    EXPECT_EQ(out, "");
}

TEST_F(DiscoveredPortsTest, ClassOfServiceOrsClassNumbersIntoTheCallersValue) {
    Use(kPort0);
    attr.PortSupportedClassofService = 0x100;
    EXPECT_EQ(Get(0, 0), 0u);
    EXPECT_EQ(attr.PortSupportedClassofService, 0x100u | 1u | 3u);
}

TEST_F(DiscoveredPortsTest, InitiatorIsPassedOverAndOfflineTargetIsNotCounted) {
    Use(kPort0);
    // Target 1 is the fourth node: the initiator and the offline target
    // before it are not counted.
    EXPECT_EQ(Get(0, 1), 0u);
    EXPECT_TRUE(WwnIs(attr.PortWWN, 0x50000000000000b4));
    EXPECT_EQ(attr.PortFcId, 0x0b0004u);
}

TEST_F(DiscoveredPortsTest, CapitalLetterRoleCountsAsTarget) {
    Use(kPort0);
    EXPECT_EQ(Get(0, 1), 0u);
    EXPECT_TRUE(WwnIs(attr.NodeWWN, 0x40000000000000b4));
}

TEST_F(DiscoveredPortsTest, ReadyInsideALongerStateWordIsOnline) {
    Use(kPort0);
    EXPECT_EQ(Get(0, 1), 0u);  // "NOTREADYYET"
    EXPECT_EQ(attr.PortState, 2u);
    EXPECT_EQ(attr.PortSupportedClassofService, 0xA5A5A5A5u | 4u);
}

TEST_F(DiscoveredPortsTest, StateWithoutReadyIsOffline) {
    Use(std::string(kPort0) + "," + kPort1);
    EXPECT_EQ(Get(1, 1), 0u);  // "BLOCKED"
    EXPECT_EQ(attr.PortState, 3u);
    EXPECT_TRUE(WwnIs(attr.PortWWN, 0x50000000000000d2));
}

TEST_F(DiscoveredPortsTest, IndexBeyondLastTargetKeepsTheSkippedNodesWrites) {
    Use(kPort0);
    EXPECT_EQ(Get(0, 2), 0u);
    // The offline node wrote its WWNs and the link-down state (its local
    // port is not "OFFLINE"); nothing else was written.
    EXPECT_TRUE(WwnIs(attr.PortWWN, 0x50000000000000b3));
    EXPECT_TRUE(WwnIs(attr.NodeWWN, 0x40000000000000b3));
    EXPECT_EQ(attr.PortState, 6u);
    EXPECT_TRUE(Untouched(&attr.PortFcId, sizeof attr.PortFcId));
    EXPECT_TRUE(Untouched(&attr.PortSupportedClassofService, sizeof attr.PortSupportedClassofService));
    EXPECT_TRUE(Untouched(&attr.NumberofDiscoveredPorts, sizeof attr.NumberofDiscoveredPorts));
    ExpectUnnamedFieldsUntouched();
}

TEST_F(DiscoveredPortsTest, IndexBeyondLastTargetWithoutSkippedNodesLeavesTheRecord) {
    Use(std::string(kPort0) + "," + kPort1);
    EXPECT_EQ(Get(1, 2), 0u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
}

TEST_F(DiscoveredPortsTest, SkippedNodeUnderAnOfflineLocalPortWritesStateThree) {
    Use(R"({"port_num":0,"port_wwn":"20000000000000a0","lnode_id":1,"state":"OFFLINE",
       "rnodes":[{"port_wwn":"50000000000000b1","state":"DISAPPEARED"}]})");
    EXPECT_EQ(Get(0, 0), 0u);
    EXPECT_EQ(attr.PortState, 3u);
    EXPECT_TRUE(WwnIs(attr.PortWWN, 0x50000000000000b1));
}

TEST_F(DiscoveredPortsTest, UninitAndDisappearedRemoteNodesAreNotCounted) {
    Use(R"({"port_num":0,"port_wwn":"20000000000000a0","lnode_id":1,
       "rnodes":[{"port_wwn":"50000000000000b1","state":"UNINIT"},
                 {"port_wwn":"50000000000000b2","state":"DISAPPEARED"},
                 {"port_wwn":"50000000000000b3"}]})");
    EXPECT_EQ(Get(0, 0), 0u);
    EXPECT_TRUE(WwnIs(attr.PortWWN, 0x50000000000000b3));
    EXPECT_EQ(attr.PortState, 2u);
}

TEST_F(DiscoveredPortsTest, LaterMatchOverwritesTheSkippedNodesWrites) {
    Use(kPort0);
    EXPECT_EQ(Get(0, 1), 0u);
    EXPECT_TRUE(WwnIs(attr.PortWWN, 0x50000000000000b4));
    EXPECT_EQ(attr.PortState, 2u);
}

TEST_F(DiscoveredPortsTest, PortIndexBeyondTheLastPortAnswersZeroUntouched) {
    Use(kPort0);
    EXPECT_EQ(Get(5, 0), 0u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 0u);
}

TEST_F(DiscoveredPortsTest, FailedLocalNodeQueryAnswersIllegalIndex) {
    Use(kPort0);
    tusksim_add_fault("tusk_get_lnode_info", 1, -5, 0);
    EXPECT_EQ(Get(0, 0), 6u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
}

TEST_F(DiscoveredPortsTest, FailedRemoteQueryEndsThatPortsWalkOnly) {
    Use(std::string(kPort0) + "," + kPort1);
    tusksim_add_fault("tusk_get_rnode_info", 1, -5, 0);
    EXPECT_EQ(Get(0, 0), 0u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
    // The local-node walk went on to the end of the list.
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 3u);
}

TEST_F(DiscoveredPortsTest, FoundTargetEndsBothWalks) {
    Use(std::string(kPort0) + "," + kPort1);
    EXPECT_EQ(Get(0, 0), 0u);
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 1u);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 1u);
}

TEST_F(DiscoveredPortsTest, RoleWithoutNulInItsFieldIsNoTarget) {
    // 48 letters fill the role field with no NUL after them.
    Use(R"({"port_num":0,"port_wwn":"20000000000000a0","lnode_id":1,
       "rnodes":[{"port_wwn":"50000000000000b1",
         "raw":[{"offset":13,"hex":")" + Letters(48, "58") + R"("}]},
                 {"port_wwn":"50000000000000b2"}]})");
    EXPECT_EQ(Get(0, 0), 0u);
    EXPECT_TRUE(WwnIs(attr.PortWWN, 0x50000000000000b2));
}

TEST_F(DiscoveredPortsTest, StateWithoutNulInItsFieldIsReadBoundedly) {
    const std::string hex = Letters(32, "59");  // 32 letters, no NUL
    Use(R"({"port_num":0,"port_wwn":"20000000000000a0","lnode_id":1,
       "rnodes":[{"port_wwn":"50000000000000b1","raw":[{"offset":1600,"hex":")" + hex + R"("}]}]})");
    EXPECT_EQ(Get(0, 0), 0u);
    EXPECT_EQ(attr.PortState, 3u);
}

// Lookup by WWN.

TEST_F(DiscoveredPortsTest, ByWwnOfTheFirstLocalPortAnswersWithTheNextPort) {
    Use(std::string(kPort0) + "," + kPort1);
    EXPECT_EQ(ByWwn(0x20000000000000a0), 0u);
    // The port-attribute function was called with index 1.
    EXPECT_TRUE(WwnIs(attr.PortWWN, 0x20000000000000c0));
    EXPECT_STREQ(attr.OSDeviceName, "/sys/class/fc_host/host4");
}

TEST_F(DiscoveredPortsTest, ByWwnOfTheLastLocalPortAsksForAPortPastTheEnd) {
    Use(std::string(kPort0) + "," + kPort1);
    EXPECT_EQ(ByWwn(0x20000000000000c0), 0u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
}

TEST_F(DiscoveredPortsTest, ByWwnOfATargetAnswersWithTheNextTargetOfTheNextPort) {
    Use(std::string(kPort0) + "," + kPort1 + "," +
        R"({"port_num":1,"port_wwn":"20000000000000e0","lnode_id":3,"num_rnodes":3,
            "rnodes":[{"port_wwn":"50000000000000f1"},{"port_wwn":"50000000000000f2"},
                      {"port_wwn":"50000000000000f3"}]})");
    // b1 is the first target counted (t = 1) while p = 1: the discovered
    // function is asked for port 1, target 1 -> d2.
    EXPECT_EQ(ByWwn(0x50000000000000b1), 0u);
    EXPECT_TRUE(WwnIs(attr.PortWWN, 0x50000000000000d2));
}

TEST_F(DiscoveredPortsTest, ByWwnTargetCounterRunsOnOverEveryPort) {
    Use(std::string(kPort0) + "," + kPort1 + "," +
        R"({"port_num":1,"port_wwn":"20000000000000e0","lnode_id":3,"num_rnodes":9,
            "rnodes":[{"port_wwn":"50000000000000f1"},{"port_wwn":"50000000000000f2"},
                      {"port_wwn":"50000000000000f3"},{"port_wwn":"50000000000000f4"},
                      {"port_wwn":"50000000000000f5"},{"port_wwn":"50000000000000f6"},
                      {"port_wwn":"50000000000000f7"},{"port_wwn":"50000000000000f8"}]})");
    // Each local node's query lists every remote node of the adapter; the
    // live targets are b1, b4, d1, d2, f1..f8 (12). While port 1 is looked
    // at, t ran 1..12 without a match; at port 2 it goes on, 13 for b1 ...
    // d1 is the third live target: found at p = 1 with t = 3 -> port 1,
    // target 3 (it has only two): nothing answered.
    EXPECT_EQ(ByWwn(0x50000000000000d1), 0u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
    // f1 is the fifth: port 1, target 5 does not exist either.
    Fill(&attr, sizeof attr);
    EXPECT_EQ(ByWwn(0x50000000000000f1), 0u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
}

TEST_F(DiscoveredPortsTest, ByWwnNotFoundAnswersIllegalIndex) {
    Use(std::string(kPort0) + "," + kPort1);
    EXPECT_EQ(ByWwn(0x5000000000000099), 6u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
    EXPECT_EQ(out, "");
}

TEST_F(DiscoveredPortsTest, ByWwnOfAnOfflineTargetIsNotFound) {
    Use(kPort0);
    EXPECT_EQ(ByWwn(0x50000000000000b3), 6u);
}

TEST_F(DiscoveredPortsTest, ByWwnCountsAnUninitTarget) {
    Use(R"({"port_num":0,"port_wwn":"20000000000000a0","lnode_id":1,
       "rnodes":[{"port_wwn":"50000000000000b1","state":"UNINIT"},{"port_wwn":"50000000000000b2"}]},
       {"port_num":1,"port_wwn":"20000000000000c0","lnode_id":2,
       "rnodes":[{"port_wwn":"50000000000000d1"},{"port_wwn":"50000000000000d2"},
                 {"port_wwn":"50000000000000d3"}]})");
    // The UNINIT node is counted (t = 1), so b2 is t = 2: port 1, target 2.
    EXPECT_EQ(ByWwn(0x50000000000000b2), 0u);
    EXPECT_TRUE(WwnIs(attr.PortWWN, 0x50000000000000d3));
}

TEST_F(DiscoveredPortsTest, ByWwnPassesTheDriversStatusOfAFailedLocalQuery) {
    Use(kPort0);
    tusksim_add_fault("tusk_get_lnode_info", 1, -5, 0);
    EXPECT_EQ(ByWwn(0x20000000000000a0), static_cast<HBA_STATUS>(-5));
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
}

TEST_F(DiscoveredPortsTest, ByWwnGoesOnAfterAFailedRemoteQuery) {
    Use(std::string(kPort0) + "," + kPort1);
    tusksim_add_fault("tusk_get_rnode_info", 1, -5, 0);
    // The first port's remote walk fails; at the second port (p = 2) the
    // WWN is found among the remote nodes as the first counted target.
    EXPECT_EQ(ByWwn(0x50000000000000b1), 0u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));  // port 2 does not exist
    EXPECT_GE(Calls("tusk_get_rnode_info"), 2u);
}

TEST_F(DiscoveredPortsTest, ByWwnAsksRemoteNodesOfNoParticularLocalNode) {
    Use(std::string(kPort0) + "," + kPort1);
    // d1 belongs to port 1, but the query from port 0 already lists it.
    EXPECT_EQ(ByWwn(0x50000000000000d1), 0u);
    // One local-node query for the search, three for the discovered-port
    // walk to the end of the list.
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 1u + 3u);
}

}  // namespace
