// Port attributes of the standard face.
#include <cstring>
#include <filesystem>
#include <string>

#include "mirvak/hba_plugin.h"
#include "mirvak/port_helpers.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::Calls;
using testenv::CaptureErr;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::Untouched;

// One adapter; port table: port 0 speed 8, port 1 speed 3 (not in the
// table), port 2 disabled. FCFs 7 (vlan 10) and 9 (vlan 20).
std::string Fabric(const std::string& lnodes) {
    return R"({"adapters":[{"instance":2,
      "hw":{"ports":[{"speed":8},{"speed":3},{"enabled":0,"speed":8}]},
      "fcfs":[{"fcf_index":7,"vlan":10,"fabric_name":"1000000000000007","max_frame_size":2048},
              {"fcf_index":9,"vlan":20,"fabric_name":"1000000000000009","max_frame_size":2112}],
      "lnodes":[)" + lnodes + "]}]}";
}

const char* kReady0 = R"({"port_num":0,"port_wwn":"2000000743001a2b","node_wwn":"1000000743001a2b",
   "fcid":"0x010203","state":"READY","lnode_id":1,"fcf_index":9,"scsi_host":3,
   "cos":[0,128,255,0],
   "rnodes":[{"port_wwn":"5000000000000001","role":"Target"},
             {"port_wwn":"5000000000000002","role":"initiator"},
             {"port_wwn":"5000000000000003","role":"TARGET","state":"OFFLINE"}]})";

class PortAttributesTest : public testenv::SimTest {
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
        SimTest::TearDown();
    }
    HBA_STATUS Get(HBA_UINT32 index) {
        HBA_STATUS st = 0;
        out = CaptureOut([&] { st = mirvak_GetAdapterPortAttributes(handle, index, &attr); });
        return st;
    }
    HBA_HANDLE handle = 0xFFFFFFFFu;
    HBA_PORTATTRIBUTES attr;
    std::string out;
};

const uint8_t kWwn[8] = {0x20, 0x00, 0x00, 0x07, 0x43, 0x00, 0x1a, 0x2b};
const uint8_t kNode[8] = {0x10, 0x00, 0x00, 0x07, 0x43, 0x00, 0x1a, 0x2b};

TEST_F(PortAttributesTest, ReadyPortIsFilledFromNodeFcfHardwareAndSysfs) {
    Use(kReady0);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(std::memcmp(attr.PortWWN.wwn, kWwn, 8), 0);
    EXPECT_EQ(std::memcmp(attr.NodeWWN.wwn, kNode, 8), 0);
    EXPECT_EQ(attr.PortState, 2u);
    EXPECT_EQ(attr.PortFcId, 0x010203u);
    EXPECT_EQ(attr.NumberofDiscoveredPorts, 2u);  // both targets, whatever their state
    EXPECT_STREQ(attr.OSDeviceName, "/sys/class/fc_host/host3");
    EXPECT_STREQ(attr.PortSymbolicName, "/sys/class/fc_host/host3");
    EXPECT_EQ(attr.PortSupportedSpeed, 4u);
    EXPECT_EQ(attr.PortSpeed, 4u);  // driver code 8
    const uint8_t fabric[8] = {0x10, 0, 0, 0, 0, 0, 0, 0x09};
    EXPECT_EQ(std::memcmp(attr.FabricName.wwn, fabric, 8), 0);
    EXPECT_EQ(attr.PortMaxFrameSize, 2112u);
    for (uint8_t b : attr.PortSupportedFc4Types.bits) EXPECT_EQ(b, 0);
    for (uint8_t b : attr.PortActiveFc4Types.bits) EXPECT_EQ(b, 0);
    EXPECT_EQ(out, "");
}

TEST_F(PortAttributesTest, LeavesPortTypeAsTheCallerHadIt) {
    Use(kReady0);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_TRUE(Untouched(&attr.PortType, sizeof attr.PortType));
    // Texts are written up to their NUL only.
    EXPECT_TRUE(Untouched(attr.OSDeviceName + 25, sizeof attr.OSDeviceName - 25));
}

TEST_F(PortAttributesTest, ClassOfServiceOrsTheClassNumbersIntoWhatWasThere) {
    Use(kReady0);  // top bits set for classes at i = 1 and i = 2
    std::memset(&attr.PortSupportedClassofService, 0, 4);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(attr.PortSupportedClassofService, 3u);  // 2 | 3
    Fill(&attr, sizeof attr);
    attr.PortSupportedClassofService = 0x100;
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(attr.PortSupportedClassofService, 0x103u);
}

TEST_F(PortAttributesTest, UninitPortGetsStateAndWwnsOnly) {
    Use(R"({"port_wwn":"2000000743001a2b","node_wwn":"1000000743001a2b","state":"UNINIT","fcid":5,
            "cos":[128,128,128,128],"scsi_host":3})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(attr.PortState, 6u);
    EXPECT_EQ(std::memcmp(attr.PortWWN.wwn, kWwn, 8), 0);
    EXPECT_EQ(std::memcmp(attr.NodeWWN.wwn, kNode, 8), 0);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&attr);
    EXPECT_TRUE(Untouched(bytes + 16, 8));  // PortFcId, PortType
    EXPECT_TRUE(Untouched(bytes + 28, sizeof attr - 28));
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 0u);
    EXPECT_EQ(Calls("tusk_get_hw_info"), 0u);
}

TEST_F(PortAttributesTest, OfflinePortGetsNoFabricOrSpeed) {
    Use(R"({"port_wwn":"2000000743001a2b","state":"OFFLINE","fcf_index":9,"scsi_host":3})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(attr.PortState, 3u);
    EXPECT_STREQ(attr.OSDeviceName, "/sys/class/fc_host/host3");
    EXPECT_EQ(attr.PortSupportedSpeed, 4u);
    EXPECT_TRUE(Untouched(&attr.PortSpeed, 4));
    EXPECT_TRUE(Untouched(&attr.FabricName, 8));
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 0u);
    EXPECT_EQ(Calls("tusk_get_hw_info"), 0u);
}

TEST_F(PortAttributesTest, UnknownStateWordCountsAsOffline) {
    Use(R"({"port_wwn":"2000000743001a2b","state":"ready","scsi_host":3})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(attr.PortState, 3u);
}

TEST_F(PortAttributesTest, IndexPastTheLastPortReturnsZeroAndWritesNothing) {
    Use(kReady0);
    EXPECT_EQ(Get(1), 0u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
}

TEST_F(PortAttributesTest, FailedNodeQueryBeforeTheIndexReturnsIllegalIndex) {
    Use(kReady0);
    tusksim_add_fault("tusk_get_lnode_info", 1, 12, 0);
    EXPECT_EQ(Get(0), 6u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
}

TEST_F(PortAttributesTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Use(kReady0);
    EXPECT_EQ(mirvak_GetAdapterPortAttributes(0xFFFFFFFFu, 0, &attr), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

TEST_F(PortAttributesTest, SpeedCodeOutsideTheTableGivesZero) {
    Use(R"({"port_num":1,"port_wwn":"2000000743001a2b","state":"READY","scsi_host":3})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(attr.PortSpeed, 0u);
}

TEST_F(PortAttributesTest, DisabledPortKeepsTheCallersSpeed) {
    Use(R"({"port_num":2,"port_wwn":"2000000743001a2b","state":"READY","scsi_host":3})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_TRUE(Untouched(&attr.PortSpeed, 4));
}

TEST_F(PortAttributesTest, PortNumberPastNumPortsKeepsTheCallersSpeed) {
    Use(R"({"port_num":3,"port_wwn":"2000000743001a2b","state":"READY","scsi_host":3})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_TRUE(Untouched(&attr.PortSpeed, 4));
}

TEST_F(PortAttributesTest, PortNumberPastTheTableTheRecordHoldsIsNotRead) {
    // num_ports claims 255 entries; port 200 would lie far outside the record.
    UseFabric(R"({"adapters":[{"instance":2,"hw":{"num_ports":255,"ports":[{"speed":8}]},
      "lnodes":[{"port_num":200,"port_wwn":"2000000743001a2b","state":"READY","scsi_host":3}]}]})");
    handle = mirvak_OpenAdapter("/dev/tuskstor2");
    Fill(&attr, sizeof attr);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_TRUE(Untouched(&attr.PortSpeed, 4));
}

TEST_F(PortAttributesTest, FailedHardwareQueryKeepsTheCallersSpeed) {
    Use(kReady0);
    tusksim_add_fault("tusk_get_hw_info", 1, 9, 0);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_TRUE(Untouched(&attr.PortSpeed, 4));
    EXPECT_EQ(attr.PortMaxFrameSize, 2112u);
}

TEST_F(PortAttributesTest, MissingFcfIsReportedAndLeavesFabricFields) {
    Use(R"({"port_wwn":"2000000743001a2b","state":"READY","fcf_index":8,"scsi_host":3})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(out, "Not able to get vlan id\n");
    EXPECT_TRUE(Untouched(&attr.FabricName, 8));
    EXPECT_TRUE(Untouched(&attr.PortMaxFrameSize, 4));
    EXPECT_EQ(attr.PortSpeed, 4u);
}

TEST_F(PortAttributesTest, FailedFcfQueryIsReported) {
    Use(kReady0);
    tusksim_add_fault("tusk_get_fcf_info", 2, 9, 0);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(out, "Not able to get FabricName\n");
    EXPECT_TRUE(Untouched(&attr.FabricName, 8));
    EXPECT_EQ(attr.PortSpeed, 4u);
}

TEST_F(PortAttributesTest, FcHostMatchesTheLowerCaseKeyOnly) {
    // The port_name text in upper case does not match: the raw WWN bytes are
    // printed as text, up to the first zero byte (0x20 is a blank).
    Use(R"({"port_wwn":"2000000743001a2b","state":"READY","fcf_index":9,"scsi_host":3,
            "sysfs_port_name":"0x2000000743001A2B\n"})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(out, "failed to get scsi host for  \n");
    EXPECT_TRUE(Untouched(attr.OSDeviceName, sizeof attr.OSDeviceName));
}

TEST_F(PortAttributesTest, FcHostMatchesOnThePrefix) {
    Use(R"({"port_wwn":"2000000743001a2b","state":"READY","fcf_index":9,"scsi_host":4,
            "sysfs_port_name":"0x2000000743001a2b77 trailing\n"})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_STREQ(attr.OSDeviceName, "/sys/class/fc_host/host4");
}

TEST_F(PortAttributesTest, StaleEntryIsReplacedByItsLiveDuplicate) {
    Use(R"({"port_wwn":"2000000743001a2b","state":"OFFLINE","fcid":1,"scsi_host":3},
           {"port_wwn":"2100000000000001","state":"READY","fcid":2,"scsi_host":5},
           {"port_wwn":"2000000743001a2b","state":"READY","fcid":3,"fcf_index":9,"scsi_host":-1})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(attr.PortState, 2u);
    EXPECT_EQ(attr.PortFcId, 3u);
    EXPECT_EQ(attr.PortMaxFrameSize, 2112u);
}

TEST_F(PortAttributesTest, LookAheadPassesOverTheEntryAtTheRequestedIndex) {
    // Asking for port 0, the look-ahead's first record (count 0) is passed
    // over, so the live duplicate right behind the stale entry is not taken.
    Use(R"({"port_wwn":"2000000743001a2b","state":"OFFLINE","fcid":1,"scsi_host":3},
           {"port_wwn":"2000000743001a2b","state":"READY","fcid":3,"scsi_host":-1})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(attr.PortState, 3u);
    EXPECT_EQ(attr.PortFcId, 1u);
}

TEST_F(PortAttributesTest, LaterPositionsAreNotMovedByTheLookAhead) {
    Use(R"({"port_wwn":"2000000743001a2b","state":"UNINIT","fcid":1,"scsi_host":3},
           {"port_wwn":"2100000000000001","state":"READY","fcid":2,"scsi_host":5},
           {"port_wwn":"2000000743001a2b","state":"READY","fcid":3,"scsi_host":-1})");
    EXPECT_EQ(Get(1), 0u);
    EXPECT_EQ(attr.PortFcId, 2u);
    Fill(&attr, sizeof attr);
    EXPECT_EQ(Get(2), 0u);
    EXPECT_EQ(attr.PortFcId, 3u);
}

TEST_F(PortAttributesTest, StateWithoutNulIsNotReadPastItsField) {
    std::string hex;
    for (int i = 0; i < 32; ++i) hex += i == 0 ? "52" : " 52";  // 32 'R's, no NUL
    Use(R"({"port_wwn":"2000000743001a2b","scsi_host":3,"raw":[{"offset":1601,"hex":")" + hex + R"("}]})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(attr.PortState, 3u);
}

class AllPortsTest : public PortAttributesTest {
protected:
    HBA_STATUS GetAll(HBA_UINT32 n) {
        HBA_STATUS st = 0;
        out = CaptureOut([&] { st = mirvak_GetAllAdapterPortsAttributes(handle, all, n); });
        return st;
    }
    void FillAll() { Fill(all, sizeof all); }
    HBA_PORTATTRIBUTES all[4];
};

TEST_F(AllPortsTest, ZeroPortsMakesNoDriverCall) {
    Use(kReady0);
    FillAll();
    EXPECT_EQ(GetAll(0), 0u);
    EXPECT_EQ(tusksim_call_total(), 0u);
    EXPECT_TRUE(Untouched(all, sizeof all));
}

TEST_F(AllPortsTest, EveryStateLandsInEntryZero) {
    Use(std::string(kReady0) + R"(,{"port_num":1,"port_wwn":"2100000000000001","state":"OFFLINE","scsi_host":5})");
    FillAll();
    all[1].PortState = 2;
    EXPECT_EQ(GetAll(2), 0u);
    EXPECT_EQ(all[0].PortState, 3u);  // the second port's state
    EXPECT_EQ(all[1].PortState, 2u);  // as the caller left it
    const uint8_t second[8] = {0x21, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(std::memcmp(all[1].PortWWN.wwn, second, 8), 0);
    EXPECT_EQ(all[0].PortSpeed, 4u);
    EXPECT_EQ(all[1].PortSpeed, 0u);  // port 1's code 3; the caller said online
}

TEST_F(AllPortsTest, SymbolicNameCopiesTheCallersDeviceName) {
    Use(kReady0);
    FillAll();
    std::strcpy(all[0].OSDeviceName, "given-by-caller");
    EXPECT_EQ(GetAll(1), 0u);
    EXPECT_STREQ(all[0].PortSymbolicName, "given-by-caller");
    EXPECT_STREQ(all[0].OSDeviceName, "given-by-caller");
}

TEST_F(AllPortsTest, UninitPortMovesOnAtOnce) {
    Use(R"({"port_wwn":"2000000743001a2b","state":"UNINIT","fcid":7,"scsi_host":3})");
    FillAll();
    EXPECT_EQ(GetAll(1), 0u);
    EXPECT_EQ(all[0].PortState, 6u);
    EXPECT_TRUE(Untouched(&all[0].PortFcId, 4));
}

TEST_F(AllPortsTest, ChainEndReturnsZeroBeforeN) {
    Use(kReady0);
    FillAll();
    EXPECT_EQ(GetAll(3), 0u);
    EXPECT_TRUE(Untouched(&all[1], sizeof all[1]));
}

TEST_F(AllPortsTest, FailedNodeQueryReturnsItsStatus) {
    Use(kReady0);
    FillAll();
    tusksim_add_fault("tusk_get_lnode_info", 1, 21, 0);
    EXPECT_EQ(GetAll(1), 21u);
}

TEST_F(AllPortsTest, FcfWalkGoesOnFromThePreviousPort) {
    // Both ports logged in through FCF 9: the second port's walk starts after
    // it and runs out.
    Use(std::string(kReady0) +
        R"(,{"port_num":0,"port_wwn":"2100000000000001","state":"READY","fcf_index":9,"scsi_host":5})");
    FillAll();
    all[1].PortState = 2;
    EXPECT_EQ(GetAll(2), 0u);
    EXPECT_EQ(all[0].PortMaxFrameSize, 2112u);
    EXPECT_TRUE(Untouched(&all[1].PortMaxFrameSize, 4));
    EXPECT_EQ(out, "Not able to get vlan id\n");
}

TEST_F(AllPortsTest, ReturnsTheFailedHardwareQuerysStatus) {
    Use(kReady0);
    FillAll();
    all[0].PortState = 2;
    tusksim_add_fault("tusk_get_hw_info", 1, 33, 0);
    EXPECT_EQ(GetAll(1), 33u);
}

TEST_F(AllPortsTest, InvalidHandle) {
    Use(kReady0);
    EXPECT_EQ(mirvak_GetAllAdapterPortsAttributes(0xFFFFFFFFu, all, 1), 0xFFFFFFFFu);
}

TEST_F(PortAttributesTest, NumTargetsCountsTargetsOfThePortAtTheIndex) {
    Use(std::string(kReady0) + R"(,{"port_wwn":"2100000000000001","lnode_id":2,
        "rnodes":[{"role":"target"}]})");
    EXPECT_EQ(mirvak_GetNumTargets(handle, 0), 2u);
    EXPECT_EQ(mirvak_GetNumTargets(handle, 1), 1u);
    EXPECT_EQ(mirvak_GetNumTargets(handle, 2), 0u);
    EXPECT_EQ(mirvak_GetNumTargets(0xFFFFFFFFu, 0), 0xFFFFFFFFu);
}

TEST_F(PortAttributesTest, NumTargetsWalksToTheEndOfTheChain) {
    Use(std::string(kReady0) + R"(,{"port_wwn":"2100000000000001","lnode_id":2})");
    mirvak_GetNumTargets(handle, 0);
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 3u);
}

TEST_F(PortAttributesTest, NumLnodesCountsUntilTheChainEndsOrFails) {
    Use(std::string(kReady0) + R"(,{"port_wwn":"2100000000000001","lnode_id":2})");
    EXPECT_EQ(GetNumLnodes(handle, 99), 2);
    tusksim_add_fault("tusk_get_lnode_info", 2, 5, 0);
    EXPECT_EQ(GetNumLnodes(handle, 0), 1);
    EXPECT_EQ(GetNumLnodes(0xFFFFFFFFu, 0), -1);
}

TEST_F(PortAttributesTest, PathLookupWithoutFcHostTreeReportsOpendir) {
    Use(kReady0);
    testenv::RemoveTree(root() + "/sys");
    char path[256];
    Fill(path, sizeof path);
    int r = 0;
    const std::string err = CaptureErr([&] { r = get_path_for_pwwn(kWwn, path); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(err, "opendir: No such file or directory\n");
    EXPECT_TRUE(Untouched(path, sizeof path));
}

TEST_F(PortAttributesTest, PathLookupEndsAtTheFirstEntryWithoutPortName) {
    Use(kReady0);
    // Two fc_host entries without a port_name file: the scan stops at the
    // first, so the failure is reported once.
    std::filesystem::remove(root() + "/sys/class/fc_host/host3/port_name");
    std::filesystem::create_directories(root() + "/sys/class/fc_host/host0");
    char path[256];
    Fill(path, sizeof path);
    int r = 0;
    const std::string err = CaptureErr([&] { r = get_path_for_pwwn(kWwn, path); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(err, "file open: No such file or directory\n");
    EXPECT_TRUE(Untouched(path, sizeof path));
}

}  // namespace
