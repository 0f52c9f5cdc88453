// Port and remote-port statistics.
#include <cstring>
#include <string>

#include "mirvak/hba_plugin.h"
#include "mirvak/mgmt.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::Calls;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::Untouched;

// Local-node words at 1409, 1413, ..., 1437: base + offset.
std::string LWords(uint32_t base) {
    std::string s = "[";
    for (uint32_t off = 1409; off <= 1437; off += 4) s += (off == 1409 ? "" : ",") + std::to_string(base + off);
    return s + "]";
}
// Quads at 1633, 1641, 1649, 1657: base + offset, above 32 bits.
std::string Quads(uint64_t base) {
    std::string s = "[";
    for (uint64_t off = 1633; off <= 1657; off += 8) s += (off == 1633 ? "" : ",") + std::to_string(base + off);
    return s + "]";
}
// Remote-node words at 1408, 1412, ..., 1440: base + offset.
std::string RWords(uint32_t base) {
    std::string s = "[";
    for (uint32_t off = 1408; off <= 1440; off += 4) s += (off == 1408 ? "" : ",") + std::to_string(base + off);
    return s + "]";
}

std::string Lnode(const std::string& fields, uint32_t base, const std::string& rnodes = "") {
    return "{" + fields + R"(,"words":)" + LWords(base) + R"(,"quads":)" +
           Quads(uint64_t{base} * 1000000 + 0x100000000ull) + R"(,"rnodes":[)" + rnodes + "]}";
}

std::string Rnode(const std::string& fields, uint32_t base) {
    return "{" + fields + R"(,"words":)" + RWords(base) + "}";
}

// Physical port 0 (P0): an initiator that shares t1's WWPN, then targets
// t0 "Target" and t1 "TARGET". Physical port 1 (P1): targets u0, u1. A
// virtual port V1 on port 1: target v0 "tArGeT".
std::string Chain() {
    return Lnode(R"("port_num":0,"port_wwn":"2000000000000b00","lnode_id":1)", 100000,
                 Rnode(R"("role":"initiator","port_wwn":"5000000000000002")", 1000000) + "," +
                     Rnode(R"("role":"Target","port_wwn":"5000000000000001")", 1100000) + "," +
                     Rnode(R"("role":"TARGET","port_wwn":"5000000000000002","state":"OFFLINE")", 1200000)) +
           "," +
           Lnode(R"("port_num":1,"port_wwn":"2000000000000b01","lnode_id":2)", 200000,
                 Rnode(R"("role":"target","port_wwn":"5000000000000011")", 2100000) + "," +
                     Rnode(R"("role":"target","port_wwn":"5000000000000012")", 2200000)) +
           "," +
           Lnode(R"("port_num":1,"port_wwn":"2800000000000b01","lnode_id":3,"parent":"2000000000000b01")", 300000,
                 Rnode(R"("role":"tArGeT","port_wwn":"5000000000000021")", 3100000));
}

std::string Fabric(const std::string& lnodes) {
    return R"({"adapters":[{"instance":2,"hw":{"ports":[{"speed":8},{"speed":16}]},"lnodes":[)" + lnodes + "]}]}";
}

const uint8_t kP0[8] = {0x20, 0, 0, 0, 0, 0, 0x0b, 0x00};
const uint8_t kP1[8] = {0x20, 0, 0, 0, 0, 0, 0x0b, 0x01};
const uint8_t kV1[8] = {0x28, 0, 0, 0, 0, 0, 0x0b, 0x01};
const uint8_t kT1[8] = {0x50, 0, 0, 0, 0, 0, 0x00, 0x02};
const uint8_t kV0[8] = {0x50, 0, 0, 0, 0, 0, 0x00, 0x21};
const uint8_t kNone[8] = {0x50, 0, 0, 0, 0, 0, 0x00, 0x99};

class StatsTest : public testenv::SimTest {
protected:
    void Use(const std::string& lnodes) {
        UseFabric(Fabric(lnodes));
        handle = mirvak_OpenAdapter("/dev/tuskstor2");
        ASSERT_NE(handle, 0xFFFFFFFFu);
        testenv::ResetCalls();
        Fill(&stats, sizeof stats);
    }
    void TearDown() override {
        if (handle != 0xFFFFFFFFu) mirvak_CloseAdapter(handle);
        SimTest::TearDown();
    }
    const uint8_t* bytes() const { return reinterpret_cast<const uint8_t*>(&stats); }

    // counter0..counter7 of a local node whose words are base + offset.
    void ExpectLocalCounters(uint32_t base) {
        EXPECT_EQ(stats.counter0, base + 1417);
        EXPECT_EQ(stats.counter1, base + 1421);
        EXPECT_EQ(stats.counter2, base + 1429);
        EXPECT_EQ(stats.counter3, base + 1433);
        EXPECT_EQ(stats.counter4, base + 1409);
        EXPECT_EQ(stats.counter5, base + 1413);
        EXPECT_EQ(stats.counter6, base + 1425);
        EXPECT_EQ(stats.counter7, base + 1437);
    }
    // counter0..counter3 and rcounter0..rcounter3 of a remote node.
    void ExpectRemoteCounters(uint32_t base) {
        EXPECT_EQ(stats.counter0, base + 1424);
        EXPECT_EQ(stats.counter1, base + 1432);
        EXPECT_EQ(stats.counter2, base + 1436);
        EXPECT_EQ(stats.counter3, base + 1440);
        EXPECT_EQ(stats.rcounter0, base + 1408);
        EXPECT_EQ(stats.rcounter1, base + 1412);
        EXPECT_EQ(stats.rcounter2, base + 1416);
        EXPECT_EQ(stats.rcounter3, base + 1420);
    }
    bool HbaStatsZero() const {
        for (std::size_t i = 0; i < sizeof stats.hba_stats; ++i) {
            if (bytes()[280 + i] != 0) return false;
        }
        return true;
    }
    // Remote-port statistics never write the reserved head, hba_stats or
    // counter4..counter7.
    void ExpectRemoteLeavesLocalFields() {
        EXPECT_TRUE(Untouched(stats.reserved_0, 256));
        EXPECT_TRUE(Untouched(bytes() + 280, 120 + 16));
    }

    HBA_HANDLE handle = 0xFFFFFFFFu;
    port_stats stats;
    std::string out;
};

// ---- mirvak_GetKXPortStatistics ----

class PortStatsTest : public StatsTest {
protected:
    void Key(const uint8_t* wwn, uint32_t port_num) {
        std::memset(&key, 0, sizeof key);
        if (wwn != nullptr) std::memcpy(key.attributes.PortWWN.wwn, wwn, 8);
        key.port_num = port_num;
    }
    HBA_UINT32 Get() {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetKXPortStatistics(handle, &key, &stats); });
        return st;
    }
    // Only hba_stats was written, and it is all zero.
    void ExpectOnlyHbaStatsCleared() {
        EXPECT_TRUE(HbaStatsZero());
        EXPECT_TRUE(Untouched(&stats, 280));
        EXPECT_TRUE(Untouched(bytes() + 400, 32));
    }
    port_info key;
};

TEST_F(PortStatsTest, PhysicalPortGetsFrameCountsAndInterleavedCounters) {
    Use(Chain());
    Key(nullptr, 0);
    EXPECT_EQ(Get(), 0u);
    const int64_t q = 100000LL * 1000000 + 0x100000000LL;
    EXPECT_EQ(stats.hba_stats.TxFrames, q + 1641);
    EXPECT_EQ(stats.hba_stats.TxWords, q + 1633);
    EXPECT_EQ(stats.hba_stats.RxFrames, q + 1657);
    EXPECT_EQ(stats.hba_stats.RxWords, q + 1649);
    ExpectLocalCounters(100000);
    EXPECT_EQ(out, "");
}

TEST_F(PortStatsTest, EveryOtherStandardCounterIsZero) {
    Use(Chain());
    Key(nullptr, 0);
    EXPECT_EQ(Get(), 0u);
    const HBA_PORTSTATISTICS& s = stats.hba_stats;
    EXPECT_EQ(s.SecondsSinceLastReset, 0);
    EXPECT_EQ(s.LIPCount, 0);
    EXPECT_EQ(s.NOSCount, 0);
    EXPECT_EQ(s.ErrorFrames, 0);
    EXPECT_EQ(s.DumpedFrames, 0);
    EXPECT_EQ(s.LinkFailureCount, 0);
    EXPECT_EQ(s.LossOfSyncCount, 0);
    EXPECT_EQ(s.LossOfSignalCount, 0);
    EXPECT_EQ(s.PrimitiveSeqProtocolErrCount, 0);
    EXPECT_EQ(s.InvalidTxWordCount, 0);
    EXPECT_EQ(s.InvalidCRCCount, 0);
}

TEST_F(PortStatsTest, LeavesTheHeadAndTheRemoteCounters) {
    Use(Chain());
    Key(nullptr, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_TRUE(Untouched(stats.reserved_0, 256));
    EXPECT_TRUE(Untouched(&stats.port_num, 4));
    EXPECT_TRUE(Untouched(&stats.rport_index, 4));
    EXPECT_TRUE(Untouched(bytes() + 416, 16));
}

TEST_F(PortStatsTest, KeyWwnSelectsThePort) {
    Use(Chain());
    Key(kV1, 0);
    EXPECT_EQ(Get(), 0u);
    ExpectLocalCounters(300000);
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 3u);
}

TEST_F(PortStatsTest, KeyWithoutWwnSelectsByPortNumber) {
    Use(Chain());
    const uint8_t no_wwn[8] = {0, 0, 0, 0, 0, 0, 0x0b, 0x00};  // the rest names P0
    Key(no_wwn, 1);
    EXPECT_EQ(Get(), 0u);
    ExpectLocalCounters(200000);
}

TEST_F(PortStatsTest, UninitPortWithoutLiveDuplicateIsOffline) {
    Use(Lnode(R"("port_wwn":"2000000000000b00","lnode_id":1,"state":"UNINIT")", 100000));
    Key(nullptr, 0);
    EXPECT_EQ(Get(), 100u);
    ExpectOnlyHbaStatsCleared();
}

TEST_F(PortStatsTest, OfflinePortIsOffline) {
    Use(Lnode(R"("port_wwn":"2000000000000b00","lnode_id":1,"state":"OFFLINE")", 100000));
    Key(kP0, 0);
    EXPECT_EQ(Get(), 100u);
    ExpectOnlyHbaStatsCleared();
}

TEST_F(PortStatsTest, StaleEntryIsReplacedByItsLiveDuplicate) {
    Use(Lnode(R"("port_wwn":"2000000000000b00","lnode_id":1,"state":"OFFLINE")", 100000) + "," +
        Lnode(R"("port_wwn":"2000000000000b01","lnode_id":2)", 200000) + "," +
        Lnode(R"("port_wwn":"2000000000000b00","lnode_id":3)", 300000));
    Key(nullptr, 0);
    EXPECT_EQ(Get(), 0u);
    ExpectLocalCounters(300000);
    EXPECT_EQ(stats.hba_stats.TxWords, 300000LL * 1000000 + 0x100000000LL + 1633);
}

TEST_F(PortStatsTest, OtherStateWordsAreReported) {
    Use(Lnode(R"("port_wwn":"2000000000000b00","lnode_id":1,"state":"LINKDOWN")", 100000));
    Key(nullptr, 0);
    EXPECT_EQ(Get(), 0u);
    ExpectLocalCounters(100000);
}

TEST_F(PortStatsTest, StateWithoutNulIsNotReadPastItsField) {
    // "OFFLINE" followed by non-NUL bytes to the end of the field is not
    // the word "OFFLINE".
    std::string hex = "4f 46 46 4c 49 4e 45";
    for (int i = 7; i < 32; ++i) hex += " 58";
    Use(Lnode(R"("port_wwn":"2000000000000b00","lnode_id":1,"raw":[{"offset":1601,"hex":")" + hex + R"("}])",
              100000));
    Key(nullptr, 0);
    EXPECT_EQ(Get(), 0u);
    ExpectLocalCounters(100000);
}

TEST_F(PortStatsTest, ListClosingBeforeThePortAnswersZeroWithOnlyHbaStatsCleared) {
    Use(Chain());
    Key(nullptr, 3);
    EXPECT_EQ(Get(), 0u);
    ExpectOnlyHbaStatsCleared();
    EXPECT_EQ(out, "");
}

TEST_F(PortStatsTest, UnknownWwnAnswersZeroWithOnlyHbaStatsCleared) {
    Use(Chain());
    Key(kNone, 0);
    EXPECT_EQ(Get(), 0u);
    ExpectOnlyHbaStatsCleared();
}

TEST_F(PortStatsTest, FailedNodeQueryBeforeThePortIsIllegalIndex) {
    Use(Chain());
    Key(nullptr, 1);
    tusksim_add_fault("tusk_get_lnode_info", 2, 14, 0);
    EXPECT_EQ(Get(), 6u);
    ExpectOnlyHbaStatsCleared();
}

TEST_F(PortStatsTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Use(Chain());
    Key(nullptr, 0);
    EXPECT_EQ(mirvak_GetKXPortStatistics(0xFFFFFFFFu, &key, &stats), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ---- mirvak_GetKXVPortStatistics ----

class VPortStatsTest : public StatsTest {
protected:
    HBA_UINT32 Get(const uint8_t* wwpn) {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetKXVPortStatistics(handle, wwpn, &stats); });
        return st;
    }
};

TEST_F(VPortStatsTest, VirtualPortGetsItsCountersAndNoFrameCounts) {
    Use(Chain());
    EXPECT_EQ(Get(kV1), 0u);
    ExpectLocalCounters(300000);
    EXPECT_TRUE(HbaStatsZero());
    EXPECT_TRUE(Untouched(&stats, 264));
    EXPECT_TRUE(Untouched(bytes() + 416, 16));
    EXPECT_EQ(out, "");
    EXPECT_EQ(Calls("tusk_get_lnode_info_by_fcid"), 1u);
    EXPECT_EQ(tusksim_call_total(), 1u);
}

TEST_F(VPortStatsTest, UnknownWwpnIsReportedWithTheDriversStatus) {
    Use(Chain());
    EXPECT_EQ(Get(kNone), static_cast<HBA_UINT32>(-2));  // the simulated driver's -ENOENT
    EXPECT_EQ(out, "Invalid Virtual Port WWPN!\n");
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
}

TEST_F(VPortStatsTest, FailedLookupReturnsItsStatus) {
    Use(Chain());
    tusksim_add_fault("tusk_get_lnode_info_by_fcid", 1, 7, 0);
    EXPECT_EQ(Get(kV1), 7u);
    EXPECT_EQ(out, "Invalid Virtual Port WWPN!\n");
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
}

TEST_F(VPortStatsTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Use(Chain());
    EXPECT_EQ(mirvak_GetKXVPortStatistics(0xFFFFFFFFu, kV1, &stats), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ---- Remote-port statistics: the key ----

class RemoteStatsTest : public StatsTest {
protected:
    void Key(const uint8_t* vport, const uint8_t* rport, uint16_t port_num, uint16_t rport_index) {
        std::memset(&key, 0, sizeof key);
        if (vport != nullptr) std::memcpy(key.vport_wwpn, vport, 8);
        if (rport != nullptr) std::memcpy(key.rport_wwpn, rport, 8);
        key.port_num = port_num;
        key.rport_index = rport_index;
    }
    vport_in key;
};

// ---- mirvak_GetDiscoveredPortStats ----

class DiscoveredStatsTest : public RemoteStatsTest {
protected:
    HBA_UINT32 Get() {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetDiscoveredPortStats(handle, &key, &stats); });
        return st;
    }
};

TEST_F(DiscoveredStatsTest, ByWwpnsFindsTheTargetAndCountsTheTargetsBeforeIt) {
    Use(Chain());
    Key(kP0, kT1, 9, 9);  // the initiator with t1's WWPN is passed over
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(stats.rport_index, 1u);
    EXPECT_EQ(stats.port_num, 0u);
    ExpectRemoteCounters(1200000);
    ExpectRemoteLeavesLocalFields();
    EXPECT_EQ(out, "");
}

TEST_F(DiscoveredStatsTest, ByWwpnsOfAVirtualPort) {
    Use(Chain());
    Key(kV1, kV0, 0, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(stats.rport_index, 0u);
    EXPECT_EQ(stats.port_num, 1u);
    ExpectRemoteCounters(3100000);
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 0u);
}

TEST_F(DiscoveredStatsTest, UnknownLocalPortIsIllegalWwn) {
    Use(Chain());
    Key(kNone, kT1, 0, 0);
    EXPECT_EQ(Get(), 5u);
    EXPECT_EQ(out, "mirvak_GetDiscoveredPortStats:: Error Fetching LNode Info\n");
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 0u);
}

TEST_F(DiscoveredStatsTest, UnknownRemotePortIsIllegalIndex) {
    Use(Chain());
    Key(kP0, kNone, 0, 0);
    EXPECT_EQ(Get(), 6u);
    EXPECT_EQ(out, "mirvak_GetDiscoveredPortStats:: No RNode Info Obtained\n");
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
}

TEST_F(DiscoveredStatsTest, InitiatorWithTheWwpnIsNotATarget) {
    Use(Lnode(R"("port_wwn":"2000000000000b00","lnode_id":1)", 100000,
              Rnode(R"("role":"initiator","port_wwn":"5000000000000002")", 1000000)));
    Key(kP0, kT1, 0, 0);
    EXPECT_EQ(Get(), 6u);
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
}

TEST_F(DiscoveredStatsTest, OnlyTheVirtualPortWwnGivenFallsBackToTheIndexSearch) {
    Use(Chain());
    const uint8_t rport_not_given[8] = {0x00, 0, 0, 0, 0, 0, 0x00, 0x21};
    Key(kV1, rport_not_given, 1, 1);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(stats.rport_index, 1u);
    EXPECT_EQ(stats.port_num, 1u);
    ExpectRemoteCounters(2200000);  // u1, the second target of P1
}

TEST_F(DiscoveredStatsTest, OnlyTheRemotePortWwnGivenFallsBackToTheIndexSearch) {
    Use(Chain());
    Key(nullptr, kV0, 0, 0);
    EXPECT_EQ(Get(), 0u);
    ExpectRemoteCounters(1100000);  // t0, the first target of P0
}

TEST_F(DiscoveredStatsTest, ByIndexCountsTargetsOnlyInAnyLetterCase) {
    Use(Chain());
    Key(nullptr, nullptr, 0, 1);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(stats.rport_index, 1u);
    EXPECT_EQ(stats.port_num, 0u);
    ExpectRemoteCounters(1200000);
    ExpectRemoteLeavesLocalFields();
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 1u);
    EXPECT_EQ(out, "");
}

TEST_F(DiscoveredStatsTest, ByIndexPassesOverOtherPorts) {
    Use(Chain());
    Key(nullptr, nullptr, 1, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(stats.port_num, 1u);
    ExpectRemoteCounters(2100000);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 1u);  // P0's remote ports are not read
}

TEST_F(DiscoveredStatsTest, ByIndexNumbersEachLocalNodesTargetsFromZero) {
    // P1 has one target; V1, on the same port, has two: the index 1 is V1's
    // second target.
    Use(Lnode(R"("port_num":1,"port_wwn":"2000000000000b01","lnode_id":2)", 200000,
              Rnode(R"("port_wwn":"5000000000000011")", 2100000)) +
        "," +
        Lnode(R"("port_num":1,"port_wwn":"2800000000000b01","lnode_id":3)", 300000,
              Rnode(R"("port_wwn":"5000000000000021")", 3100000) + "," +
                  Rnode(R"("port_wwn":"5000000000000022")", 3200000)));
    Key(nullptr, nullptr, 1, 1);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(stats.rport_index, 1u);
    ExpectRemoteCounters(3200000);
}

TEST_F(DiscoveredStatsTest, ByIndexListClosingFirstAnswersZeroUnfilled) {
    Use(Chain());
    Key(nullptr, nullptr, 1, 2);  // P1 has targets 0 and 1, V1 only 0
    EXPECT_EQ(Get(), 0u);
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
    EXPECT_EQ(out, "");
}

TEST_F(DiscoveredStatsTest, ByIndexPortNumberBeyondEightBitsMatchesNoPort) {
    Use(Chain());
    Key(nullptr, nullptr, 256, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 0u);
}

TEST_F(DiscoveredStatsTest, ByIndexFailedNodeQueryIsReportedAndIllegalIndex) {
    Use(Chain());
    Key(nullptr, nullptr, 1, 0);
    tusksim_add_fault("tusk_get_lnode_info", 1, 3, 0);
    EXPECT_EQ(Get(), 6u);
    EXPECT_EQ(out,
              "mirvak_GetDiscoveredPortStats:: Error Fetching LNode Info"
              "mirvak_GetDiscoveredPortStats:: No RNode Info Obtained\n");
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
}

TEST_F(DiscoveredStatsTest, ByIndexFailedRemoteQueryMovesOnToTheNextNode) {
    Use(Chain());
    Key(nullptr, nullptr, 1, 0);
    tusksim_add_fault("tusk_get_rnode_info", 1, 3, 0);  // P1's first remote query
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(stats.port_num, 1u);
    ExpectRemoteCounters(3100000);  // v0, V1's first target
}

TEST_F(DiscoveredStatsTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Use(Chain());
    Key(kP0, kT1, 0, 0);
    EXPECT_EQ(mirvak_GetDiscoveredPortStats(0xFFFFFFFFu, &key, &stats), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ---- mirvak_GetRPortsStatsForVPort ----

class RPortsStatsTest : public RemoteStatsTest {
protected:
    HBA_UINT32 Get(const unsigned char* wwpn = kP1) {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetRPortsStatsForVPort(handle, wwpn, &stats, &key); });
        return st;
    }
};

TEST_F(RPortsStatsTest, ByWwpnsCopiesTheTargetsCountersAndTheKeysIndex) {
    Use(Chain());
    Key(kV1, kV0, 9, 7);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(stats.rport_index, 7u);
    EXPECT_TRUE(Untouched(&stats.port_num, 4));
    ExpectRemoteCounters(3100000);
    ExpectRemoteLeavesLocalFields();
    EXPECT_EQ(out, "");
}

TEST_F(RPortsStatsTest, TheWwpnArgumentIsNotRead) {
    Use(Chain());
    Key(kV1, kV0, 0, 0);
    EXPECT_EQ(Get(nullptr), 0u);
    ExpectRemoteCounters(3100000);
}

TEST_F(RPortsStatsTest, ByWwpnsPassesOverAnInitiatorWithTheWwpn) {
    Use(Chain());
    Key(kP0, kT1, 0, 3);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(stats.rport_index, 3u);
    ExpectRemoteCounters(1200000);
}

TEST_F(RPortsStatsTest, UnknownVirtualPortIsIllegalWwn) {
    Use(Chain());
    Key(kNone, kV0, 0, 0);
    EXPECT_EQ(Get(), 5u);
    EXPECT_EQ(out, "mirvak_GetRPortsStatsForVPort:: Error Fetching LNode Info\n");
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
}

TEST_F(RPortsStatsTest, UnknownRemotePortPrintsTheOtherFunctionsNameAndIsAnError) {
    Use(Chain());
    Key(kV1, kNone, 0, 0);
    EXPECT_EQ(Get(), 1u);
    EXPECT_EQ(out, "mirvak_GetDiscoveredPortStats:: No RNode Info Obtained\n");
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
}

TEST_F(RPortsStatsTest, ByIndexFoundButListClosingNormallyAnswersZeroUnfilled) {
    Use(Chain());
    Key(nullptr, nullptr, 0, 1);
    EXPECT_EQ(Get(), 0u);
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
    EXPECT_EQ(out, "");
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 4u);  // the walk goes on past the port found
}

TEST_F(RPortsStatsTest, ByIndexFoundThenFailedNodeQueryCopiesTheCounters) {
    Use(Chain());
    Key(nullptr, nullptr, 0, 1);
    tusksim_add_fault("tusk_get_lnode_info", 4, 3, 0);  // the closing record
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(out, "mirvak_GetRPortsStatsForVPort:: Error Fetching LNode Info");
    EXPECT_EQ(stats.rport_index, 1u);
    EXPECT_TRUE(Untouched(&stats.port_num, 4));
    ExpectRemoteCounters(1200000);  // t1
    ExpectRemoteLeavesLocalFields();
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 3u);  // only P0's; P1 and V1 are passed over
}

TEST_F(RPortsStatsTest, ByIndexCountersComeFromTheLastRemoteRecordRead) {
    // u0 is found on P1; V1, on the same port, is walked next with the
    // counter going on (its v0 is number 1, not 0), so the last record read
    // is V1's closing record, all zero.
    Use(Chain());
    Key(nullptr, nullptr, 1, 0);
    tusksim_add_fault("tusk_get_lnode_info", 4, 3, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(stats.rport_index, 0u);
    EXPECT_EQ(stats.counter0, 0u);
    EXPECT_EQ(stats.counter1, 0u);
    EXPECT_EQ(stats.counter2, 0u);
    EXPECT_EQ(stats.counter3, 0u);
    EXPECT_EQ(stats.rcounter0, 0u);
    EXPECT_EQ(stats.rcounter1, 0u);
    EXPECT_EQ(stats.rcounter2, 0u);
    EXPECT_EQ(stats.rcounter3, 0u);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 3u);  // u0, then V1's v0 and closing record
}

TEST_F(RPortsStatsTest, ByIndexPortWithoutTheTargetStopsTheSearch) {
    // P1 has targets 0 and 1; the search ends there, before V1.
    Use(Chain());
    Key(nullptr, nullptr, 1, 2);
    EXPECT_EQ(Get(), 1u);
    EXPECT_EQ(out, "mirvak_GetRPortsStatsForVPort:: No RNode Info Obtained\n");
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 2u);
}

TEST_F(RPortsStatsTest, ByIndexFailedNodeQueryBeforeAnyPortIsAnError) {
    Use(Chain());
    Key(nullptr, nullptr, 0, 0);
    tusksim_add_fault("tusk_get_lnode_info", 1, 3, 0);
    EXPECT_EQ(Get(), 1u);
    EXPECT_EQ(out, "mirvak_GetRPortsStatsForVPort:: Error Fetching LNode Info");
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
}

TEST_F(RPortsStatsTest, ByIndexNoPortWithTheNumberAnswersZeroUnfilled) {
    Use(Chain());
    Key(nullptr, nullptr, 7, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
    EXPECT_EQ(out, "");
}

TEST_F(RPortsStatsTest, OnlyOneWwnGivenFallsBackToTheIndexSearch) {
    Use(Chain());
    Key(kV1, nullptr, 1, 5);
    EXPECT_EQ(Get(), 1u);
    EXPECT_EQ(out, "mirvak_GetRPortsStatsForVPort:: No RNode Info Obtained\n");
    EXPECT_EQ(Calls("tusk_get_lnode_info_by_fcid"), 0u);
}

TEST_F(RPortsStatsTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Use(Chain());
    Key(kV1, kV0, 0, 0);
    EXPECT_EQ(mirvak_GetRPortsStatsForVPort(0xFFFFFFFFu, kV1, &stats, &key), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(&stats, sizeof stats));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

}  // namespace
