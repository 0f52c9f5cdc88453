// Extended adapter and port attributes.
#include <cstring>
#include <filesystem>
#include <string>

#include "mirvak/hba_plugin.h"
#include "mirvak/mgmt.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::Calls;
using testenv::CaptureErr;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::Untouched;

// "01 02 ... 88": 136 distinct bytes for the raw hardware block.
std::string Block336() {
    std::string hex;
    char b[4];
    for (int i = 0; i < 136; ++i) {
        std::snprintf(b, sizeof b, i == 0 ? "%02x" : " %02x", (i + 1) & 0xFF);
        hex += b;
    }
    return hex;
}

std::string Repeat(const char* byte_hex, int n) {
    std::string hex;
    for (int i = 0; i < n; ++i) hex += i == 0 ? byte_hex : std::string(" ") + byte_hex;
    return hex;
}

// One adapter at instance 2. Port table: 0 speed 8, 1 speed 16, 2 disabled;
// each with its own MAC. FCFs 7 (VLAN 10) and 9 (VLAN 20).
std::string Fabric(const std::string& lnodes, const std::string& hw_extra = "") {
    return R"({"adapters":[{"instance":2,
      "hw":{"byte_191":90,"word_192":192192,"word_284":284284,"word_288":288288,"word_292":292292,
            "word_332":332332,"text_246":"BOOT 1.2","text_296":"PN 11-22","block_336":")" +
           Block336() + R"(",
            "ports":[{"speed":8,"mac":"00:1b:9e:00:00:10"},{"speed":16,"mac":"00:1b:9e:00:00:11"},
                     {"enabled":0,"speed":4,"mac":"00:1b:9e:00:00:12"}])" +
           hw_extra + R"(},
      "fcfs":[{"fcf_index":7,"vlan":10},{"fcf_index":9,"vlan":20}],
      "lnodes":[)" +
           lnodes + "]}]}";
}

// A ready port on physical port 1, through FCF 9.
const char* kReady = R"({"port_num":1,"word_5":5005,"mac":"0e:fc:00:00:00:01","fcid":"0x0a0b0c",
   "flag":3,"word_28":"0x28282828","port_wwn":"2000000000000a01","fcf_index":9,"word_148":148148,
   "lnode_id":21,"state":"READY",
   "rnodes":[{"role":"Target","port_wwn":"5000000000000001"},
             {"role":"initiator","port_wwn":"5000000000000002"},
             {"role":"TARGET","state":"OFFLINE","port_wwn":"5000000000000003"},
             {"role":"target","state":"DISAPPEARED","port_wwn":"5000000000000004"},
             {"role":"targets","port_wwn":"5000000000000005"}]})";

// A second port on physical port 0, through FCF 7.
const char* kSecond = R"({"port_num":0,"word_5":6006,"mac":"0e:fc:00:00:00:02","port_wwn":"2000000000000a02",
   "fcf_index":7,"word_148":148149,"lnode_id":22,"flag":0,"word_28":7})";

const uint8_t kLnodeMac[6] = {0x0e, 0xfc, 0, 0, 0, 0x01};
const uint8_t kPort1Mac[6] = {0x00, 0x1b, 0x9e, 0, 0, 0x11};
const uint8_t kPort0Mac[6] = {0x00, 0x1b, 0x9e, 0, 0, 0x10};
const uint8_t kWwnA01[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0x01};
const uint8_t kWwnA02[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0x02};

class KxTest : public testenv::SimTest {
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

// ---- mirvak_GetKXAdapterAttributes ----

class KxAdapterTest : public KxTest {
protected:
    HBA_UINT32 Get() {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetKXAdapterAttributes(handle, &info); });
        return st;
    }
    adapter_info info;
};

TEST_F(KxAdapterTest, CopiesTheDriversHardwareFields) {
    Open(Fabric(kReady));
    Fill(&info, sizeof info);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(info.hw_byte_191, 90u);
    EXPECT_EQ(info.hw_word_192, 192192u);
    EXPECT_EQ(info.hw_word_284, 284284u);
    EXPECT_EQ(info.hw_word_288, 288288u);
    EXPECT_EQ(info.hw_word_292, 292292u);
    EXPECT_EQ(info.hw_word_332, 332332u);
    EXPECT_STREQ(info.hw_text_246, "BOOT 1.2");
    EXPECT_STREQ(info.hw_text_296, "PN 11-22");
    for (int i = 0; i < 136; ++i) ASSERT_EQ(info.hw_block_336[i], (i + 1) & 0xFF) << i;
    EXPECT_EQ(Calls("tusk_get_hw_info"), 1u);
    EXPECT_EQ(tusksim_call_total(), 1u);
    EXPECT_EQ(out, "");
}

TEST_F(KxAdapterTest, LeavesTheFacadesFieldsAndTheReservedWord) {
    Open(Fabric(kReady));
    Fill(&info, sizeof info);
    EXPECT_EQ(Get(), 0u);
    EXPECT_TRUE(Untouched(&info.instance, 4));
    EXPECT_TRUE(Untouched(info.reserved_28, 4));
    EXPECT_TRUE(Untouched(info.adapter_name, sizeof info.adapter_name));
    EXPECT_TRUE(Untouched(&info.attributes, sizeof info.attributes));
    // Texts are written up to their NUL only.
    EXPECT_TRUE(Untouched(info.hw_text_246 + 9, 32 - 9));
    EXPECT_TRUE(Untouched(info.hw_text_296 + 9, 32 - 9));
}

TEST_F(KxAdapterTest, ByteAt191IsZeroExtended) {
    Open(Fabric(kReady, R"(,"raw":[{"offset":191,"hex":"ff"}])"));
    Fill(&info, sizeof info);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(info.hw_byte_191, 0xFFu);
}

TEST_F(KxAdapterTest, ShortBlockIsPaddedWithTheRecordsZeros) {
    Open(R"({"adapters":[{"instance":2,"hw":{"block_336":"aa bb"}}]})");
    Fill(&info, sizeof info);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(info.hw_block_336[0], 0xAA);
    EXPECT_EQ(info.hw_block_336[1], 0xBB);
    for (int i = 2; i < 136; ++i) ASSERT_EQ(info.hw_block_336[i], 0) << i;
    EXPECT_STREQ(info.hw_text_246, "");
    EXPECT_EQ(info.hw_word_192, 0u);
}

TEST_F(KxAdapterTest, TextsWithoutNulAreCutWithinTheirFields) {
    Open(Fabric(kReady, R"(,"raw":[{"offset":246,"hex":")" + Repeat("41", 32) + R"("},
                                   {"offset":296,"hex":")" + Repeat("42", 32) + R"("}])"));
    Fill(&info, sizeof info);
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(std::string(info.hw_text_246), std::string(31, 'A'));
    EXPECT_EQ(std::string(info.hw_text_296), std::string(31, 'B'));
    EXPECT_TRUE(Untouched(info.adapter_name, sizeof info.adapter_name));
}

TEST_F(KxAdapterTest, FailedHardwareQueryReturnsItsStatusAndWritesNothing) {
    Open(Fabric(kReady));
    Fill(&info, sizeof info);
    tusksim_add_fault("tusk_get_hw_info", 1, 17, 0);
    EXPECT_EQ(Get(), 17u);
    EXPECT_TRUE(Untouched(&info, sizeof info));
    tusksim_add_fault("tusk_get_hw_info", 1, -5, 0);
    EXPECT_EQ(Get(), 0xFFFFFFFBu);
    EXPECT_TRUE(Untouched(&info, sizeof info));
}

TEST_F(KxAdapterTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Open(Fabric(kReady));
    Fill(&info, sizeof info);
    EXPECT_EQ(mirvak_GetKXAdapterAttributes(0xFFFFFFFFu, &info), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(&info, sizeof info));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ---- mirvak_GetKXAdapterPortAttributes ----

class KxPortTest : public KxTest {
protected:
    void Use(const std::string& lnodes) {
        Open(Fabric(lnodes));
        Refill();
    }
    void Refill(uint32_t state = HBA_PORTSTATE_ONLINE) {
        Fill(&info, sizeof info);
        info.attributes.PortState = state;
    }
    HBA_UINT32 Get(HBA_UINT32 port) {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetKXAdapterPortAttributes(handle, port, &info); });
        return st;
    }
    // Everything but the FCoE fields stays as the caller had it.
    void ExpectCallersFieldsKept() {
        EXPECT_TRUE(Untouched(&info, offsetof(port_info, attributes.PortState)));
        EXPECT_TRUE(Untouched(reinterpret_cast<const uint8_t*>(&info) + 292, 896 - 292));
        EXPECT_TRUE(Untouched(reinterpret_cast<const uint8_t*>(&info) + 932, 972 - 932));
    }
    port_info info;
};

TEST_F(KxPortTest, ReadyPortGetsItsFcoeFieldsVlanAndPortMac) {
    Use(kReady);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(std::memcmp(info.lnode_mac, kLnodeMac, 6), 0);
    EXPECT_EQ(info.phys_port, 1u);
    EXPECT_EQ(info.lnode_word_148, 148148u);
    EXPECT_EQ(info.lnode_id, 21u);
    EXPECT_EQ(info.lnode_word_5, 5005u);
    EXPECT_EQ(info.fcf_index, 9u);
    EXPECT_EQ(info.lnode_flag, 3u);
    EXPECT_EQ(info.lnode_word_28, 0x28282828u);
    EXPECT_EQ(info.vlan_id, 20u);
    EXPECT_EQ(std::memcmp(info.port_mac, kPort1Mac, 6), 0);
    EXPECT_EQ(out, "");
}

TEST_F(KxPortTest, LeavesEveryOtherFieldAsTheCallerHadIt) {
    Use(kReady);
    EXPECT_EQ(Get(0), 0u);
    ExpectCallersFieldsKept();
    EXPECT_EQ(info.attributes.PortState, 2u);
}

TEST_F(KxPortTest, ReadyPortMakesTheExpectedDriverCalls) {
    Use(kReady);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 1u);
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 2u);  // FCF 7, then 9
    EXPECT_EQ(Calls("tusk_get_hw_info"), 1u);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 0u);
}

TEST_F(KxPortTest, SecondPortByOrdinal) {
    Use(std::string(kReady) + "," + kSecond);
    EXPECT_EQ(Get(1), 0u);
    EXPECT_EQ(info.lnode_id, 22u);
    EXPECT_EQ(info.phys_port, 0u);
    EXPECT_EQ(info.vlan_id, 10u);
    EXPECT_EQ(info.lnode_word_28, 7u);
    EXPECT_EQ(info.lnode_flag, 0u);
    EXPECT_EQ(std::memcmp(info.port_mac, kPort0Mac, 6), 0);
}

TEST_F(KxPortTest, OrdinalBeyondTheLastPortIsIllegalIndex) {
    Use(std::string(kReady) + "," + kSecond);
    EXPECT_EQ(Get(2), 6u);
    EXPECT_TRUE(Untouched(&info, 288));
    EXPECT_TRUE(Untouched(reinterpret_cast<const uint8_t*>(&info) + 292, sizeof info - 292));
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 0u);
    EXPECT_EQ(Calls("tusk_get_hw_info"), 0u);
    EXPECT_EQ(out, "");
}

TEST_F(KxPortTest, EmptyListIsIllegalIndex) {
    Use("");
    EXPECT_EQ(Get(0), 6u);
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 1u);
}

TEST_F(KxPortTest, FailedNodeQueryIsIllegalIndexNotTheDriversStatus) {
    Use(std::string(kReady) + "," + kSecond);
    tusksim_add_fault("tusk_get_lnode_info", 2, 12, 0);
    EXPECT_EQ(Get(1), 6u);
    EXPECT_EQ(info.vlan_id, 0xA5u);
    EXPECT_TRUE(Untouched(reinterpret_cast<const uint8_t*>(&info) + 896, 972 - 896));
}

TEST_F(KxPortTest, OfflinePortStateSkipsTheFcfWalk) {
    Use(kReady);
    Refill(HBA_PORTSTATE_OFFLINE);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 0u);
    EXPECT_EQ(info.vlan_id, 0xA5u);
    EXPECT_EQ(info.lnode_id, 21u);
    EXPECT_EQ(std::memcmp(info.port_mac, kPort1Mac, 6), 0);
    EXPECT_EQ(out, "");
}

TEST_F(KxPortTest, LinkDownPortStateSkipsTheFcfWalk) {
    Use(kReady);
    Refill(HBA_PORTSTATE_LINKDOWN);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 0u);
    EXPECT_EQ(info.vlan_id, 0xA5u);
    EXPECT_EQ(std::memcmp(info.port_mac, kPort1Mac, 6), 0);
}

TEST_F(KxPortTest, OtherPortStatesStillLookUpTheVlan) {
    Use(kReady);
    Refill(HBA_PORTSTATE_UNKNOWN);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(info.vlan_id, 20u);
}

TEST_F(KxPortTest, PortThatIsNotReadyIsReportedWithoutVlan) {
    Use(R"({"port_num":1,"port_wwn":"2000000000000a01","lnode_id":21,"fcf_index":9,"state":"OFFLINE",
            "mac":"0e:fc:00:00:00:01","word_28":5})");
    std::memset(&info, 0, sizeof info);
    info.attributes.PortState = HBA_PORTSTATE_ONLINE;
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(info.lnode_id, 21u);
    EXPECT_EQ(info.lnode_word_28, 5u);
    EXPECT_EQ(std::memcmp(info.lnode_mac, kLnodeMac, 6), 0);
    EXPECT_EQ(info.vlan_id, 0u);
    EXPECT_EQ(std::memcmp(info.port_mac, kPort1Mac, 6), 0);
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 0u);
    EXPECT_EQ(out, "");
}

TEST_F(KxPortTest, NotReadyPortLeavesTheCallersVlanByte) {
    Use(R"({"port_num":1,"port_wwn":"2000000000000a01","fcf_index":9,"state":"UNINIT"})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(info.vlan_id, 0xA5u);
    EXPECT_EQ(std::memcmp(info.port_mac, kPort1Mac, 6), 0);
}

TEST_F(KxPortTest, ReadyMeansExactlyReady) {
    Use(R"({"port_num":1,"port_wwn":"2000000000000a01","fcf_index":9,"state":"ready"})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 0u);
    EXPECT_EQ(info.vlan_id, 0xA5u);
}

TEST_F(KxPortTest, StateWithoutNulIsNotReadPastItsField) {
    // "READY" followed by non-NUL bytes to the end of the 32-byte field.
    Use(R"({"port_num":1,"port_wwn":"2000000000000a01","fcf_index":9,"quads":[1,1,1,1],
            "raw":[{"offset":1601,"hex":"52 45 41 44 59 )" + Repeat("58", 27) + R"("}]})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 0u);
    EXPECT_EQ(info.vlan_id, 0xA5u);
}

TEST_F(KxPortTest, StaleEntryIsReplacedByItsLiveDuplicate) {
    Use(R"({"port_num":1,"port_wwn":"2000000000000a01","lnode_id":31,"fcf_index":7,"state":"OFFLINE"},
           {"port_num":0,"port_wwn":"2000000000000a02","lnode_id":32,"state":"READY"},
           {"port_num":1,"port_wwn":"2000000000000a01","lnode_id":33,"fcf_index":9,"state":"READY"})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(info.lnode_id, 33u);
    EXPECT_EQ(info.fcf_index, 9u);
    EXPECT_EQ(info.vlan_id, 20u);
}

TEST_F(KxPortTest, LookAheadPassesOverTheRecordWhoseCountIsTheOrdinal) {
    // Asking for port 0, the look-ahead's first record (count 0) is passed
    // over, so the live duplicate right behind the stale entry is not taken.
    Use(R"({"port_num":1,"port_wwn":"2000000000000a01","lnode_id":31,"fcf_index":7,"state":"OFFLINE"},
           {"port_num":1,"port_wwn":"2000000000000a01","lnode_id":33,"fcf_index":9,"state":"READY"})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(info.lnode_id, 31u);
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 0u);  // the stale entry is not ready
}

TEST_F(KxPortTest, LaterPositionsAreNotMovedByTheLookAhead) {
    Use(R"({"port_num":1,"port_wwn":"2000000000000a01","lnode_id":31,"state":"UNINIT"},
           {"port_num":0,"port_wwn":"2000000000000a02","lnode_id":32,"state":"READY"},
           {"port_num":1,"port_wwn":"2000000000000a01","lnode_id":33,"state":"READY"})");
    EXPECT_EQ(Get(1), 0u);
    EXPECT_EQ(info.lnode_id, 32u);
    Refill();
    EXPECT_EQ(Get(2), 0u);
    EXPECT_EQ(info.lnode_id, 33u);
}

TEST_F(KxPortTest, FcfMissingFromTheListIsReportedAndLeavesTheVlan) {
    Use(R"({"port_num":1,"port_wwn":"2000000000000a01","fcf_index":8,"state":"READY"})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(out, "Not able to get vlan id\n");
    EXPECT_EQ(info.vlan_id, 0xA5u);
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 3u);  // 7, 9, the closing record
    EXPECT_EQ(std::memcmp(info.port_mac, kPort1Mac, 6), 0);
}

TEST_F(KxPortTest, FailedFcfQueryZeroesTheVlanAndPrintsTheLastVlanRead) {
    Use(kReady);
    tusksim_add_fault("tusk_get_fcf_info", 2, 4, 0);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(out, "Not able to get vlan id :10 \n");
    EXPECT_EQ(info.vlan_id, 0u);
    EXPECT_EQ(std::memcmp(info.port_mac, kPort1Mac, 6), 0);
}

TEST_F(KxPortTest, FailedFirstFcfQueryPrintsZero) {
    Use(kReady);
    tusksim_add_fault("tusk_get_fcf_info", 1, 4, 0);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(out, "Not able to get vlan id :0 \n");
    EXPECT_EQ(info.vlan_id, 0u);
}

TEST_F(KxPortTest, FailedHardwareQueryLeavesThePortMac) {
    Use(kReady);
    tusksim_add_fault("tusk_get_hw_info", 1, 9, 0);
    EXPECT_EQ(Get(0), 0u);
    EXPECT_TRUE(Untouched(info.port_mac, 6));
    EXPECT_EQ(info.vlan_id, 20u);
}

TEST_F(KxPortTest, DisabledPhysicalPortStillGivesItsMac) {
    Use(R"({"port_num":2,"port_wwn":"2000000000000a01","state":"READY","fcf_index":9})");
    EXPECT_EQ(Get(0), 0u);
    const uint8_t mac[6] = {0x00, 0x1b, 0x9e, 0, 0, 0x12};
    EXPECT_EQ(std::memcmp(info.port_mac, mac, 6), 0);
}

TEST_F(KxPortTest, PortNumberPastNumPortsLeavesThePortMac) {
    Use(R"({"port_num":3,"port_wwn":"2000000000000a01","state":"READY","fcf_index":9})");
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(info.phys_port, 3u);
    EXPECT_TRUE(Untouched(info.port_mac, 6));
}

TEST_F(KxPortTest, LastEntryTheRecordHoldsIsRead) {
    // num_ports claims 255; entry 66 (bytes 993..1004) is the last that fits
    // in the 1016-byte record; its MAC is at 997.
    Open(R"({"adapters":[{"instance":2,"hw":{"num_ports":255,
      "raw":[{"offset":997,"hex":"02 00 00 00 00 42"}]},
      "lnodes":[{"port_num":66,"port_wwn":"2000000000000a01","state":"READY"}]}]})");
    Refill();
    EXPECT_EQ(Get(0), 0u);
    const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0x42};
    EXPECT_EQ(std::memcmp(info.port_mac, mac, 6), 0);
}

TEST_F(KxPortTest, PortNumberPastTheTableTheRecordHoldsIsNotRead) {
    Open(R"({"adapters":[{"instance":2,"hw":{"num_ports":255,
      "raw":[{"offset":1009,"hex":"02 00 00 00 00 43"}]},
      "lnodes":[{"port_num":67,"port_wwn":"2000000000000a01","state":"READY"},
                {"port_num":255,"port_wwn":"2000000000000a02","state":"READY"}]}]})");
    Refill();
    EXPECT_EQ(Get(0), 0u);
    EXPECT_EQ(info.phys_port, 67u);
    EXPECT_TRUE(Untouched(info.port_mac, 6));
    Refill();
    EXPECT_EQ(Get(1), 0u);
    EXPECT_EQ(info.phys_port, 255u);
    EXPECT_TRUE(Untouched(info.port_mac, 6));
}

TEST_F(KxPortTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Use(kReady);
    EXPECT_EQ(mirvak_GetKXAdapterPortAttributes(0xFFFFFFFFu, 0, &info), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(&info, 288));
    EXPECT_TRUE(Untouched(reinterpret_cast<const uint8_t*>(&info) + 292, sizeof info - 292));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ---- mirvak_GetKXAdapterPortAttributes_by_wwpn ----

class KxByWwpnTest : public KxPortTest {
protected:
    void Key(const uint8_t (&wwn)[8], uint32_t port_num) {
        std::memset(&key, 0, sizeof key);
        std::memcpy(key.attributes.PortWWN.wwn, wwn, 8);
        key.port_num = port_num;
    }
    HBA_UINT32 GetBy(port_info* result) {
        HBA_UINT32 st = 0;
        out = CaptureOut([&] { st = mirvak_GetKXAdapterPortAttributes_by_wwpn(handle, &key, result); });
        return st;
    }
    port_info key;
};

TEST_F(KxByWwpnTest, KeyWwnSelectsThePortWhateverItsNumber) {
    Use(std::string(kReady) + "," + kSecond);
    Key(kWwnA02, 0);
    EXPECT_EQ(GetBy(&info), 0u);
    EXPECT_EQ(info.lnode_id, 22u);
    EXPECT_EQ(info.vlan_id, 10u);
    EXPECT_EQ(std::memcmp(info.port_mac, kPort0Mac, 6), 0);
    ExpectCallersFieldsKept();
}

TEST_F(KxByWwpnTest, KeyWithoutWwnSelectsByPortNumber) {
    Use(std::string(kReady) + "," + kSecond);
    // Only the first byte decides: the other seven match the second port.
    const uint8_t no_wwn[8] = {0x00, 0, 0, 0, 0, 0, 0x0a, 0x02};
    Key(no_wwn, 0);
    EXPECT_EQ(GetBy(&info), 0u);
    EXPECT_EQ(info.lnode_id, 21u);
    Refill();
    Key(no_wwn, 1);
    EXPECT_EQ(GetBy(&info), 0u);
    EXPECT_EQ(info.lnode_id, 22u);
}

TEST_F(KxByWwpnTest, UnknownWwnIsIllegalIndex) {
    Use(std::string(kReady) + "," + kSecond);
    const uint8_t other[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0x09};
    Key(other, 0);
    EXPECT_EQ(GetBy(&info), 6u);
    EXPECT_TRUE(Untouched(reinterpret_cast<const uint8_t*>(&info) + 896, 972 - 896));
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 3u);
}

TEST_F(KxByWwpnTest, KeyMayBeTheResultRecord) {
    Use(std::string(kReady) + "," + kSecond);
    Refill();
    std::memcpy(info.attributes.PortWWN.wwn, kWwnA01, 8);
    info.port_num = 1;  // would name the other port
    HBA_UINT32 st = 0;
    out = CaptureOut([&] { st = mirvak_GetKXAdapterPortAttributes_by_wwpn(handle, &info, &info); });
    EXPECT_EQ(st, 0u);
    EXPECT_EQ(info.lnode_id, 21u);
    EXPECT_EQ(info.vlan_id, 20u);
}

TEST_F(KxByWwpnTest, StaleEntryNamedByWwnIsReplacedByItsLiveDuplicate) {
    Use(R"({"port_num":1,"port_wwn":"2000000000000a01","lnode_id":31,"fcf_index":7,"state":"OFFLINE"},
           {"port_num":1,"port_wwn":"2000000000000a01","lnode_id":33,"fcf_index":9,"state":"READY"})");
    Key(kWwnA01, 5);
    EXPECT_EQ(GetBy(&info), 0u);
    EXPECT_EQ(info.lnode_id, 33u);
    EXPECT_EQ(info.vlan_id, 20u);
}

TEST_F(KxByWwpnTest, LookAheadPassesOverTheCountEqualToTheKeysPortNumber) {
    // The key's port_num is what the look-ahead compares its count with,
    // also when the key names the port by WWN.
    Use(R"({"port_num":1,"port_wwn":"2000000000000a01","lnode_id":31,"fcf_index":7,"state":"OFFLINE"},
           {"port_num":1,"port_wwn":"2000000000000a01","lnode_id":33,"fcf_index":9,"state":"READY"})");
    Key(kWwnA01, 0);
    EXPECT_EQ(GetBy(&info), 0u);
    EXPECT_EQ(info.lnode_id, 31u);
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 0u);
}

TEST_F(KxByWwpnTest, PortStateIsReadFromTheResultRecord) {
    Use(kReady);
    Key(kWwnA01, 0);
    key.attributes.PortState = HBA_PORTSTATE_ONLINE;
    Refill(HBA_PORTSTATE_OFFLINE);
    EXPECT_EQ(GetBy(&info), 0u);
    EXPECT_EQ(Calls("tusk_get_fcf_info"), 0u);
    EXPECT_EQ(info.vlan_id, 0xA5u);
}

TEST_F(KxByWwpnTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Use(kReady);
    Key(kWwnA01, 0);
    EXPECT_EQ(mirvak_GetKXAdapterPortAttributes_by_wwpn(0xFFFFFFFFu, &key, &info), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(&info, 288));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ---- mirvak_GetNumTargets_by_wwpn ----

class NumTargetsByWwpnTest : public KxByWwpnTest {
protected:
    HBA_UINT32 Count() {
        HBA_UINT32 n = 0;
        out = CaptureOut([&] { n = mirvak_GetNumTargets_by_wwpn(handle, &key); });
        return n;
    }
};

TEST_F(NumTargetsByWwpnTest, CountsTargetsInAnyLetterCaseAndAnyState) {
    Use(std::string(kSecond) + "," + kReady);
    Key(kWwnA01, 0);
    // "Target", "TARGET" (OFFLINE), "target" (DISAPPEARED); not "initiator"
    // nor "targets".
    EXPECT_EQ(Count(), 3u);
    EXPECT_EQ(out, "");
    EXPECT_EQ(Calls("tusk_get_lnode_info_by_fcid"), 1u);
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 0u);
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 6u);  // five and the closing record
}

TEST_F(NumTargetsByWwpnTest, PortWithoutRemotePortsHasNone) {
    Use(std::string(kReady) + "," + kSecond);
    Key(kWwnA02, 0);
    EXPECT_EQ(Count(), 0u);
}

TEST_F(NumTargetsByWwpnTest, UnknownPortIsReportedAndAnswersAllOnes) {
    Use(kReady);
    const uint8_t other[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0x09};
    Key(other, 0);
    EXPECT_EQ(Count(), 0xFFFFFFFFu);
    EXPECT_EQ(out, "mirvak_GetNumTargets_by_wwpn: Error fetching LNode info\n");
    EXPECT_EQ(Calls("tusk_get_rnode_info"), 0u);
}

TEST_F(NumTargetsByWwpnTest, KeyWwnIsLookedUpEvenWithoutItsFirstByte) {
    // No "given" test here: the eight bytes go to the driver as they are.
    Use(R"({"port_wwn":"0000000000000a07","lnode_id":5,"rnodes":[{"role":"target"}]})");
    const uint8_t wwn[8] = {0, 0, 0, 0, 0, 0, 0x0a, 0x07};
    Key(wwn, 0);
    EXPECT_EQ(Count(), 1u);
}

TEST_F(NumTargetsByWwpnTest, FailedRemoteQueryEndsTheCount) {
    Use(kReady);
    Key(kWwnA01, 0);
    tusksim_add_fault("tusk_get_rnode_info", 3, 8, 0);
    EXPECT_EQ(Count(), 1u);
}

TEST_F(NumTargetsByWwpnTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    Use(kReady);
    Key(kWwnA01, 0);
    EXPECT_EQ(mirvak_GetNumTargets_by_wwpn(0xFFFFFFFFu, &key), 0xFFFFFFFFu);
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ---- get_path_for_KXpwwn ----

class KxPathTest : public KxTest {
protected:
    HBA_UINT32 Path(const uint8_t (&wwn)[8]) {
        Fill(path, sizeof path);
        HBA_UINT32 r = 0;
        err = CaptureErr([&] { r = get_path_for_KXpwwn(wwn, path); });
        return r;
    }
    char path[256];
    std::string err;
};

TEST_F(KxPathTest, FindsThePortsFcHostDirectory) {
    Open(Fabric(std::string(R"({"port_wwn":"2000000000000a01","scsi_host":3},)") +
                R"({"port_wwn":"2000000000000a02","scsi_host":7})"));
    EXPECT_EQ(Path(kWwnA02), 0u);
    EXPECT_STREQ(path, "/sys/class/fc_host/host7");
    EXPECT_TRUE(Untouched(path + 25, sizeof path - 25));
    EXPECT_EQ(err, "");
}

TEST_F(KxPathTest, MatchesOnTheFirstEighteenCharactersOnly) {
    Open(Fabric(R"({"port_wwn":"2000000000000a01","scsi_host":4,
                    "sysfs_port_name":"0x2000000000000a01ff trailing\n"})"));
    EXPECT_EQ(Path(kWwnA01), 0u);
    EXPECT_STREQ(path, "/sys/class/fc_host/host4");
}

TEST_F(KxPathTest, UpperCaseValueDoesNotMatch) {
    const uint8_t wwn[8] = {0x20, 0, 0, 0, 0, 0, 0x0a, 0xbc};
    Open(Fabric(R"({"port_wwn":"2000000000000abc","scsi_host":4,"sysfs_port_name":"0x2000000000000ABC\n"})"));
    EXPECT_EQ(Path(wwn), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(path, sizeof path));
}

TEST_F(KxPathTest, UnknownWwnIsNotFound) {
    Open(Fabric(R"({"port_wwn":"2000000000000a01","scsi_host":3})"));
    EXPECT_EQ(Path(kWwnA02), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(path, sizeof path));
    EXPECT_EQ(err, "");
}

TEST_F(KxPathTest, MissingFcHostTreeReportsOpendir) {
    Open(Fabric(R"({"port_wwn":"2000000000000a01","scsi_host":3})"));
    testenv::RemoveTree(root() + "/sys");
    EXPECT_EQ(Path(kWwnA01), 0xFFFFFFFFu);
    EXPECT_EQ(err, "opendir: No such file or directory\n");
    EXPECT_TRUE(Untouched(path, sizeof path));
}

TEST_F(KxPathTest, EntryWithoutPortNameEndsTheScan) {
    Open(Fabric(R"({"port_wwn":"2000000000000a01","scsi_host":3})"));
    std::filesystem::remove(root() + "/sys/class/fc_host/host3/port_name");
    std::filesystem::create_directories(root() + "/sys/class/fc_host/host0");
    EXPECT_EQ(Path(kWwnA01), 0xFFFFFFFFu);
    EXPECT_EQ(err, "file open: No such file or directory\n");
    EXPECT_TRUE(Untouched(path, sizeof path));
}

}  // namespace
