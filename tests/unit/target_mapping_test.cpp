// FCP target mapping and the reverse lookup of a LUN's device path.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "mirvak/fcp_mapping.h"
#include "sim/host/redirect.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::Fill;
using testenv::Untouched;

HBA_WWN Wwn(uint64_t v) {
    HBA_WWN w;
    for (int i = 0; i < 8; ++i) w.wwn[i] = static_cast<uint8_t>(v >> (56 - 8 * i));
    return w;
}

bool WwnIs(const uint8_t* w, uint64_t v) {
    const HBA_WWN e = Wwn(v);
    return std::memcmp(w, e.wwn, 8) == 0;
}

std::string Lun(int lun, const std::string& block, const std::string& extra = "") {
    return R"({"lun":)" + std::to_string(lun) + R"(,"block":")" + block + "\"" + extra + "}";
}

// Adapter 1 with two ports. Port 0 (SCSI host 2, WWPN ...a0) sees target A
// (...b1, SCSI target 1) and target B (...b2, SCSI target 2); port 1 (SCSI
// host 3) a WWPN ending in b0 and target C (...c1).
std::string Fabric(const std::string& a_luns, const std::string& b_luns, const std::string& c_luns = "",
                   const std::string& port1_wwn = "20000000000000b0") {
    return R"({"adapters":[{"instance":1,"hw":{"ports":[{"speed":10},{"speed":10}]},
      "fcfs":[{"fcf_index":1,"vlan":10,"fabric_name":"1000000000000001"}],
      "lnodes":[
       {"port_num":0,"port_wwn":"20000000000000a0","node_wwn":"10000000000000a0","lnode_id":1,"fcf_index":1,
        "scsi_host":2,
        "rnodes":[{"port_wwn":"50000000000000b1","node_wwn":"40000000000000b1","scsi_target":1,"luns":[)" +
           a_luns + R"(]},
                  {"port_wwn":"50000000000000b2","node_wwn":"40000000000000b2","scsi_target":2,"luns":[)" +
           b_luns + R"(]}]},
       {"port_num":1,"port_wwn":")" + port1_wwn + R"(","node_wwn":"10000000000000b0","lnode_id":2,"fcf_index":1,
        "scsi_host":3,
        "rnodes":[{"port_wwn":"50000000000000c1","node_wwn":"40000000000000c1","scsi_target":1,"luns":[)" +
           c_luns + "]}]}]}]}";
}

constexpr std::size_t kV1 = sizeof(MV_FCPSCSIENTRY);
constexpr std::size_t kV2 = sizeof(MV_FCPSCSIENTRYV2);
constexpr std::size_t kHead = 4;

class TargetMappingTest : public testenv::SimTest {
protected:
    void Use(const std::string& fabric) {
        UseFabric(fabric);
        handle = mirvak_OpenAdapter("/dev/tuskstor1");
        ASSERT_NE(handle, 0xFFFFFFFFu);
        testenv::ResetCalls();
    }
    void TearDown() override {
        if (handle != 0xFFFFFFFFu) mirvak_CloseAdapter(handle);
        testenv::SimTest::TearDown();
    }

    // A caller's record of `entries` entries, pre-filled with the pattern.
    std::vector<uint8_t> Record(std::size_t entry_size, std::size_t entries) {
        std::vector<uint8_t> r(kHead + entry_size * entries);
        Fill(r.data(), r.size());
        return r;
    }
    static uint32_t Count(const std::vector<uint8_t>& r) {
        uint32_t n;
        std::memcpy(&n, r.data(), 4);
        return n;
    }
    static void SetCount(std::vector<uint8_t>& r, uint32_t n) { std::memcpy(r.data(), &n, 4); }
    template <class E>
    static E Entry(const std::vector<uint8_t>& r, std::size_t i) {
        E e;
        std::memcpy(&e, r.data() + kHead + i * sizeof(E), sizeof e);
        return e;
    }

    HBA_HANDLE handle = 0xFFFFFFFFu;
};

// ---- The record's layout ----

TEST(FcpMappingRecords, EntriesArePackedFromByteFour) {
    EXPECT_EQ(offsetof(MV_FCPTARGETMAPPING, entry), 4u);
    EXPECT_EQ(sizeof(MV_FCPSCSIENTRY), 296u);
    EXPECT_EQ(sizeof(MV_FCPSCSIENTRYV2), 552u);
    EXPECT_EQ(offsetof(MV_FCPSCSIENTRYV2, LUID), 296u);
}

// ---- Version 1 ----

TEST_F(TargetMappingTest, InvalidHandleAnswersMinusOneAndWritesNothing) {
    Use(Fabric(Lun(0, "sdb"), ""));
    auto r = Record(kV1, 2);
    EXPECT_EQ(GetFCPTargetMapping(0xFFFFFFFFu, r.data(), 0, Wwn(0)), -1);
    EXPECT_EQ(mirvak_GetFCPTargetMappingv1(0xFFFFFFFFu, reinterpret_cast<MV_FCPTARGETMAPPING*>(r.data())),
              0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(r.data(), r.size()));
    EXPECT_EQ(testenv::Calls("tusk_get_hw_info"), 0u);
}

TEST_F(TargetMappingTest, VersionOneMapsEachLunOfATarget) {
    Use(Fabric(Lun(0, "sdb") + "," + Lun(1, "sdc"), ""));
    auto r = Record(kV1, 3);
    ASSERT_EQ(mirvak_GetFCPTargetMappingv1(handle, reinterpret_cast<MV_FCPTARGETMAPPING*>(r.data())), 0u);
    EXPECT_EQ(Count(r), 2u);
    const auto e0 = Entry<MV_FCPSCSIENTRY>(r, 0);
    const auto e1 = Entry<MV_FCPSCSIENTRY>(r, 1);
    EXPECT_STREQ(e0.ScsiId.OSDeviceName, "/dev/sdb");
    EXPECT_STREQ(e1.ScsiId.OSDeviceName, "/dev/sdc");
    // The template was cleared: the name field is zero after the path.
    for (std::size_t i = 8; i < 256; ++i) ASSERT_EQ(e1.ScsiId.OSDeviceName[i], 0) << i;
    EXPECT_EQ(e0.ScsiId.ScsiBusNumber, 2u);
    EXPECT_EQ(e0.ScsiId.ScsiTargetNumber, 1u);
    EXPECT_EQ(e0.ScsiId.ScsiOSLun, 0u);
    EXPECT_EQ(e1.ScsiId.ScsiOSLun, 1u);
    EXPECT_EQ(e0.FcpId.FcId, 0u);
    EXPECT_TRUE(WwnIs(e0.FcpId.NodeWWN, 0x40000000000000b1));
    EXPECT_TRUE(WwnIs(e0.FcpId.PortWWN, 0x50000000000000b1));
    EXPECT_EQ(e0.FcpId.FcpLun, 0u);
    EXPECT_EQ(e1.FcpId.FcpLun, 0x0001000000000000u);
    // Entry 2 is not written.
    EXPECT_TRUE(Untouched(r.data() + kHead + 2 * kV1, kV1));
}

TEST_F(TargetMappingTest, VersionOneClearsCountAndFirstEntryBeforeEachTarget) {
    // Target A has three LUNs, target B one: B's LUN lands in entry 0 with a
    // count of 1, and A's entries 1 and 2 stay as A wrote them.
    Use(Fabric(Lun(0, "sdb") + "," + Lun(1, "sdc") + "," + Lun(2, "sdd"), Lun(7, "sde")));
    auto r = Record(kV1, 4);
    ASSERT_EQ(mirvak_GetFCPTargetMappingv1(handle, reinterpret_cast<MV_FCPTARGETMAPPING*>(r.data())), 0u);
    EXPECT_EQ(Count(r), 1u);
    EXPECT_STREQ(Entry<MV_FCPSCSIENTRY>(r, 0).ScsiId.OSDeviceName, "/dev/sde");
    EXPECT_EQ(Entry<MV_FCPSCSIENTRY>(r, 0).FcpId.FcpLun, 7ull << 48);
    EXPECT_TRUE(WwnIs(Entry<MV_FCPSCSIENTRY>(r, 0).FcpId.PortWWN, 0x50000000000000b2));
    EXPECT_STREQ(Entry<MV_FCPSCSIENTRY>(r, 1).ScsiId.OSDeviceName, "/dev/sdc");
    EXPECT_STREQ(Entry<MV_FCPSCSIENTRY>(r, 2).ScsiId.OSDeviceName, "/dev/sdd");
    EXPECT_TRUE(Untouched(r.data() + kHead + 3 * kV1, kV1));
}

TEST_F(TargetMappingTest, VersionOneVisitsEveryPort) {
    // Port 1's target comes last: its single LUN is what entry 0 holds.
    Use(Fabric(Lun(0, "sdb"), "", Lun(4, "sdf")));
    auto r = Record(kV1, 2);
    ASSERT_EQ(mirvak_GetFCPTargetMappingv1(handle, reinterpret_cast<MV_FCPTARGETMAPPING*>(r.data())), 0u);
    EXPECT_EQ(Count(r), 1u);
    const auto e0 = Entry<MV_FCPSCSIENTRY>(r, 0);
    EXPECT_STREQ(e0.ScsiId.OSDeviceName, "/dev/sdf");
    EXPECT_EQ(e0.ScsiId.ScsiBusNumber, 3u);
    EXPECT_TRUE(WwnIs(e0.FcpId.PortWWN, 0x50000000000000c1));
}

TEST_F(TargetMappingTest, NoLunsLeavesTheRecordAlone) {
    Use(Fabric("", ""));
    auto r = Record(kV1, 1);
    ASSERT_EQ(mirvak_GetFCPTargetMappingv1(handle, reinterpret_cast<MV_FCPTARGETMAPPING*>(r.data())), 0u);
    EXPECT_TRUE(Untouched(r.data(), r.size()));
}

TEST_F(TargetMappingTest, DevicePathIsCopiedOverTheTargetsTemplate) {
    // The template is cleared once per target, and each path is copied over
    // it without its NUL: a shorter path keeps the longer one's tail.
    Use(Fabric(Lun(0, "sdaa") + "," + Lun(1, "sdb"), ""));
    auto r = Record(kV1, 2);
    ASSERT_EQ(mirvak_GetFCPTargetMappingv1(handle, reinterpret_cast<MV_FCPTARGETMAPPING*>(r.data())), 0u);
    EXPECT_STREQ(Entry<MV_FCPSCSIENTRY>(r, 0).ScsiId.OSDeviceName, "/dev/sdaa");
    EXPECT_STREQ(Entry<MV_FCPSCSIENTRY>(r, 1).ScsiId.OSDeviceName, "/dev/sdba");
}

TEST_F(TargetMappingTest, UnparsableAddressGivesZeroNumbers) {
    Use(Fabric(Lun(3, "sdb", R"(,"sysfs_name":"lun-three")"), ""));
    auto r = Record(kV1, 1);
    ASSERT_EQ(mirvak_GetFCPTargetMappingv1(handle, reinterpret_cast<MV_FCPTARGETMAPPING*>(r.data())), 0u);
    const auto e0 = Entry<MV_FCPSCSIENTRY>(r, 0);
    EXPECT_EQ(e0.ScsiId.ScsiBusNumber, 0u);
    EXPECT_EQ(e0.ScsiId.ScsiTargetNumber, 0u);
    EXPECT_EQ(e0.ScsiId.ScsiOSLun, 0u);
    EXPECT_EQ(e0.FcpId.FcpLun, 0u);
    EXPECT_STREQ(e0.ScsiId.OSDeviceName, "/dev/sdb");
}

TEST_F(TargetMappingTest, LunWithoutBlockDeviceDoesNotOverrunTheLunArray) {
    // Two LUN directories but only one block link: the array holds one
    // record and one entry is written.
    Use(Fabric(Lun(0, "") + "," + Lun(1, "sdc"), ""));
    auto r = Record(kV1, 2);
    ASSERT_EQ(mirvak_GetFCPTargetMappingv1(handle, reinterpret_cast<MV_FCPTARGETMAPPING*>(r.data())), 0u);
    EXPECT_EQ(Count(r), 1u);
    EXPECT_TRUE(Untouched(r.data() + kHead + kV1, kV1));
}

TEST_F(TargetMappingTest, AdapterAttributeFailureIsPassedOn) {
    Use(Fabric(Lun(0, "sdb"), ""));
    HBA_ADAPTERATTRIBUTES a;
    tusksim_add_fault("tusk_get_hw_info", 1, 5, 0);
    const HBA_STATUS expected = mirvak_GetAdapterAttributes(handle, &a);
    ASSERT_NE(expected, 0u);
    tusksim_add_fault("tusk_get_hw_info", 1, 5, 0);
    auto r = Record(kV1, 1);
    EXPECT_EQ(static_cast<HBA_STATUS>(GetFCPTargetMapping(handle, r.data(), 0, Wwn(0))), expected);
    EXPECT_TRUE(Untouched(r.data(), r.size()));
}

TEST_F(TargetMappingTest, PortAttributeFailureIsPassedOn) {
    Use(Fabric(Lun(0, "sdb"), ""));
    HBA_PORTATTRIBUTES p;
    tusksim_add_fault("tusk_get_lnode_info", 1, 7, 1);
    const HBA_STATUS expected = mirvak_GetAdapterPortAttributes(handle, 0, &p);
    ASSERT_NE(expected, 0u);
    auto r = Record(kV1, 1);
    EXPECT_EQ(static_cast<HBA_STATUS>(GetFCPTargetMapping(handle, r.data(), 0, Wwn(0))), expected);
    tusksim_clear_faults();
    EXPECT_TRUE(Untouched(r.data(), r.size()));
}

// ---- Version 2 ----

TEST_F(TargetMappingTest, VersionTwoOverwritesEarlierTargetsWhileCounting) {
    Use(Fabric(Lun(0, "sdb") + "," + Lun(1, "sdc"), Lun(0, "sdd") + "," + Lun(1, "sde")));
    auto r = Record(kV2, 3);
    SetCount(r, 0);
    ASSERT_EQ(mirvak_GetFCPTargetMappingv2(handle, Wwn(0x20000000000000a0),
                                           reinterpret_cast<MV_FCPTARGETMAPPINGV2*>(r.data())),
              0u);
    EXPECT_EQ(Count(r), 4u);
    const auto e0 = Entry<MV_FCPSCSIENTRYV2>(r, 0);
    const auto e1 = Entry<MV_FCPSCSIENTRYV2>(r, 1);
    EXPECT_STREQ(e0.ScsiId.OSDeviceName, "/dev/sdd");
    EXPECT_STREQ(e1.ScsiId.OSDeviceName, "/dev/sde");
    EXPECT_TRUE(WwnIs(e0.FcpId.PortWWN, 0x50000000000000b2));
    EXPECT_EQ(e1.FcpId.FcpLun, 0x0001000000000000u);
    EXPECT_TRUE(Untouched(r.data() + kHead + 2 * kV2, kV2));
}

TEST_F(TargetMappingTest, VersionTwoAddsToTheCallersCount) {
    Use(Fabric(Lun(0, "sdb"), ""));
    auto r = Record(kV2, 1);
    SetCount(r, 10);
    ASSERT_EQ(GetFCPTargetMapping(handle, r.data(), 1, Wwn(0x20000000000000a0)), 0);
    EXPECT_EQ(Count(r), 11u);
}

TEST_F(TargetMappingTest, VersionTwoMatchesPortsByTheLastByteOnly) {
    Use(Fabric(Lun(0, "sdb"), "", Lun(0, "sdc")));
    auto r = Record(kV2, 1);
    SetCount(r, 0);
    ASSERT_EQ(GetFCPTargetMapping(handle, r.data(), 1, Wwn(0x11111111111111b0)), 0);
    EXPECT_EQ(Count(r), 1u);
    EXPECT_STREQ(Entry<MV_FCPSCSIENTRYV2>(r, 0).ScsiId.OSDeviceName, "/dev/sdc");
}

TEST_F(TargetMappingTest, VersionTwoTakesOnlyTheFirstMatchingPort) {
    // Both ports end in a0; only port 0 is mapped.
    Use(Fabric(Lun(0, "sdb"), "", Lun(0, "sdc"), "21000000000000a0"));
    auto r = Record(kV2, 2);
    SetCount(r, 0);
    ASSERT_EQ(GetFCPTargetMapping(handle, r.data(), 1, Wwn(0x20000000000000a0)), 0);
    EXPECT_EQ(Count(r), 1u);
    EXPECT_STREQ(Entry<MV_FCPSCSIENTRYV2>(r, 0).ScsiId.OSDeviceName, "/dev/sdb");
    EXPECT_TRUE(Untouched(r.data() + kHead + kV2, kV2));
}

TEST_F(TargetMappingTest, VersionTwoWithNoMatchingPortWritesNothing) {
    Use(Fabric(Lun(0, "sdb"), "", Lun(0, "sdc")));
    auto r = Record(kV2, 1);
    ASSERT_EQ(GetFCPTargetMapping(handle, r.data(), 1, Wwn(0x20000000000000a1)), 0);
    EXPECT_TRUE(Untouched(r.data(), r.size()));
    EXPECT_EQ(mirvak_simsg_request_count(), 0u);
}

TEST_F(TargetMappingTest, VersionTwoDoesNotClearTheFirstEntry) {
    // Only version 1 clears the first 300 bytes before a target.
    Use(Fabric(Lun(0, "sdb") + "," + Lun(1, "sdc"), Lun(5, "sdd")));
    auto r = Record(kV2, 2);
    SetCount(r, 0);
    ASSERT_EQ(GetFCPTargetMapping(handle, r.data(), 1, Wwn(0x20000000000000a0)), 0);
    EXPECT_EQ(Count(r), 3u);
    EXPECT_STREQ(Entry<MV_FCPSCSIENTRYV2>(r, 0).ScsiId.OSDeviceName, "/dev/sdd");
    EXPECT_STREQ(Entry<MV_FCPSCSIENTRYV2>(r, 1).ScsiId.OSDeviceName, "/dev/sdc");
}

// ---- LUID ----

// A raw identification page: six head bytes (page code 0x83, the 32-bit
// length at byte 2) and then the designators, walked from byte 6.
std::string Page(const std::string& designators, const std::string& length = "00 00 00 ff",
                 const std::string& code = "83") {
    return R"(,"vpd83_raw":"00 )" + code + " " + length + (designators.empty() ? "" : " " + designators) + "\"";
}

std::vector<uint8_t> Luid(const MV_FCPSCSIENTRYV2& e) { return {e.LUID, e.LUID + 256}; }

std::vector<uint8_t> Expect(std::initializer_list<uint8_t> head) {
    std::vector<uint8_t> v(256, 0);
    std::copy(head.begin(), head.end(), v.begin());
    return v;
}

TEST_F(TargetMappingTest, LuidIsTheDesignatorOfHighestType) {
    Use(Fabric(Lun(0, "sdb", Page("02 01 00 02 41 42 01 03 00 01 99 02 02 00 01 07")), ""));
    auto r = Record(kV2, 1);
    ASSERT_EQ(GetFCPTargetMapping(handle, r.data(), 1, Wwn(0x20000000000000a0)), 0);
    EXPECT_EQ(Luid(Entry<MV_FCPSCSIENTRYV2>(r, 0)), Expect({0x01, 0x03, 0x00, 0x01, 0x99}));
    // The page was asked with EVPD, page 0x83 and 252 bytes announced.
    mirvak_simsg_request q;
    ASSERT_EQ(mirvak_simsg_last_request(&q), 0);
    EXPECT_STREQ(q.device, "/dev/sdb");
    const uint8_t cdb[6] = {0x12, 0x01, 0x83, 0x00, 0x00, 0x00};
    EXPECT_EQ(std::memcmp(q.cdb, cdb, 6), 0);
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 0u);
}

TEST_F(TargetMappingTest, LuidAmongEqualTypesIsTheShorter) {
    Use(Fabric(Lun(0, "sdb", Page("01 03 00 02 01 01 01 03 00 01 ff")), ""));
    auto r = Record(kV2, 1);
    ASSERT_EQ(GetFCPTargetMapping(handle, r.data(), 1, Wwn(0x20000000000000a0)), 0);
    EXPECT_EQ(Luid(Entry<MV_FCPSCSIENTRYV2>(r, 0)), Expect({0x01, 0x03, 0x00, 0x01, 0xff}));
}

TEST_F(TargetMappingTest, LuidAmongEqualLengthsIsTheLowerIdentifier) {
    Use(Fabric(Lun(0, "sdb", Page("01 03 00 02 05 01 01 03 00 02 05 00 01 03 00 02 06 00")), ""));
    auto r = Record(kV2, 1);
    ASSERT_EQ(GetFCPTargetMapping(handle, r.data(), 1, Wwn(0x20000000000000a0)), 0);
    EXPECT_EQ(Luid(Entry<MV_FCPSCSIENTRYV2>(r, 0)), Expect({0x01, 0x03, 0x00, 0x02, 0x05, 0x00}));
}

TEST_F(TargetMappingTest, LuidWalkStopsAtTheAnnouncedPageLength) {
    // A length of 5 covers the first designator only.
    Use(Fabric(Lun(0, "sdb", Page("01 01 00 01 11 01 03 00 01 22", "00 00 00 05")), ""));
    auto r = Record(kV2, 1);
    ASSERT_EQ(GetFCPTargetMapping(handle, r.data(), 1, Wwn(0x20000000000000a0)), 0);
    EXPECT_EQ(Luid(Entry<MV_FCPSCSIENTRYV2>(r, 0)), Expect({0x01, 0x01, 0x00, 0x01, 0x11}));
}

TEST_F(TargetMappingTest, LuidDesignatorPointingPastThePageEndsTheWalk) {
    // The only designator claims 200 bytes within a 10-byte page: no LUID.
    Use(Fabric(Lun(0, "sdb", Page("01 03 00 c8 01 02 03 04 05 06", "00 00 00 0a")), ""));
    auto r = Record(kV2, 1);
    SetCount(r, 0);
    ASSERT_EQ(GetFCPTargetMapping(handle, r.data(), 1, Wwn(0x20000000000000a0)), 0);
    EXPECT_EQ(Luid(Entry<MV_FCPSCSIENTRYV2>(r, 0)), std::vector<uint8_t>(256, 0));
    EXPECT_EQ(Count(r), 1u);
    EXPECT_STREQ(Entry<MV_FCPSCSIENTRYV2>(r, 0).ScsiId.OSDeviceName, "/dev/sdb");
}

TEST_F(TargetMappingTest, WrongPageCodeFailsWithOneAfterEarlierEntries) {
    // LUN 0's page is fine, LUN 1 answers another page: 1, with entry 0 kept
    // and entry 1 not written.
    Use(Fabric(Lun(0, "sdb") + "," + Lun(1, "sdc", Page("01 03 00 01 22", "00 00 00 05", "80")), ""));
    auto r = Record(kV2, 2);
    SetCount(r, 0);
    EXPECT_EQ(GetFCPTargetMapping(handle, r.data(), 1, Wwn(0x20000000000000a0)), 1);
    EXPECT_EQ(Count(r), 1u);
    EXPECT_STREQ(Entry<MV_FCPSCSIENTRYV2>(r, 0).ScsiId.OSDeviceName, "/dev/sdb");
    EXPECT_TRUE(Untouched(r.data() + kHead + kV2, kV2));
}

TEST_F(TargetMappingTest, DeviceThatCannotBeOpenedFailsWithOne) {
    Use(Fabric(Lun(0, "sdb", R"(,"no_device":true)"), ""));
    auto r = Record(kV2, 1);
    SetCount(r, 0);
    std::string err = testenv::CaptureErr([&] { EXPECT_EQ(GetFCPTargetMapping(handle, r.data(), 1,
                                                                              Wwn(0x20000000000000a0)), 1); });
    EXPECT_EQ(err.rfind("Error occured while opening the device ->: ", 0), 0u) << err;
    EXPECT_EQ(Count(r), 0u);
}

TEST_F(TargetMappingTest, DefaultDesignatorIsTheLuidSource) {
    // The device's own page (designators from byte 4) read from byte 6, as
    // the mapping always has: the LUID is whatever that walk picks, and it is
    // the same on every call.
    Use(Fabric(Lun(0, "sdb", R"(,"designators":[{"code_set":1,"type":3,"id":"60 0a 09 80 00 00 00 01"}])"), ""));
    auto r1 = Record(kV2, 1);
    auto r2 = Record(kV2, 1);
    ASSERT_EQ(GetFCPTargetMapping(handle, r1.data(), 1, Wwn(0x20000000000000a0)), 0);
    ASSERT_EQ(GetFCPTargetMapping(handle, r2.data(), 1, Wwn(0x20000000000000a0)), 0);
    EXPECT_EQ(Luid(Entry<MV_FCPSCSIENTRYV2>(r1, 0)), Luid(Entry<MV_FCPSCSIENTRYV2>(r2, 0)));
}

// ---- Reverse lookup ----

class DeviceLookupTest : public TargetMappingTest {
protected:
    std::string Lookup(uint64_t fcp_lun, uint64_t port, uint32_t first, int expect = 0) {
        Fill(out, sizeof out);
        EXPECT_EQ(GetDeviceFromFCPLunOrPortWWN(handle, static_cast<HBA_UINT64>(fcp_lun), 77, Wwn(port),
                                               Wwn(0x1234), out, first),
                  expect);
        std::size_t n = 0;
        while (n < sizeof out && static_cast<uint8_t>(out[n]) != 0xA5) ++n;
        return std::string(out, n);
    }
    char out[256];
};

TEST_F(DeviceLookupTest, FirstFlagGivesTheFirstLunOfTheFirstTarget) {
    Use(Fabric(Lun(3, "sdb") + "," + Lun(4, "sdc"), Lun(0, "sdd")));
    EXPECT_EQ(Lookup(0x0004000000000000, 0x20000000000000a0, 1), "/dev/sdb");  // no NUL written
}

TEST_F(DeviceLookupTest, FcpLunSelectsTheLunWhateverTheTargetWwn) {
    Use(Fabric(Lun(0, "sdb") + "," + Lun(1, "sdc"), Lun(2, "sdd")));
    EXPECT_EQ(Lookup(0x0001000000000000, 0x20000000000000a0, 0), "/dev/sdc");
    EXPECT_EQ(Lookup(0x0002000000000000, 0x20000000000000a0, 0), "/dev/sdd");
}

TEST_F(DeviceLookupTest, LaterTargetWithTheSameLunWritesOverTheEarlierPath) {
    Use(Fabric(Lun(0, "sdaa"), Lun(0, "sdc")));
    EXPECT_EQ(Lookup(0, 0x20000000000000a0, 0), "/dev/sdca");
}

TEST_F(DeviceLookupTest, NothingMatchingAnswersZeroAndLeavesTheBuffer) {
    Use(Fabric(Lun(0, "sdb"), ""));
    EXPECT_EQ(Lookup(0x0009000000000000, 0x20000000000000a0, 0), "");
    EXPECT_EQ(Lookup(0, 0x20000000000000a9, 1), "");
    EXPECT_TRUE(Untouched(out, sizeof out));
}

TEST_F(DeviceLookupTest, InvalidHandleAnswersMinusOne) {
    Use(Fabric(Lun(0, "sdb"), ""));
    Fill(out, sizeof out);
    EXPECT_EQ(GetDeviceFromFCPLunOrPortWWN(0xFFFFFFFFu, 0, 0, Wwn(0x20000000000000a0), Wwn(0), out, 1), -1);
    EXPECT_TRUE(Untouched(out, sizeof out));
}

TEST_F(DeviceLookupTest, PortMatchesByTheLastByte) {
    Use(Fabric(Lun(0, "sdb"), "", Lun(0, "sdc")));
    EXPECT_EQ(Lookup(0, 0xffffffffffffffb0, 1), "/dev/sdc");
}

}  // namespace
