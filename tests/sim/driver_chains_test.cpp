// The simulated driver library: handles, records, the cursor rules of its
// chains, call counts and faults.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "fabric.h"
#include "mirvak/driver_records.h"
#include "mirvak/tuskstor.h"
#include "tusksim.h"

namespace {

const char* kFabric = R"({"adapters":[
 {"instance":3,
  "hw":{"manufacturer":"Mirvak","model":"MV-T1","serial_num":"S-0001","hw_version":"H1","drv_version":"D1",
        "vendor_id":"0x1e5f","optrom_version":77,"fw_version":"0x01020304","byte_191":9,"word_192":192,
        "word_284":284,"word_288":288,"word_292":292,"word_332":332,"text_246":"T246","text_296":"T296",
        "block_336":"aa bb","raw":[{"offset":1000,"hex":"ee ef"}],
        "ports":[{"speed":8,"mac":"00:11:22:33:44:55"},{"enabled":0,"speed":16,"mac":"00:11:22:33:44:66"}]},
  "fcfs":[{"fcf_index":5,"fabric_name":"1000000000000005","max_frame_size":2112,"vlan":50},
          {"fcf_index":9,"fabric_name":"1000000000000009","max_frame_size":1024,"vlan":90,
           "raw":[{"offset":0,"hex":"77"}]}],
  "lnodes":[
   {"port_num":0,"port_wwn":"2100000000000001","node_wwn":"2000000000000001","lnode_id":11,"fcid":"0x010101",
    "mac":"0e:fc:00:01:01:01","cos":[128,0,128,0],"fcf_index":5,"word_5":5,"flag":1,"word_148":148,
    "words":[1409,1413,1417,1421,1425,1429,1433,1437],"quads":[1633,1641,1649,1657],
    "rnodes":[{"port_wwn":"5000000000000001","node_wwn":"5000000000000000","role":"Target","fcid":"0x020202",
               "word_4":4,"byte_12":12,"cos":[0,128,0,0],"words":[1408,1412,1416,1420,1424,1428,1432,1436,1440]},
              {"port_wwn":"5000000000000002","role":"initiator","state":"READY_PLOGI"}]},
   {"port_num":1,"port_wwn":"2100000000000002","state":"OFFLINE","lnode_id":12},
   {"port_num":1,"port_wwn":"2100000000000002","lnode_id":13,"rnodes":[{"port_wwn":"5000000000000003"}]},
   {"port_num":1,"port_wwn":"2800000000000002","lnode_id":14,"parent":"2100000000000002"},
   {"port_num":0,"port_wwn":"2100000000000004","state":"UNINIT","lnode_id":15}]},
 {"instance":7,"probe_status":5,"hw":{"ports":[{}]}}]})";

std::string Hex(const uint8_t (&wwn)[8]) {
    sim::Wwn w;
    std::memcpy(w.data(), wwn, w.size());
    return sim::wwn_to_hex(w);
}

template <class Rec>
bool AllZero(const Rec& rec) {
    const auto* b = reinterpret_cast<const uint8_t*>(&rec);
    for (std::size_t i = 0; i < sizeof rec; ++i) {
        if (b[i] != 0) return false;
    }
    return true;
}

template <class Rec>
bool AllBytes(const Rec& rec, uint8_t value) {
    const auto* b = reinterpret_cast<const uint8_t*>(&rec);
    for (std::size_t i = 0; i < sizeof rec; ++i) {
        if (b[i] != value) return false;
    }
    return true;
}

uint32_t U32At(const void* rec, std::size_t offset) {
    uint32_t v;
    std::memcpy(&v, static_cast<const uint8_t*>(rec) + offset, sizeof v);
    return v;
}

class DriverTest : public ::testing::Test {
protected:
    void SetUp() override {
        Load(kFabric);
        tusksim_clear_faults();
        tusksim_reset_counts();
    }
    void TearDown() override {
        for (const uint32_t h : opened_) close_adapter(h);
        tusksim_clear_faults();
        tusksim_load_default();
    }
    static void Load(const std::string& json) {
        char err[256] = {};
        ASSERT_EQ(tusksim_load_text(json.c_str(), "test", err, sizeof err), 0) << err;
    }
    uint32_t Open(uint32_t instance = 3) {
        const uint32_t h = open_adapter(instance);
        EXPECT_NE(h, TUSK_INVALID_HANDLE);
        opened_.push_back(h);
        return h;
    }
    // Walks the local-node chain from cursor 0: the records up to and
    // including the closing one.
    std::vector<lnode_info> Lnodes(uint32_t h) {
        std::vector<lnode_info> out(1);
        EXPECT_EQ(tusk_get_lnode_info(h, &out.back(), 0), 0);
        while (out.back().lnode_handle != 0 && out.size() < 100) {
            const uint64_t cursor = out.back().lnode_handle;
            out.emplace_back();
            EXPECT_EQ(tusk_get_lnode_info(h, &out.back(), cursor), 0);
        }
        return out;
    }
    std::vector<rnode_info> Rnodes(uint32_t h, uint32_t lnode_id) {
        std::vector<rnode_info> out(1);
        EXPECT_EQ(tusk_get_rnode_info(h, &out.back(), 0xFFFFFFFFu, lnode_id), 0);
        while (out.back().rnode_index != 0xFFFFFFFFu && out.size() < 100) {
            const uint32_t cursor = out.back().rnode_index;
            out.emplace_back();
            EXPECT_EQ(tusk_get_rnode_info(h, &out.back(), cursor, lnode_id), 0);
        }
        return out;
    }
    std::vector<uint32_t> opened_;
};

// ---- Handles

TEST_F(DriverTest, OpenByInstanceGivesADistinctHandlePerOpen) {
    const uint32_t a = Open(), b = Open();
    EXPECT_NE(a, b);
    EXPECT_NE(a, 0u);
    EXPECT_EQ(tusksim_open_handles(), 2u);
}

TEST_F(DriverTest, OpenOfAnInstanceWithoutAdapterFails) {
    EXPECT_EQ(open_adapter(4), TUSK_INVALID_HANDLE);
    EXPECT_EQ(open_adapter(32), TUSK_INVALID_HANDLE);
    EXPECT_EQ(open_adapter(0xFFFFFFFFu), TUSK_INVALID_HANDLE);
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(DriverTest, OpenByPathTakesOnlyTheDeviceNodeName) {
    const uint32_t h = open_adapter_str("/dev/tuskstor3");
    EXPECT_NE(h, TUSK_INVALID_HANDLE);
    EXPECT_EQ(close_adapter(h), 0);
    for (const char* bad : {"/dev/tuskstor03", "/dev/tuskstor3 ", "dev/tuskstor3", "/dev/tuskstor", "/dev/tuskstor4",
                            "/dev/tuskstor+3", "/dev/TUSKSTOR3", "/dev/tuskstor300", "/dev/tuskstor7x", ""}) {
        EXPECT_EQ(open_adapter_str(bad), TUSK_INVALID_HANDLE) << bad;
    }
    EXPECT_EQ(open_adapter_str(nullptr), TUSK_INVALID_HANDLE);
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(DriverTest, CloseSucceedsOnceThenTheHandleIsBad) {
    const uint32_t h = open_adapter(3);
    EXPECT_EQ(close_adapter(h), 0);
    EXPECT_EQ(close_adapter(h), -EBADF);
    EXPECT_EQ(close_adapter(TUSK_INVALID_HANDLE), -EBADF);
}

TEST_F(DriverTest, OperationsOnAHandleThatIsNotOpenFailAndWriteNothing) {
    const uint32_t h = open_adapter(3);
    close_adapter(h);
    hw_info hw;
    std::memset(&hw, 0xA5, sizeof hw);
    EXPECT_EQ(tusk_get_hw_info(h, &hw), -EBADF);
    EXPECT_TRUE(AllBytes(hw, 0xA5));
    lnode_info l;
    EXPECT_EQ(tusk_get_lnode_info(0xFFFFFFFFu, &l, 0), -EBADF);
    EXPECT_EQ(tusk_probe_adapter(12345), -EBADF);
}

TEST_F(DriverTest, HandleOfAnAdapterThatLeftTheFabricAnswersNoDevice) {
    const uint32_t h = Open();
    Load(R"({"adapters":[{"instance":5}]})");
    EXPECT_EQ(tusk_probe_adapter(h), -ENODEV);
    EXPECT_EQ(close_adapter(h), 0);
    opened_.clear();
}

TEST_F(DriverTest, ProbeAnswersTheAdaptersProbeStatus) {
    EXPECT_EQ(tusk_probe_adapter(Open(3)), 0);
    EXPECT_EQ(tusk_probe_adapter(Open(7)), 5);
}

TEST_F(DriverTest, NullRecordIsRefused) {
    const uint32_t h = Open();
    EXPECT_EQ(tusk_get_hw_info(h, nullptr), -EFAULT);
    EXPECT_EQ(tusk_get_lnode_info(h, nullptr, 0), -EFAULT);
    EXPECT_EQ(tusk_create_npiv_port(h, nullptr), -EFAULT);
}

// ---- Hardware record

TEST_F(DriverTest, HardwareRecordCarriesTheNamedFields) {
    hw_info hw;
    std::memset(&hw, 0xA5, sizeof hw);
    ASSERT_EQ(tusk_get_hw_info(Open(), &hw), 0);
    EXPECT_EQ(field_text(hw.manufacturer), "Mirvak");
    EXPECT_EQ(field_text(hw.model), "MV-T1");
    EXPECT_EQ(field_text(hw.serial_num), "S-0001");
    EXPECT_EQ(field_text(hw.hw_version), "H1");
    EXPECT_EQ(field_text(hw.drv_version), "D1");
    EXPECT_EQ(hw.vendor_id, 0x1e5f);
    EXPECT_EQ(hw.optrom_version, 77u);
    EXPECT_EQ(hw.fw_version, 0x01020304u);
    EXPECT_EQ(hw.hw_byte_191, 9);
    EXPECT_EQ(hw.hw_word_192, 192u);
    EXPECT_EQ(hw.num_ports, 2);
    EXPECT_EQ(U32At(&hw, 284), 284u);
    EXPECT_EQ(U32At(&hw, 288), 288u);
    EXPECT_EQ(U32At(&hw, 292), 292u);
    EXPECT_EQ(U32At(&hw, 332), 332u);
    EXPECT_STREQ(reinterpret_cast<const char*>(&hw) + 246, "T246");
    EXPECT_STREQ(reinterpret_cast<const char*>(&hw) + 296, "T296");
    const auto* b = reinterpret_cast<const uint8_t*>(&hw);
    EXPECT_EQ(b[336], 0xaa);
    EXPECT_EQ(b[337], 0xbb);
    EXPECT_EQ(b[338], 0);
}

TEST_F(DriverTest, HardwarePortTableEntriesSit12BytesApart) {
    hw_info hw;
    ASSERT_EQ(tusk_get_hw_info(Open(), &hw), 0);
    const auto* b = reinterpret_cast<const uint8_t*>(&hw);
    EXPECT_EQ(b[201], 1);
    EXPECT_EQ(b[202] | b[203] << 8, 8);
    EXPECT_EQ(b[205], 0x00);
    EXPECT_EQ(b[210], 0x55);
    EXPECT_EQ(b[213], 0);
    EXPECT_EQ(b[214] | b[215] << 8, 16);
    EXPECT_EQ(b[222], 0x66);
}

TEST_F(DriverTest, HardwareRecordIsZeroWhereNothingIsSaidAndPatchedLast) {
    hw_info hw;
    std::memset(&hw, 0xA5, sizeof hw);
    ASSERT_EQ(tusk_get_hw_info(Open(), &hw), 0);
    const auto* b = reinterpret_cast<const uint8_t*>(&hw);
    EXPECT_EQ(b[1000], 0xee);
    EXPECT_EQ(b[1001], 0xef);
    EXPECT_EQ(b[999], 0);
    EXPECT_EQ(b[1015], 0);
    EXPECT_EQ(b[176], 0);
}

TEST_F(DriverTest, NumPortsMayBeGivenApartFromThePortTable) {
    Load(R"({"adapters":[{"instance":3,"hw":{"num_ports":6,"ports":[{}]}}]})");
    hw_info hw;
    ASSERT_EQ(tusk_get_hw_info(Open(), &hw), 0);
    EXPECT_EQ(hw.num_ports, 6);
    EXPECT_EQ(hw.port[0].speed, 10);
    EXPECT_EQ(hw.port[1].enabled, 0);
}

// ---- Local nodes

TEST_F(DriverTest, LocalNodeChainEndsWithAZeroClosingRecord) {
    const auto nodes = Lnodes(Open());
    ASSERT_EQ(nodes.size(), 6u);
    const std::vector<uint32_t> ids = {11, 12, 13, 14, 15};
    for (std::size_t k = 0; k < ids.size(); ++k) EXPECT_EQ(nodes[k].lnode_id, ids[k]);
    EXPECT_TRUE(AllZero(nodes[5]));
}

TEST_F(DriverTest, GeneratedLocalNodeHandlesAreDistinctAndUseAll64Bits) {
    const auto nodes = Lnodes(Open());
    for (std::size_t k = 0; k + 1 < nodes.size(); ++k) {
        EXPECT_NE(nodes[k].lnode_handle >> 32, 0u);
        for (std::size_t j = 0; j < k; ++j) EXPECT_NE(nodes[k].lnode_handle, nodes[j].lnode_handle);
    }
}

TEST_F(DriverTest, LocalNodeRecordCarriesTheNamedFields) {
    const lnode_info n = Lnodes(Open())[0];
    EXPECT_EQ(n.port_num, 0);
    EXPECT_EQ(n.num_rnodes, 2u);
    EXPECT_EQ(n.lnode_word_5, 5u);
    EXPECT_EQ(n.lnode_mac[0], 0x0e);
    EXPECT_EQ(n.lnode_mac[5], 0x01);
    EXPECT_EQ(n.fcid, 0x010101u);
    EXPECT_EQ(n.lnode_flag, 1);
    EXPECT_EQ(n.lnode_word_28, 0u);
    EXPECT_EQ(Hex(n.port_wwn), "2100000000000001");
    EXPECT_EQ(Hex(n.node_wwn), "2000000000000001");
    EXPECT_EQ(n.cos[0].flags, 128);
    EXPECT_EQ(n.cos[1].flags, 0);
    EXPECT_EQ(n.cos[2].flags, 128);
    EXPECT_EQ(n.fcf_index, 5u);
    EXPECT_EQ(n.lnode_word_148, 148u);
    EXPECT_EQ(n.lnode_id, 11u);
    for (const std::size_t off : {1409, 1413, 1417, 1421, 1425, 1429, 1433, 1437}) EXPECT_EQ(U32At(&n, off), off);
    EXPECT_EQ(n.quad_1633, 1633u);
    EXPECT_EQ(n.quad_1641, 1641u);
    EXPECT_EQ(n.quad_1649, 1649u);
    EXPECT_EQ(n.quad_1657, 1657u);
    EXPECT_EQ(field_text(n.state), "READY");
}

TEST_F(DriverTest, PhysicalPortReportsItsVirtualPortCountAt28) {
    const auto nodes = Lnodes(Open());
    EXPECT_EQ(nodes[1].lnode_word_28, 1u);  // the stale entry of the same port
    EXPECT_EQ(nodes[2].lnode_word_28, 1u);
    EXPECT_EQ(nodes[3].lnode_word_28, 0u);  // the virtual port itself
}

TEST_F(DriverTest, ExplicitCountsAndHandlesAreHonoured) {
    Load(R"({"adapters":[{"instance":3,"lnodes":[
        {"lnode_handle":"0x10","num_rnodes":9,"word_28":4,"rnodes":[{}]},{},{"lnode_handle":0}]}]})");
    const uint32_t h = Open();
    lnode_info n;
    ASSERT_EQ(tusk_get_lnode_info(h, &n, 0), 0);
    EXPECT_EQ(n.lnode_handle, 0x10u);
    EXPECT_EQ(n.num_rnodes, 9u);
    EXPECT_EQ(n.lnode_word_28, 4u);
    ASSERT_EQ(tusk_get_lnode_info(h, &n, 0x10), 0);
    EXPECT_NE(n.lnode_handle, 0u);
    EXPECT_NE(n.lnode_handle, 0x10u);
    // A node whose handle is 0 ends the chain for its reader.
    ASSERT_EQ(tusk_get_lnode_info(h, &n, n.lnode_handle), 0);
    EXPECT_EQ(n.lnode_handle, 0u);
}

TEST_F(DriverTest, EmptyChainGivesTheClosingRecordFirst) {
    Load(R"({"adapters":[{"instance":3,"closing_lnode":[{"offset":1601,"hex":"45 4e 44"}]}]})");
    lnode_info n;
    std::memset(&n, 0xA5, sizeof n);
    ASSERT_EQ(tusk_get_lnode_info(Open(), &n, 0), 0);
    EXPECT_EQ(n.lnode_handle, 0u);
    EXPECT_EQ(field_text(n.state), "END");
    EXPECT_EQ(n.lnode_id, 0u);
}

TEST_F(DriverTest, UnknownLocalNodeCursorFailsAndWritesNothing) {
    lnode_info n;
    std::memset(&n, 0xA5, sizeof n);
    EXPECT_EQ(tusk_get_lnode_info(Open(), &n, 12345), -EINVAL);
    EXPECT_TRUE(AllBytes(n, 0xA5));
}

TEST_F(DriverTest, CursorOfTheLastNodeGivesTheClosingRecordAgain) {
    const uint32_t h = Open();
    const auto nodes = Lnodes(h);
    lnode_info n;
    ASSERT_EQ(tusk_get_lnode_info(h, &n, nodes[4].lnode_handle), 0);
    EXPECT_EQ(n.lnode_handle, 0u);
}

// ---- Lookup by WWN

TEST_F(DriverTest, LookupByWwnPrefersTheLiveDuplicate) {
    lnode_info n{};
    const auto w = *sim::parse_wwn("2100000000000002");
    std::memcpy(n.port_wwn, w.data(), 8);
    ASSERT_EQ(tusk_get_lnode_info_by_fcid(Open(), &n, 1), 0);
    EXPECT_EQ(n.lnode_id, 13u);
    EXPECT_EQ(field_text(n.state), "READY");
    EXPECT_NE(n.lnode_handle, 0u);
}

TEST_F(DriverTest, LookupByWwnGivesTheFirstEntryWhenNoneIsLive) {
    Load(R"({"adapters":[{"instance":3,"lnodes":[
        {"port_wwn":"2100000000000009","state":"UNINIT","lnode_id":1},
        {"port_wwn":"2100000000000009","state":"OFFLINE","lnode_id":2}]}]})");
    lnode_info n{};
    n.port_wwn[0] = 0x21;
    n.port_wwn[7] = 0x09;
    ASSERT_EQ(tusk_get_lnode_info_by_fcid(Open(), &n, 1), 0);
    EXPECT_EQ(n.lnode_id, 1u);
}

TEST_F(DriverTest, LookupOfAnUnknownWwnFailsAndLeavesTheRecordZeroed) {
    lnode_info n;
    std::memset(&n, 0xA5, sizeof n);
    EXPECT_EQ(tusk_get_lnode_info_by_fcid(Open(), &n, 1), -ENOENT);
    EXPECT_TRUE(AllZero(n));
}

TEST_F(DriverTest, LookupByWwnWantsTheConstantOne) {
    lnode_info n{};
    n.port_wwn[0] = 0x21;
    n.port_wwn[7] = 0x01;
    EXPECT_EQ(tusk_get_lnode_info_by_fcid(Open(), &n, 0), -EINVAL);
}

// ---- Remote nodes

TEST_F(DriverTest, RemoteNodesOfALocalNodeEndWithIndexAllOnes) {
    const auto r = Rnodes(Open(), 11);
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].rnode_index, 0u);
    EXPECT_EQ(Hex(r[0].port_wwn), "5000000000000001");
    EXPECT_EQ(r[1].rnode_index, 1u);
    EXPECT_EQ(field_text(r[1].role), "initiator");
    EXPECT_EQ(field_text(r[1].state), "READY_PLOGI");
    rnode_info closing{};
    closing.rnode_index = 0xFFFFFFFFu;
    EXPECT_EQ(std::memcmp(&r[2], &closing, sizeof closing), 0);
}

TEST_F(DriverTest, RemoteNodeRecordCarriesTheNamedFields) {
    const rnode_info r = Rnodes(Open(), 11)[0];
    EXPECT_EQ(r.rnode_word_4, 4u);
    EXPECT_EQ(r.fcid, 0x020202u);
    EXPECT_EQ(r.rnode_byte_12, 12);
    EXPECT_EQ(field_text(r.role), "Target");
    EXPECT_EQ(Hex(r.node_wwn), "5000000000000000");
    EXPECT_EQ(r.cos[0].flags, 0);
    EXPECT_EQ(r.cos[1].flags, 128);
    for (std::size_t off = 1408; off <= 1440; off += 4) EXPECT_EQ(U32At(&r, off), off);
    EXPECT_EQ(field_text(r.state), "READY");
}

TEST_F(DriverTest, LocalNodeWithoutRemoteNodesGivesTheClosingRecordFirst) {
    const auto r = Rnodes(Open(), 12);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].rnode_index, 0xFFFFFFFFu);
}

TEST_F(DriverTest, UnknownLnodeIdOrRemoteCursorFails) {
    const uint32_t h = Open();
    rnode_info r;
    std::memset(&r, 0xA5, sizeof r);
    EXPECT_EQ(tusk_get_rnode_info(h, &r, 0xFFFFFFFFu, 99), -ENOENT);
    EXPECT_EQ(tusk_get_rnode_info(h, &r, 7, 11), -EINVAL);
    EXPECT_TRUE(AllBytes(r, 0xA5));
}

TEST_F(DriverTest, LnodeIdAllOnesListsTheRemoteNodesOfEveryLocalNode) {
    const auto r = Rnodes(Open(), 0xFFFFFFFFu);
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ(Hex(r[0].port_wwn), "5000000000000001");
    EXPECT_EQ(Hex(r[1].port_wwn), "5000000000000002");
    EXPECT_EQ(Hex(r[2].port_wwn), "5000000000000003");
    for (uint32_t k = 0; k < 3; ++k) EXPECT_EQ(r[k].rnode_index, k);
    EXPECT_EQ(r[3].rnode_index, 0xFFFFFFFFu);
}

TEST_F(DriverTest, ExplicitRemoteIndexesAreTheCursors) {
    Load(R"({"adapters":[{"instance":3,"lnodes":[{"lnode_id":1,"rnodes":[
        {"rnode_index":40,"port_wwn":"5000000000000001"},{"port_wwn":"5000000000000002"},
        {"rnode_index":1,"port_wwn":"5000000000000003"}]}]}]})");
    const auto r = Rnodes(Open(), 1);
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ(r[0].rnode_index, 40u);
    EXPECT_EQ(r[1].rnode_index, 2u);  // its ordinal, 1, is taken by the third
    EXPECT_EQ(r[2].rnode_index, 1u);
    EXPECT_EQ(r[3].rnode_index, 0xFFFFFFFFu);
}

TEST_F(DriverTest, RemoteNodesOfTheFirstLocalNodeWithTheId) {
    Load(R"({"adapters":[{"instance":3,"lnodes":[
        {"lnode_id":1,"rnodes":[{"port_wwn":"5000000000000001"}]},
        {"lnode_id":1,"rnodes":[{"port_wwn":"5000000000000002"}]}]}]})");
    const auto r = Rnodes(Open(), 1);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(Hex(r[0].port_wwn), "5000000000000001");
}

// ---- FCFs

TEST_F(DriverTest, FcfChainFollowsTheIndexesAndEndsWithAllOnes) {
    const uint32_t h = Open();
    fcf_info f;
    ASSERT_EQ(tusk_get_fcf_info(h, &f, 0xFFFFFFFFu), 0);
    EXPECT_EQ(f.fcf_index, 5u);
    EXPECT_EQ(f.vlan_id, 50);
    EXPECT_EQ(f.max_frame_size, 2112);
    EXPECT_EQ(Hex(f.fabric_name), "1000000000000005");
    ASSERT_EQ(tusk_get_fcf_info(h, &f, 5), 0);
    EXPECT_EQ(f.fcf_index, 9u);
    EXPECT_EQ(f.vlan_id, 90);
    EXPECT_EQ(f.rsvd_0[0], 0x77);
    ASSERT_EQ(tusk_get_fcf_info(h, &f, 9), 0);
    fcf_info closing{};
    closing.fcf_index = 0xFFFFFFFFu;
    EXPECT_EQ(std::memcmp(&f, &closing, sizeof f), 0);
}

TEST_F(DriverTest, UnknownFcfCursorFails) {
    fcf_info f;
    EXPECT_EQ(tusk_get_fcf_info(Open(), &f, 6), -EINVAL);
}

TEST_F(DriverTest, AdapterWithoutFcfsGivesTheClosingRecordFirst) {
    fcf_info f;
    ASSERT_EQ(tusk_get_fcf_info(Open(7), &f, 0xFFFFFFFFu), 0);
    EXPECT_EQ(f.fcf_index, 0xFFFFFFFFu);
}

// ---- Call counts and faults

TEST_F(DriverTest, CallsAreCountedPerOperation) {
    const uint32_t h = Open();
    hw_info hw;
    tusk_get_hw_info(h, &hw);
    tusk_get_hw_info(h, &hw);
    tusk_probe_adapter(TUSK_INVALID_HANDLE);
    EXPECT_EQ(tusksim_call_count("open_adapter"), 1u);
    EXPECT_EQ(tusksim_call_count("tusk_get_hw_info"), 2u);
    EXPECT_EQ(tusksim_call_count("tusk_probe_adapter"), 1u);
    EXPECT_EQ(tusksim_call_count("tusk_get_fcf_info"), 0u);
    EXPECT_EQ(tusksim_call_count("no_such_operation"), 0u);
    EXPECT_EQ(tusksim_call_count(nullptr), 0u);
    EXPECT_EQ(tusksim_call_total(), 4u);
    tusksim_reset_counts();
    EXPECT_EQ(tusksim_call_total(), 0u);
}

TEST_F(DriverTest, FaultOnTheNthCallOnlyFailsThatCallAndLeavesTheRecord) {
    const uint32_t h = Open();
    ASSERT_EQ(tusksim_add_fault("tusk_get_hw_info", 2, 42, 0), 0);
    hw_info hw;
    EXPECT_EQ(tusk_get_hw_info(h, &hw), 0);
    std::memset(&hw, 0xA5, sizeof hw);
    EXPECT_EQ(tusk_get_hw_info(h, &hw), 42);
    EXPECT_TRUE(AllBytes(hw, 0xA5));
    EXPECT_EQ(tusk_get_hw_info(h, &hw), 0);
    EXPECT_EQ(tusksim_call_count("tusk_get_hw_info"), 3u);
}

TEST_F(DriverTest, EveryFaultFailsFromTheNthCallOn) {
    const uint32_t h = Open();
    ASSERT_EQ(tusksim_add_fault("tusk_probe_adapter", 2, -7, 1), 0);
    EXPECT_EQ(tusk_probe_adapter(h), 0);
    EXPECT_EQ(tusk_probe_adapter(h), -7);
    EXPECT_EQ(tusk_probe_adapter(h), -7);
    tusksim_clear_faults();
    EXPECT_EQ(tusk_probe_adapter(h), 0);
}

TEST_F(DriverTest, FaultsCountFromWhenTheyAreAdded) {
    const uint32_t h = Open();
    tusk_probe_adapter(h);
    ASSERT_EQ(tusksim_add_fault("tusk_probe_adapter", 1, 3, 0), 0);
    EXPECT_EQ(tusk_probe_adapter(h), 3);
}

TEST_F(DriverTest, FaultedOpenAnswersTheStatusAsAHandle) {
    ASSERT_EQ(tusksim_add_fault("open_adapter", 1, -1, 0), 0);
    EXPECT_EQ(open_adapter(3), TUSK_INVALID_HANDLE);
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(DriverTest, FaultedCloseKeepsTheHandleOpen) {
    const uint32_t h = open_adapter(3);
    ASSERT_EQ(tusksim_add_fault("close_adapter", 1, 77, 0), 0);
    EXPECT_EQ(close_adapter(h), 77);
    EXPECT_EQ(tusksim_open_handles(), 1u);
    EXPECT_EQ(close_adapter(h), 0);
}

TEST_F(DriverTest, FaultWinsOverABadHandle) {
    ASSERT_EQ(tusksim_add_fault("tusk_get_hw_info", 1, 8, 0), 0);
    hw_info hw;
    EXPECT_EQ(tusk_get_hw_info(TUSK_INVALID_HANDLE, &hw), 8);
}

TEST_F(DriverTest, UnknownFaultOperationOrNthZeroIsRefused) {
    EXPECT_EQ(tusksim_add_fault("tusk_frobnicate", 1, 1, 0), -1);
    EXPECT_EQ(tusksim_add_fault(nullptr, 1, 1, 0), -1);
    EXPECT_EQ(tusksim_add_fault("close_adapter", 0, 1, 0), -1);
}

TEST_F(DriverTest, FaultsOfTheDescriptionAreLoadedWithIt) {
    Load(R"({"adapters":[{"instance":3}],
             "faults":[{"op":"tusk_get_lnode_info","nth":2,"status":31},
                       {"op":"tusk_get_fcf_info","status":-4,"every":true}]})");
    const uint32_t h = Open();
    lnode_info n;
    fcf_info f;
    EXPECT_EQ(tusk_get_lnode_info(h, &n, 0), 0);
    EXPECT_EQ(tusk_get_lnode_info(h, &n, 0), 31);
    EXPECT_EQ(tusk_get_lnode_info(h, &n, 0), 0);
    EXPECT_EQ(tusk_get_fcf_info(h, &f, 0xFFFFFFFFu), -4);
    EXPECT_EQ(tusk_get_fcf_info(h, &f, 0xFFFFFFFFu), -4);
}

// A release file in a fresh folder; the folder is removed with it.
struct ReleaseFile {
    std::string dir, path;
    ReleaseFile() {
        char tmpl[] = "/tmp/mirvak-hang-XXXXXX";
        dir = mkdtemp(tmpl) != nullptr ? tmpl : "/tmp";
        path = dir + "/release";
    }
    ~ReleaseFile() {
        unlink(path.c_str());
        rmdir(dir.c_str());
    }
    void Release() const { std::ofstream(path) << ""; }
};

TEST_F(DriverTest, AHangBlocksTheCallUntilReleasedThenItDoesItsWork) {
    const uint32_t h = Open();
    const ReleaseFile release;
    ASSERT_EQ(tusksim_add_hang("tusk_get_hw_info", 2, release.path.c_str()), 0);
    hw_info hw;
    EXPECT_EQ(tusk_get_hw_info(h, &hw), 0);  // the first call is not the one
    std::atomic<bool> returned{false};
    int status = -1;
    hw_info hung;
    std::memset(&hung, 0xA5, sizeof hung);
    std::thread caller([&] {
        status = tusk_get_hw_info(h, &hung);
        returned = true;
    });
    // Still blocked a moment later, while the control functions answer.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(returned.load());
    EXPECT_EQ(tusksim_call_count("tusk_get_hw_info"), 2u);
    release.Release();
    caller.join();
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(AllBytes(hung, 0xA5)) << "the released call did not fill the record";
    EXPECT_EQ(tusk_get_hw_info(h, &hw), 0);
}

TEST_F(DriverTest, AHangNeedsAKnownOperationANthAndAFile) {
    EXPECT_EQ(tusksim_add_hang("tusk_frobnicate", 1, "/tmp/x"), -1);
    EXPECT_EQ(tusksim_add_hang("close_adapter", 0, "/tmp/x"), -1);
    EXPECT_EQ(tusksim_add_hang("close_adapter", 1, ""), -1);
    EXPECT_EQ(tusksim_add_hang("close_adapter", 1, nullptr), -1);
}

TEST_F(DriverTest, AHangOfTheDescriptionIsLoadedWithIt) {
    const ReleaseFile release;
    release.Release();  // released before the call: it goes through at once
    Load(R"({"adapters":[{"instance":3}], "faults":[{"op":"tusk_probe_adapter","hang":")" + release.path +
         R"("}]})");
    EXPECT_EQ(tusk_probe_adapter(Open()), 0);
    const sim::Fabric f = sim::parse_fabric_text(
        R"({"faults":[{"op":"tusk_probe_adapter","hang":"/run/release"}]})", "test");
    ASSERT_EQ(f.faults.size(), 1u);
    EXPECT_EQ(f.faults[0].hang, "/run/release");
    EXPECT_EQ(sim::parse_fabric_text(sim::fabric_to_json(f).dump(), "round trip"), f);
}

TEST_F(DriverTest, LoadingReplacesTheFaultsInForce) {
    ASSERT_EQ(tusksim_add_fault("tusk_probe_adapter", 1, 3, 1), 0);
    Load(kFabric);
    EXPECT_EQ(tusk_probe_adapter(Open()), 0);
}

// ---- Loading

TEST_F(DriverTest, FailedLoadReportsAndKeepsThePreviousFabric) {
    char err[128];
    EXPECT_EQ(tusksim_load_text(R"({"adapters":[{"instance":40}]})", "mine.json", err, sizeof err), -1);
    EXPECT_STREQ(err, "mine.json: adapters[0].instance: value 40 out of range 0..31");
    Open(3);
}

TEST_F(DriverTest, LoadErrorIsCutToTheCallersBuffer) {
    char err[8];
    EXPECT_EQ(tusksim_load_text("[", "mine.json", err, sizeof err), -1);
    EXPECT_STREQ(err, "mine.js");
    EXPECT_EQ(tusksim_load_text(nullptr, "x", nullptr, 0), -1);
}

TEST_F(DriverTest, DumpGivesTheFabricInForce) {
    const sim::Fabric expected = sim::parse_fabric_text(kFabric, "t");
    EXPECT_TRUE(sim::parse_fabric_text(tusksim_dump(), "dump") == expected);
}

TEST_F(DriverTest, DefaultFabricHasAdaptersAtInstancesOneAndFour) {
    ASSERT_EQ(tusksim_load_default(), 0);
    EXPECT_EQ(open_adapter(0), TUSK_INVALID_HANDLE);
    Open(1);
    Open(4);
}

class DriverEnvTest : public DriverTest {
protected:
    void TearDown() override {
        unsetenv("MIRVAK_SIM_FABRIC");
        if (!path_.empty()) std::remove(path_.c_str());
        DriverTest::TearDown();
    }
    void WriteFile(const std::string& text) {
        char tmpl[] = "/tmp/mirvak-env-fabric-XXXXXX";
        const int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        ::close(fd);
        path_ = tmpl;
        std::ofstream(path_) << text;
        setenv("MIRVAK_SIM_FABRIC", path_.c_str(), 1);
    }
    std::string path_;
};

TEST_F(DriverEnvTest, FirstUseLoadsTheFileNamedInTheEnvironment) {
    WriteFile(R"({"adapters":[{"instance":12}]})");
    EXPECT_EQ(tusksim_load_env(), 0);
    Open(12);
}

TEST_F(DriverEnvTest, BadDescriptionIsOneLineOnStandardErrorAndNoAdapters) {
    WriteFile(R"({"adapters":[{"instance":2,"lnodes":[{"port_wwn":"12"}]}]})");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(tusksim_load_env(), -1);
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "libtuskstor (simulated): " + path_ + ": adapters[0].lnodes[0].port_wwn: expected 16 hex digits\n");
    for (uint32_t i = 0; i < 32; ++i) EXPECT_EQ(open_adapter(i), TUSK_INVALID_HANDLE);
}

TEST_F(DriverEnvTest, WithoutTheVariableTheDefaultIsLoaded) {
    unsetenv("MIRVAK_SIM_FABRIC");
    EXPECT_EQ(tusksim_load_env(), 0);
    Open(1);
    Open(4);
}

}  // namespace
