// The simulated driver library's virtual ports: listing, creating, deleting,
// refusals and writing the description back.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fabric.h"
#include "mirvak/driver_records.h"
#include "mirvak/tuskstor.h"
#include "tusksim.h"

namespace {

const char* kFabric = R"({"adapters":[
 {"instance":2,"hw":{"ports":[{},{}]},
  "lnodes":[
   {"port_num":0,"port_wwn":"2100000000000a01","node_wwn":"2000000000000a01","lnode_id":1,"fcid":"0x010a01",
    "fcf_index":4,"mac":"0e:fc:00:01:0a:01","cos":[0,0,128,0],
    "npiv_template":[{"port_wwn":"5000000000000f01","role":"target","luns":[{"lun":0,"block":"sdz"}]}]},
   {"port_num":1,"port_wwn":"2100000000000a02","node_wwn":"2000000000000a02","lnode_id":2,"fcid":"0x010b01"},
   {"port_num":0,"port_wwn":"2800000000000a01","node_wwn":"2900000000000a01","lnode_id":3,"fcid":"0x010a02",
    "parent":"2100000000000a01"},
   {"port_num":0,"port_wwn":"2800000000000a02","node_wwn":"2900000000000a02","state":"OFFLINE","lnode_id":4,
    "parent":"2100000000000a01"}],
  "npiv_template":[{"port_wwn":"5000000000000e01","role":"TARGET"}]},
 {"instance":5,"npiv":{"create_status":-95,"delete_status":-1,"refused_marker":true},
  "lnodes":[{"port_wwn":"2100000000000b01","lnode_id":1},
            {"port_wwn":"2800000000000b01","lnode_id":2,"parent":"2100000000000b01"}]}]})";

sim::Wwn W(const char* hex) { return *sim::parse_wwn(hex); }

std::string Hex(const uint8_t* p) {
    sim::Wwn w;
    std::memcpy(w.data(), p, w.size());
    return sim::wwn_to_hex(w);
}

npiv_req Request(const char* vport, const char* vnode, const char* physical, const char* pnode = nullptr) {
    npiv_req r{};
    const auto put = [](uint8_t (&field)[8], const char* hex) {
        if (hex != nullptr) std::memcpy(field, W(hex).data(), 8);
    };
    put(r.wwn_0, vport);
    put(r.wwn_8, vnode);
    put(r.wwn_16, physical);
    put(r.wwn_24, pnode);
    return r;
}

// Fabric descriptions with n virtual ports on one physical port.
std::string ManyVports(int n, const std::string& extra = "") {
    std::string json = R"({"adapters":[{"instance":2)" + extra + R"(,"lnodes":[{"port_wwn":"2100000000000a01"})";
    char wwpn[17];
    for (int i = 0; i < n; ++i) {
        std::snprintf(wwpn, sizeof wwpn, "28000000%08x", i + 1);
        json += R"(,{"port_wwn":")" + std::string(wwpn) + R"(","parent":"2100000000000a01"})";
    }
    return json + "]}]}";
}

class DriverNpivTest : public ::testing::Test {
protected:
    void SetUp() override {
        Load(kFabric);
        tusksim_clear_faults();
        tusksim_reset_counts();
    }
    void TearDown() override {
        for (const uint32_t h : opened_) close_adapter(h);
        tusksim_load_default();
        for (const auto& p : files_) std::remove(p.c_str());
        for (const auto& d : dirs_) rmdir(d.c_str());
    }
    static void Load(const std::string& json) {
        char err[256] = {};
        ASSERT_EQ(tusksim_load_text(json.c_str(), "test", err, sizeof err), 0) << err;
    }
    uint32_t Open(uint32_t instance = 2) {
        const uint32_t h = open_adapter(instance);
        EXPECT_NE(h, TUSK_INVALID_HANDLE);
        opened_.push_back(h);
        return h;
    }
    // The list for a physical port, the buffer filled with 0xA5 first.
    std::vector<uint8_t> List(uint32_t h, const char* physical, int* status, uint32_t size = sizeof(npiv_list)) {
        std::vector<uint8_t> buf(sizeof(npiv_list) + 64, 0xA5);
        std::memset(buf.data(), 0, size);
        std::memcpy(buf.data() + 4, W(physical).data(), 8);
        *status = tusk_list_npiv_port(h, buf.data(), size);
        return buf;
    }
    uint32_t Count(uint32_t h, const char* physical) {
        int status = 0;
        const auto buf = List(h, physical, &status);
        EXPECT_EQ(status, 0);
        uint32_t count;
        std::memcpy(&count, buf.data(), 4);
        return count;
    }
    std::vector<lnode_info> Chain(uint32_t h) {
        std::vector<lnode_info> out;
        lnode_info n;
        uint64_t cursor = 0;
        while (tusk_get_lnode_info(h, &n, cursor) == 0 && n.lnode_handle != 0 && out.size() < 300) {
            out.push_back(n);
            cursor = n.lnode_handle;
        }
        return out;
    }
    std::string TempFile(const std::string& text) {
        char dir[] = "/tmp/mirvak-npiv-XXXXXX";
        EXPECT_NE(mkdtemp(dir), nullptr);
        dirs_.push_back(dir);
        const std::string path = std::string(dir) + "/fabric.json";
        std::ofstream(path) << text;
        files_.push_back(path);
        files_.push_back(path + ".tmp");
        return path;
    }
    static std::string Read(const std::string& path) {
        std::ifstream in(path);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    std::vector<uint32_t> opened_;
    std::vector<std::string> files_, dirs_;
};

// ---- Listing

TEST_F(DriverNpivTest, ListGivesTheCountAndTheVirtualPortsInChainOrder) {
    int status = -1;
    const auto buf = List(Open(), "2100000000000a01", &status);
    ASSERT_EQ(status, 0);
    uint32_t count;
    std::memcpy(&count, buf.data(), 4);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(Hex(&buf[20]), "2800000000000a01");
    EXPECT_EQ(Hex(&buf[20 + 8]), "2900000000000a01");  // our driver also gives the WWNN
    EXPECT_EQ(Hex(&buf[46]), "2800000000000a02");
    EXPECT_EQ(Hex(&buf[72]), "0000000000000000");
    EXPECT_EQ(Hex(&buf[4]), "2100000000000a01");
}

TEST_F(DriverNpivTest, PhysicalPortWithoutVirtualPortsListsNone) {
    EXPECT_EQ(Count(Open(), "2100000000000a02"), 0u);
}

TEST_F(DriverNpivTest, ListOfAWwpnThatIsNotAPhysicalPortFails) {
    int status = 0;
    List(Open(), "2800000000000a01", &status);
    EXPECT_EQ(status, -ENOENT);
    List(Open(), "2100000000000b01", &status);  // a port of another adapter
    EXPECT_EQ(status, -ENOENT);
}

TEST_F(DriverNpivTest, ListNeverWritesPastTheGivenSize) {
    int status = -1;
    const auto buf = List(Open(), "2100000000000a01", &status, 20 + 26);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(buf[0], 2);
    EXPECT_EQ(Hex(&buf[20]), "2800000000000a01");
    EXPECT_EQ(buf[46], 0xA5);
    List(Open(), "2100000000000a01", &status, 19);
    EXPECT_EQ(status, -EINVAL);
}

TEST_F(DriverNpivTest, ListHoldsAtMost128Entries) {
    Load(ManyVports(130, R"(,"npiv":{"max_vports":200})"));
    int status = -1;
    const auto buf = List(Open(), "2100000000000a01", &status);
    ASSERT_EQ(status, 0);
    uint32_t count;
    std::memcpy(&count, buf.data(), 4);
    EXPECT_EQ(count, 130u);
    EXPECT_EQ(Hex(&buf[20 + 127 * 26]), "2800000000000080");
    EXPECT_EQ(buf[sizeof(npiv_list)], 0xA5);
}

TEST_F(DriverNpivTest, DescriptionCanMakeTheDriverReportALargerCount) {
    Load(R"({"adapters":[{"instance":2,"lnodes":[
        {"port_wwn":"2100000000000a01","npiv_reported_count":200},
        {"port_wwn":"2800000000000a01","parent":"2100000000000a01"}]}]})");
    const uint32_t h = Open();
    int status = -1;
    const auto buf = List(h, "2100000000000a01", &status);
    uint32_t count;
    std::memcpy(&count, buf.data(), 4);
    EXPECT_EQ(count, 200u);
    EXPECT_EQ(Hex(&buf[20]), "2800000000000a01");
    EXPECT_EQ(Hex(&buf[46]), "0000000000000000");
    // The local node reports the same count.
    EXPECT_EQ(Chain(h).at(0).lnode_word_28, 200u);
}

// ---- Creating

TEST_F(DriverNpivTest, CreateAppendsAVirtualPortOfThePhysicalPort) {
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000a03", "2900000000000a03", "2100000000000a01");
    ASSERT_EQ(tusk_create_npiv_port(h, &r), 0);
    EXPECT_EQ(r.status, 0);
    const auto chain = Chain(h);
    ASSERT_EQ(chain.size(), 5u);
    const lnode_info& v = chain[4];
    EXPECT_EQ(Hex(v.port_wwn), "2800000000000a03");
    EXPECT_EQ(Hex(v.node_wwn), "2900000000000a03");
    EXPECT_EQ(v.port_num, 0);
    EXPECT_EQ(v.fcf_index, 4u);
    EXPECT_EQ(v.lnode_mac[5], 0x01);
    EXPECT_EQ(v.cos[2].flags, 128);
    EXPECT_EQ(field_text(v.state), "READY");
    EXPECT_EQ(v.lnode_id, 5u);
    EXPECT_EQ(v.fcid, 0x010a03u);  // 0x010a02 is taken
    for (std::size_t k = 0; k < 4; ++k) EXPECT_NE(chain[k].lnode_handle, v.lnode_handle);
    EXPECT_EQ(Count(h, "2100000000000a01"), 3u);
    EXPECT_EQ(chain[0].lnode_word_28, 3u);
}

TEST_F(DriverNpivTest, CreatedPortSeesTheRemoteNodesOfItsPortsTemplate) {
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000a03", "2900000000000a03", "2100000000000a01");
    ASSERT_EQ(tusk_create_npiv_port(h, &r), 0);
    const lnode_info v = Chain(h).at(4);
    EXPECT_EQ(v.num_rnodes, 1u);
    rnode_info rn;
    ASSERT_EQ(tusk_get_rnode_info(h, &rn, 0xFFFFFFFFu, v.lnode_id), 0);
    EXPECT_EQ(Hex(rn.port_wwn), "5000000000000f01");
    const sim::Fabric now = sim::parse_fabric_text(tusksim_dump(), "dump");
    EXPECT_EQ(now.adapters[0].lnodes.at(4).rnodes.at(0).luns.at(0).block, "sdz");
}

TEST_F(DriverNpivTest, PortWithoutATemplateUsesTheAdapters) {
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000a04", "2900000000000a04", "2100000000000a02");
    ASSERT_EQ(tusk_create_npiv_port(h, &r), 0);
    const lnode_info v = Chain(h).at(4);
    EXPECT_EQ(v.port_num, 1);
    rnode_info rn;
    ASSERT_EQ(tusk_get_rnode_info(h, &rn, 0xFFFFFFFFu, v.lnode_id), 0);
    EXPECT_EQ(field_text(rn.role), "TARGET");
}

TEST_F(DriverNpivTest, CreatedPortIsFoundByItsWwn) {
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000a03", "2900000000000a03", "2100000000000a01", "2000000000000a01");
    ASSERT_EQ(tusk_create_npiv_port(h, &r), 0);
    lnode_info n{};
    std::memcpy(n.port_wwn, W("2800000000000a03").data(), 8);
    ASSERT_EQ(tusk_get_lnode_info_by_fcid(h, &n, 1), 0);
    EXPECT_EQ(n.lnode_id, 5u);
}

TEST_F(DriverNpivTest, CreateRefusesAWwpnInUseAnywhere) {
    const uint32_t h = Open();
    for (const char* taken : {"2100000000000a02", "2800000000000a01", "2100000000000b01", "2800000000000b01"}) {
        npiv_req r = Request(taken, "2900000000000a09", "2100000000000a01");
        EXPECT_EQ(tusk_create_npiv_port(h, &r), -EEXIST) << taken;
        EXPECT_EQ(r.status, 0);  // no marker without the policy asking for it
    }
    EXPECT_EQ(Chain(h).size(), 4u);
}

TEST_F(DriverNpivTest, CreateRefusesAnUnknownOrVirtualPhysicalPort) {
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000a09", "2900000000000a09", "2100000000000a09");
    EXPECT_EQ(tusk_create_npiv_port(h, &r), -ENOENT);
    r = Request("2800000000000a09", "2900000000000a09", "2800000000000a01");
    EXPECT_EQ(tusk_create_npiv_port(h, &r), -ENOENT);
    r = Request("2800000000000a09", "2900000000000a09", nullptr);
    EXPECT_EQ(tusk_create_npiv_port(h, &r), -ENOENT);
}

TEST_F(DriverNpivTest, CreateRefusesAZeroWwpn) {
    npiv_req r = Request(nullptr, "2900000000000a09", "2100000000000a01");
    EXPECT_EQ(tusk_create_npiv_port(Open(), &r), -EINVAL);
}

TEST_F(DriverNpivTest, CreateRefusesThe129thVirtualPortOfAPort) {
    Load(ManyVports(128));
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000f00", "2900000000000f00", "2100000000000a01");
    EXPECT_EQ(tusk_create_npiv_port(h, &r), -ENOSPC);
    EXPECT_EQ(Count(h, "2100000000000a01"), 128u);
}

TEST_F(DriverNpivTest, MaxVportsComesFromThePolicy) {
    Load(ManyVports(2, R"(,"npiv":{"max_vports":3})"));
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000f00", "2900000000000f00", "2100000000000a01");
    EXPECT_EQ(tusk_create_npiv_port(h, &r), 0);
    r = Request("2800000000000f01", "2900000000000f01", "2100000000000a01");
    EXPECT_EQ(tusk_create_npiv_port(h, &r), -ENOSPC);
}

TEST_F(DriverNpivTest, PolicyForcesARefusalAndLeavesTheMarker) {
    const uint32_t h = Open(5);
    npiv_req r = Request("2800000000000b02", "2900000000000b02", "2100000000000b01");
    EXPECT_EQ(tusk_create_npiv_port(h, &r), -95);
    EXPECT_EQ(r.status, -5);
    r = Request("2800000000000b01", nullptr, "2100000000000b01");
    EXPECT_EQ(tusk_delete_npiv_port(h, &r), -1);
    EXPECT_EQ(r.status, -5);
    EXPECT_EQ(Chain(h).size(), 2u);
}

TEST_F(DriverNpivTest, MarkerAlsoComesWithTheDriversOwnRefusals) {
    Load(R"({"adapters":[{"instance":2,"npiv":{"refused_marker":true},
        "lnodes":[{"port_wwn":"2100000000000a01"}]}]})");
    const uint32_t h = Open();
    npiv_req r = Request("2100000000000a01", nullptr, "2100000000000a01");
    EXPECT_EQ(tusk_create_npiv_port(h, &r), -EEXIST);
    EXPECT_EQ(r.status, -5);
    r = Request("2800000000000a01", nullptr, nullptr);
    EXPECT_EQ(tusk_delete_npiv_port(h, &r), -ENOENT);
    EXPECT_EQ(r.status, -5);
}

TEST_F(DriverNpivTest, FaultedCreateChangesNothingAndLeavesNoMarker) {
    Load(R"({"adapters":[{"instance":2,"npiv":{"refused_marker":true},
        "lnodes":[{"port_wwn":"2100000000000a01"}]}]})");
    ASSERT_EQ(tusksim_add_fault("tusk_create_npiv_port", 1, 12, 0), 0);
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000a01", nullptr, "2100000000000a01");
    EXPECT_EQ(tusk_create_npiv_port(h, &r), 12);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(Chain(h).size(), 1u);
}

// ---- Deleting

TEST_F(DriverNpivTest, DeleteRemovesTheVirtualPort) {
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000a01", nullptr, "2100000000000a01");
    ASSERT_EQ(tusk_delete_npiv_port(h, &r), 0);
    const auto chain = Chain(h);
    ASSERT_EQ(chain.size(), 3u);
    EXPECT_EQ(chain[2].lnode_id, 4u);
    EXPECT_EQ(Count(h, "2100000000000a01"), 1u);
    EXPECT_EQ(tusk_delete_npiv_port(h, &r), -ENOENT);
}

TEST_F(DriverNpivTest, DeleteRefusesAPhysicalPortAnUnknownOrAZeroWwpn) {
    const uint32_t h = Open();
    npiv_req r = Request("2100000000000a01", nullptr, nullptr);
    EXPECT_EQ(tusk_delete_npiv_port(h, &r), -ENOENT);
    r = Request("2800000000000a09", nullptr, nullptr);
    EXPECT_EQ(tusk_delete_npiv_port(h, &r), -ENOENT);
    r = Request("2800000000000b01", nullptr, nullptr);  // a virtual port of another adapter
    EXPECT_EQ(tusk_delete_npiv_port(h, &r), -ENOENT);
    r = Request(nullptr, nullptr, nullptr);
    EXPECT_EQ(tusk_delete_npiv_port(h, &r), -EINVAL);
    EXPECT_EQ(Chain(h).size(), 4u);
}

// ---- Writing the description back

TEST_F(DriverNpivTest, ChangesAreWrittenBackToTheDescriptionFile) {
    const std::string path = TempFile(kFabric);
    char err[256] = {};
    ASSERT_EQ(tusksim_load_file(path.c_str(), err, sizeof err), 0) << err;
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000a03", "2900000000000a03", "2100000000000a01");
    ASSERT_EQ(tusk_create_npiv_port(h, &r), 0);

    const sim::Fabric written = sim::load_fabric_file(path);
    ASSERT_EQ(written.adapters[0].lnodes.size(), 5u);
    const sim::LocalNode& v = written.adapters[0].lnodes[4];
    EXPECT_EQ(sim::wwn_to_hex(v.port_wwn), "2800000000000a03");
    EXPECT_EQ(v.parent, W("2100000000000a01"));
    EXPECT_TRUE(written == sim::parse_fabric_text(tusksim_dump(), "dump"));

    // A later process, loading the file afresh, sees the new port.
    ASSERT_EQ(tusksim_load_default(), 0);
    ASSERT_EQ(tusksim_load_file(path.c_str(), err, sizeof err), 0) << err;
    EXPECT_EQ(Count(h, "2100000000000a01"), 3u);

    r = Request("2800000000000a01", nullptr, nullptr);
    ASSERT_EQ(tusk_delete_npiv_port(h, &r), 0);
    EXPECT_EQ(sim::load_fabric_file(path).adapters[0].lnodes.size(), 4u);
}

TEST_F(DriverNpivTest, FabricFromTextIsNotWrittenAnywhere) {
    const std::string path = TempFile(kFabric);
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000a03", "2900000000000a03", "2100000000000a01");
    ASSERT_EQ(tusk_create_npiv_port(h, &r), 0);
    EXPECT_EQ(Read(path), kFabric);
}

TEST_F(DriverNpivTest, FailedWriteBackUndoesTheChange) {
    const std::string path = TempFile(kFabric);
    char err[256] = {};
    ASSERT_EQ(tusksim_load_file(path.c_str(), err, sizeof err), 0) << err;
    std::remove(path.c_str());
    ASSERT_EQ(rmdir(dirs_.back().c_str()), 0);
    const uint32_t h = Open();
    npiv_req r = Request("2800000000000a03", "2900000000000a03", "2100000000000a01");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(tusk_create_npiv_port(h, &r), -EIO);
    const std::string message = ::testing::internal::GetCapturedStderr();
    // Each writer writes a temporary file of its own: <file>.tmp.<pid>.<n>.
    EXPECT_EQ(message.rfind("libtuskstor (simulated): cannot write " + path + ".tmp." + std::to_string(getpid()) + ".", 0),
              0u)
        << message;
    EXPECT_EQ(Chain(h).size(), 4u);
}

TEST_F(DriverNpivTest, FileNamedInTheEnvironmentIsWrittenBack) {
    const std::string path = TempFile(kFabric);
    setenv("MIRVAK_SIM_FABRIC", path.c_str(), 1);
    ASSERT_EQ(tusksim_load_env(), 0);
    unsetenv("MIRVAK_SIM_FABRIC");
    npiv_req r = Request("2800000000000a01", nullptr, nullptr);
    ASSERT_EQ(tusk_delete_npiv_port(Open(), &r), 0);
    EXPECT_EQ(sim::load_fabric_file(path).adapters[0].lnodes.size(), 3u);
}

}  // namespace
