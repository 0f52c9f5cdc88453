// LUN information behind one target remote port of a local or virtual port.
#include <cstdlib>
#include <cstring>
#include <string>

#include "mirvak/hba_plugin.h"
#include "mirvak/host_view.h"
#include "mirvak/instance_map.h"
#include "mirvak/mgmt.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::Calls;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::Untouched;

// Port 0: physical L0 (host 10) with an initiator, then target r1 (LUNs
// 0 and 1, also in the newer block/ layout) and target r2 (one LUN); physical L1 on port 1 (host 11) with
// target r3; virtual V0 of L0, also on port 0 (host 12), with target r4;
// physical L2 on port 2 (host 13) with target r5 that has no LUNs.
const char* kFabric = R"({"adapters":[{"instance":2,"lnodes":[
  {"port_num":0,"port_wwn":"2100000000000a01","lnode_id":1,"scsi_host":10,"rnodes":[
     {"role":"initiator","port_wwn":"5000000000000000"},
     {"role":"Target","port_wwn":"5000000000000001","luns":[
        {"lun":0,"vendor":"ACME","block":"sdb","size":1000,"block_dir":true},
        {"lun":1,"vendor":"ACME","block":"sdc","size":2000,"block_dir":true}]},
     {"role":"TARGET","port_wwn":"5000000000000002","luns":[{"lun":4,"vendor":"BETA","block":"sdd","size":3000}]}]},
  {"port_num":1,"port_wwn":"2100000000000a02","lnode_id":2,"scsi_host":11,"rnodes":[
     {"role":"target","port_wwn":"5000000000000003","luns":[{"lun":5,"vendor":"DELTA","block":"sde","size":5000}]}]},
  {"port_num":0,"port_wwn":"2800000000000a01","lnode_id":3,"scsi_host":12,"parent":"2100000000000a01","rnodes":[
     {"role":"target","port_wwn":"5000000000000004","luns":[{"lun":0,"vendor":"GAMMA","block":"sdf","size":4000,"block_dir":true}]}]},
  {"port_num":2,"port_wwn":"2100000000000a03","lnode_id":4,"scsi_host":13,"rnodes":[
     {"role":"target","port_wwn":"5000000000000005"}]}]}]})";

const uint8_t kL0[8] = {0x21, 0, 0, 0, 0, 0, 0x0a, 0x01};
const uint8_t kV0[8] = {0x28, 0, 0, 0, 0, 0, 0x0a, 0x01};
const uint8_t kL2[8] = {0x21, 0, 0, 0, 0, 0, 0x0a, 0x03};
const uint8_t kR1[8] = {0x50, 0, 0, 0, 0, 0, 0, 0x01};
const uint8_t kR2[8] = {0x50, 0, 0, 0, 0, 0, 0, 0x02};
const uint8_t kR4[8] = {0x50, 0, 0, 0, 0, 0, 0, 0x04};
const uint8_t kR5[8] = {0x50, 0, 0, 0, 0, 0, 0, 0x05};

class LunTest : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        UseFabric(kFabric);
        handle = mirvak_OpenAdapter("/dev/tuskstor2");
        ASSERT_NE(handle, 0xFFFFFFFFu);
        testenv::ResetCalls();
        Fill(luns, sizeof luns);
        std::memset(&key, 0, sizeof key);
        std::strcpy(key.adapter_name, "/dev/tuskstor2");
    }
    void TearDown() override {
        if (handle != 0xFFFFFFFFu) mirvak_CloseAdapter(handle);
        SimTest::TearDown();
    }
    void Key(uint16_t port_num, uint16_t rport_index, const uint8_t* vport = nullptr, const uint8_t* rport = nullptr) {
        key.port_num = port_num;
        key.rport_index = rport_index;
        if (vport != nullptr) std::memcpy(key.vport_wwpn, vport, 8);
        if (rport != nullptr) std::memcpy(key.rport_wwpn, rport, 8);
    }
    // Record i holds this LUN; its first 8 bytes stay as they were.
    void ExpectLun(std::size_t i, const char* hctl, const char* device, const char* vendor, uint64_t size) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(Untouched(luns[i].reserved_0, 8));
        EXPECT_EQ(std::string(luns[i].hctl), hctl);
        EXPECT_EQ(std::string(luns[i].device), device);
        EXPECT_EQ(std::string(luns[i].vendor), vendor);
        EXPECT_EQ(luns[i].size, size);
    }
    HBA_HANDLE handle = 0xFFFFFFFFu;
    vport_in key;
    lun_info luns[4];
    std::string out;
};

// What the LUN discovery prints for each LUN it finds.
std::string Btl(const char* hctl) { return std::string("BTL info Bus:port:target:lun -> ") + hctl + "\n"; }

// What the host's LUN discovery itself prints for a pair of ports (the
// order of a target's LUNs is the directory's), and the records it gives.
std::string HostInfo(const uint8_t* local, const uint8_t* remote, lun_info* into = nullptr) {
    static lun_info scratch[8];
    return CaptureOut([&] { getLuninfo(into ? into : scratch, charArrayToLong(local), charArrayToLong(remote)); });
}
std::string HostVport(const uint8_t* local, const uint8_t* remote) {
    lun_info* array = nullptr;
    unsigned int n = 0;
    const std::string text =
        CaptureOut([&] { getVportLuninfo(&array, charArrayToLong(local), charArrayToLong(remote), &n); });
    std::free(array);
    return text;
}
std::string HostCount(const uint8_t* local, const uint8_t* remote) {
    return CaptureOut([&] { getNumLuns(charArrayToLong(local), charArrayToLong(remote)); });
}

// ---- mirvak_GetKXLunInfo ----

class LunInfoTest : public LunTest {
protected:
    HBA_UINT32 Get(int* unused = nullptr) {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetKXLunInfo(handle, &key, luns, unused); });
        return st;
    }
};

TEST_F(LunInfoTest, InvalidHandleIsRefusedBeforeAnything) {
    Key(0, 0, kL0, kR1);
    handle = 0xFFFFFFFFu;
    EXPECT_EQ(Get(), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(luns, sizeof luns));
    EXPECT_EQ(tusksim_call_total(), 0u);
    EXPECT_EQ(out, "");
}

TEST_F(LunInfoTest, BothWwnsGivenAskTheHostWithoutTheDriver) {
    Key(9, 9, kL0, kR2);
    EXPECT_EQ(Get(), 0u);
    ExpectLun(0, "10:0:1:4", "/dev/sdd", "BETA", 3000);
    EXPECT_TRUE(Untouched(&luns[1], 3 * sizeof(lun_info)));
    EXPECT_EQ(tusksim_call_total(), 0u);
    EXPECT_EQ(out, Btl("10:0:1:4"));
}

TEST_F(LunInfoTest, BothWwnsGivenForAPairWithoutLunsIsStillSuccess) {
    Key(0, 0, kL2, kR5);
    EXPECT_EQ(Get(), 0u);
    EXPECT_TRUE(Untouched(luns, sizeof luns));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

TEST_F(LunInfoTest, OneWwnAloneFallsBackToThePortNumber) {
    Key(1, 0, kL0, nullptr);
    EXPECT_EQ(Get(), 0u);
    ExpectLun(0, "11:0:0:5", "/dev/sde", "DELTA", 5000);
    EXPECT_GT(Calls("tusk_get_lnode_info"), 0u);
    std::memset(&key, 0, sizeof key);
    Key(1, 0, nullptr, kR1);
    EXPECT_EQ(Get(), 0u);
    EXPECT_GT(Calls("tusk_get_lnode_info"), 0u);
}

TEST_F(LunInfoTest, LastLocalNodeOfThePortWins) {
    // L0's target 0 (r1, two LUNs), then V0's target 0 (r4, one LUN) over it.
    lun_info first[4];
    Fill(first, sizeof first);
    const std::string r1_text = HostInfo(kL0, kR1, first);
    Key(0, 0);
    EXPECT_EQ(Get(), 0u);
    ExpectLun(0, "12:0:0:0", "/dev/sdf", "GAMMA", 4000);
    // r1's fill is bounded by the last node's count (1), which is what the
    // agent sized the array by: its second record is not written.
    EXPECT_TRUE(Untouched(&luns[1], 3 * sizeof(lun_info)));
    EXPECT_EQ(out, "Found LNode for LUN Discovery\n" + r1_text + "Found LNode for LUN Discovery\n" + Btl("12:0:0:0"));
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 5u);
}

TEST_F(LunInfoTest, InitiatorsTakeNoNumber) {
    Key(0, 1);  // L0's second target, r2
    Get();
    EXPECT_EQ(std::string(luns[0].device), "/dev/sdd");
}

TEST_F(LunInfoTest, LaterNodeWithoutTheTargetEndsTheSearchYetTheFoundOneCounts) {
    Key(0, 1);  // V0 has no second target
    EXPECT_EQ(Get(), 0u);
    ExpectLun(0, "10:0:1:4", "/dev/sdd", "BETA", 3000);
    EXPECT_EQ(out, "Found LNode for LUN Discovery\n" + Btl("10:0:1:4") + "Found LNode for LUN Discovery\n" +
                       "No RNode Info Found\n");
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 3u);
}

TEST_F(LunInfoTest, PortWithoutTheTargetIsAnError) {
    Key(1, 1);
    EXPECT_EQ(Get(), 1u);
    EXPECT_TRUE(Untouched(luns, sizeof luns));
    EXPECT_EQ(out, "Found LNode for LUN Discovery\nNo RNode Info Found\n");
}

TEST_F(LunInfoTest, TargetWithoutLunsIsFoundAndWritesNothing) {
    Key(2, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_TRUE(Untouched(luns, sizeof luns));
    EXPECT_EQ(out, "Found LNode for LUN Discovery\n");
}

TEST_F(LunInfoTest, NoLocalNodeOfThatPortIsZeroWhenTheListCloses) {
    Key(7, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_TRUE(Untouched(luns, sizeof luns));
    EXPECT_EQ(out, "");
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 5u);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 0u);
}

TEST_F(LunInfoTest, FailedLocalNodeQueryBeforeAnyTargetIsAnError) {
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, 5, 0), 0);
    Key(0, 0);
    EXPECT_EQ(Get(), 1u);
    EXPECT_TRUE(Untouched(luns, sizeof luns));
    EXPECT_EQ(out, "mirvak_GetKXLunInfo:: Error Fetching LNode Info");
}

TEST_F(LunInfoTest, FailedLocalNodeQueryAfterATargetKeepsIt) {
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 2, 5, 0), 0);
    lun_info want[4];
    Fill(want, sizeof want);
    const std::string r1_text = HostInfo(kL0, kR1, want);
    Key(0, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(std::memcmp(luns, want, sizeof luns), 0);
    EXPECT_EQ(out, "Found LNode for LUN Discovery\n" + r1_text + "mirvak_GetKXLunInfo:: Error Fetching LNode Info");
}

TEST_F(LunInfoTest, TheIntPointerIsNotUsed) {
    Key(0, 1);
    int unused = 0x5A5A5A5A;
    Get(&unused);
    EXPECT_EQ(unused, 0x5A5A5A5A);
}

// ---- mirvak_GetKXLunCount ----

class LunCountTest : public LunTest {
protected:
    HBA_UINT32 Get() {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetKXLunCount(handle, &key, &count); });
        return st;
    }
    int count = 0x5A5A5A5A;
};

TEST_F(LunCountTest, InvalidHandleIsRefusedBeforeAnything) {
    Key(0, 0);
    handle = 0xFFFFFFFFu;
    EXPECT_EQ(Get(), 0xFFFFFFFFu);
    EXPECT_EQ(count, 0x5A5A5A5A);
    EXPECT_EQ(tusksim_call_total(), 0u);
    EXPECT_EQ(out, "");
}

TEST_F(LunCountTest, BothWwnsGivenAskTheHostWithoutTheDriver) {
    Key(9, 9, kL0, kR1);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(tusksim_call_total(), 0u);
    EXPECT_EQ(out, HostCount(kL0, kR1));
}

TEST_F(LunCountTest, BothWwnsOfAPairWithoutLunsCountZero) {
    Key(0, 0, kV0, kR1);  // r1 is not behind V0
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(count, 0);
}

TEST_F(LunCountTest, LastLocalNodeOfThePortWins) {
    Key(0, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(out, "Found the LNode: 0\n" + HostCount(kL0, kR1) + "Found the LNode: 0\n" + HostCount(kV0, kR4) +
                       "Total Number of LUNS: 1:1\n");
}

TEST_F(LunCountTest, LaterNodeWithoutTheTargetEndsTheSearchYetTheFoundOneCounts) {
    Key(0, 1);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(out, "Found the LNode: 0\n" + HostCount(kL0, kR2) + "Found the LNode: 0\n" +
                       "No RNode Info Obtained\nTotal Number of LUNS: 1:1\n");
}

TEST_F(LunCountTest, PortWithoutTheTargetIsIllegalIndexWithACountOfZero) {
    Key(1, 1);
    EXPECT_EQ(Get(), 6u);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(out, "Found the LNode: 1\nNo RNode Info Obtained\nTotal Number of LUNS: 0:0\n");
}

TEST_F(LunCountTest, NoLocalNodeOfThatPortIsIllegalIndexWithACountOfZero) {
    Key(7, 0);
    EXPECT_EQ(Get(), 6u);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(out, "Total Number of LUNS: 0:0\n");
}

TEST_F(LunCountTest, TargetWithoutLunsIsFoundWithACountOfZero) {
    Key(2, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(out, "Found the LNode: 2\nTotal Number of LUNS: 0:1\n");
}

TEST_F(LunCountTest, FailedLocalNodeQueryIsIllegalIndex) {
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, 5, 0), 0);
    Key(0, 0);
    EXPECT_EQ(Get(), 6u);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(out, "mirvak_GetKXLunCount:: Error Fetching LNode Info"
                   "Total Number of LUNS: 0:0\n");
}

TEST_F(LunCountTest, FailedLocalNodeQueryAfterATargetKeepsItsCount) {
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 2, 5, 0), 0);
    Key(0, 0);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(out, "Found the LNode: 0\n" + HostCount(kL0, kR1) +
                       "mirvak_GetKXLunCount:: Error Fetching LNode Info"
                       "Total Number of LUNS: 2:1\n");
}

// ---- mirvak_GetKXVPortLunInfo_by_wwn ----

class VPortLunTest : public LunTest {
protected:
    void TearDown() override {
        std::free(array);
        LunTest::TearDown();
    }
    HBA_UINT32 Get(const uint8_t* local, const uint8_t* remote) {
        HBA_UINT32 st = 1;
        out = CaptureOut([&] { st = mirvak_GetKXVPortLunInfo_by_wwn(handle, local, remote, &array, &n); });
        return st;
    }
    lun_info* array = nullptr;
    unsigned int n = 0xA5A5A5A5u;
};

TEST_F(VPortLunTest, LunsOfThePairInANewArray) {
    EXPECT_EQ(Get(kL0, kR1), 0u);
    ASSERT_EQ(n, 2u);
    ASSERT_NE(array, nullptr);
    const std::string devices = std::string(array[0].device) + " " + array[1].device;
    EXPECT_TRUE(devices == "/dev/sdb /dev/sdc" || devices == "/dev/sdc /dev/sdb") << devices;
    const lun_info& c = std::string(array[0].device) == "/dev/sdc" ? array[0] : array[1];
    EXPECT_EQ(std::string(c.hctl), "10:0:0:1");
    EXPECT_EQ(c.size, 2000u);
    EXPECT_EQ(std::string(c.vendor), "ACME");
    EXPECT_TRUE(Untouched(array[0].reserved_0, 8, 0));
    EXPECT_EQ(tusksim_call_total(), 0u);
    EXPECT_EQ(out, HostVport(kL0, kR1));
}

TEST_F(VPortLunTest, VirtualPortsLuns) {
    EXPECT_EQ(Get(kV0, kR4), 0u);
    ASSERT_EQ(n, 1u);
    EXPECT_EQ(std::string(array[0].device), "/dev/sdf");
}

TEST_F(VPortLunTest, NoLunsIsZeroWithACountOfZero) {
    EXPECT_EQ(Get(kL2, kR5), 0u);
    EXPECT_EQ(n, 0u);
    std::free(array);  // the zero-length answer is the caller's to free
    array = nullptr;
    EXPECT_EQ(Get(kV0, kR1), 0u);
    EXPECT_EQ(n, 0u);
}

TEST_F(VPortLunTest, HandleIsNotLookedAt) {
    handle = 0xFFFFFFFFu;
    EXPECT_EQ(Get(kL0, kR2), 0u);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ---- Placeholders ----

TEST_F(LunTest, VPortLunInfoPlaceholderAnswersAnEmptyList) {
    lun_info* array = reinterpret_cast<lun_info*>(uintptr_t{0x1111});
    unsigned int n = 7;
    out = CaptureOut([&] { EXPECT_EQ(mirvak_GetKXVPortLunInfo(handle, 0, 0, 0, &array, &n), 0u); });
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(tusksim_call_total(), 0u);
    EXPECT_EQ(out, "");
}

TEST_F(LunTest, VPortLunInfoPlaceholderRefusesAnInvalidHandle) {
    lun_info* array = reinterpret_cast<lun_info*>(uintptr_t{0x1111});
    unsigned int n = 7;
    EXPECT_EQ(mirvak_GetKXVPortLunInfo(0xFFFFFFFFu, 1, 2, 3, &array, &n), 0xFFFFFFFFu);
    EXPECT_EQ(array, reinterpret_cast<lun_info*>(uintptr_t{0x1111}));
    EXPECT_EQ(n, 7u);
}

TEST_F(LunTest, RefreshDoesNothing) {
    out = CaptureOut([&] { EXPECT_EQ(mirvak_RefreshFCoESystem(), 0u); });
    EXPECT_EQ(tusksim_call_total(), 0u);
    EXPECT_EQ(out, "");
}

}  // namespace
