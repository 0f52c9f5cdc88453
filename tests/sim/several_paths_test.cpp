// One LUN behind target ports on different local ports, as a dual-fabric
// SAN shows it: a description that gives the LUN the same identity behind
// two targets, and fabrics from the generator with several paths. Through
// every path the plug-in's version 2 mapping gives the same LUID, and
// sg_inq and lsscsi on the simulated host the same identification page,
// serial number and size, each path with its own target WWPN and device.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fabric.h"
#include "mirvak/fcp_mapping.h"
#include "run_command.h"
#include "scale_fabric.h"
#include "sim_env.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;
using testenv::CommandResult;
using testenv::ShellQuoted;

// The example of sim/FABRIC.md: one array with LUN 0 behind target port
// ...aa0001 on port 0 and target port ...bb0001 on port 1.
constexpr const char* kDualFabric = R"({"adapters": [{
  "instance": 0,
  "hw": {"model": "MVF-2210", "ports": [{"speed": 8}, {"speed": 8}]},
  "lnodes": [
    {"port_num": 0, "lnode_id": 1, "port_wwn": "2100001b9e0a0000", "node_wwn": "2000001b9e0a0000",
     "rnodes": [{"port_wwn": "5000000000aa0001", "node_wwn": "5000000000aa0000", "fcid": "0x010200",
                 "luns": [{"lun": 0, "block": "sdb", "serial": "ARRAY1L0", "size": 4194304,
                           "designators": [{"id": "5a 06 c5 e0 00 00 0a 00"}]}]}]},
    {"port_num": 1, "lnode_id": 2, "port_wwn": "2100001b9e0a0001", "node_wwn": "2000001b9e0a0001",
     "rnodes": [{"port_wwn": "5000000000bb0001", "node_wwn": "5000000000aa0000", "fcid": "0x020200",
                 "luns": [{"lun": 0, "block": "sdc", "serial": "ARRAY1L0", "size": 4194304,
                           "designators": [{"id": "5a 06 c5 e0 00 00 0a 00"}]}]}]}]}]})";

HBA_WWN Wwn(uint64_t v) {
    HBA_WWN w;
    for (int i = 0; i < 8; ++i) w.wwn[i] = static_cast<uint8_t>(v >> (56 - 8 * i));
    return w;
}

uint64_t Num(const uint8_t* w) {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | w[i];
    return v;
}

std::string Hex(const uint8_t* p, std::size_t n) {
    std::string out;
    char b[4];
    for (std::size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, "%02x", p[i]);
        out += b;
    }
    return out;
}

// The LUID: its first ten bytes (a designator of 8 bytes behind two head
// bytes); the rest of its 256 bytes are zero.
std::string Luid(const MV_FCPSCSIENTRYV2& e) {
    for (std::size_t i = 10; i < sizeof e.LUID; ++i) EXPECT_EQ(e.LUID[i], 0) << i;
    return Hex(e.LUID, 10);
}

// The entry of FCP LUN l (entries come in the order the host lists its LUNs).
const MV_FCPSCSIENTRYV2* OfLun(const std::vector<MV_FCPSCSIENTRYV2>& entries, uint64_t l) {
    for (const MV_FCPSCSIENTRYV2& e : entries)
        if (e.FcpId.FcpLun == l << 48) return &e;
    ADD_FAILURE() << "no entry for LUN " << l;
    return nullptr;
}

TEST(SeveralPathsDescription, BothTargetsHoldOneLun) {
    const sim::Fabric f = sim::parse_fabric_text(kDualFabric, "dual");
    const sim::LocalNode& p0 = f.adapters.at(0).lnodes.at(0);
    const sim::LocalNode& p1 = f.adapters.at(0).lnodes.at(1);
    const sim::Lun& a = p0.rnodes.at(0).luns.at(0);
    const sim::Lun& b = p1.rnodes.at(0).luns.at(0);
    ASSERT_EQ(a.designators.size(), 1u);
    EXPECT_EQ(a.designators[0].id, (std::vector<uint8_t>{0x5a, 0x06, 0xc5, 0xe0, 0x00, 0x00, 0x0a, 0x00}));
    EXPECT_EQ(a.designators[0].type, 3);  // NAA, the default
    EXPECT_TRUE(a.designators == b.designators);
    EXPECT_EQ(a.serial, b.serial);
    EXPECT_EQ(a.size, b.size);
    EXPECT_NE(p0.rnodes[0].port_wwn, p1.rnodes[0].port_wwn);
    EXPECT_NE(a.block, b.block);
    // The writer keeps both.
    EXPECT_TRUE(sim::parse_fabric(sim::fabric_to_json(f), "again") == f);
}

sim::ScaleParams TwoPortsTwoPaths(uint32_t luns) {
    sim::ScaleParams p;
    p.ports = 2;
    p.luns = luns;
    p.paths = 2;
    return p;
}

class SeveralPathsMapping : public testenv::SimTest {
protected:
    void TearDown() override {
        if (handle_ != 0xFFFFFFFFu) mirvak_CloseAdapter(handle_);
        testenv::SimTest::TearDown();
    }

    // The version 2 mapping of one port of /dev/tuskstor0 (room for 8 entries).
    std::vector<MV_FCPSCSIENTRYV2> Mapping(uint64_t port) {
        if (handle_ == 0xFFFFFFFFu) handle_ = mirvak_OpenAdapter("/dev/tuskstor0");
        EXPECT_NE(handle_, 0xFFFFFFFFu);
        std::vector<uint8_t> record(4 + 8 * sizeof(MV_FCPSCSIENTRYV2), 0);
        EXPECT_EQ(mirvak_GetFCPTargetMappingv2(handle_, Wwn(port),
                                               reinterpret_cast<MV_FCPTARGETMAPPINGV2*>(record.data())),
                  0u);
        uint32_t count = 0;
        std::memcpy(&count, record.data(), 4);
        std::vector<MV_FCPSCSIENTRYV2> out(std::min<uint32_t>(count, 8));
        for (std::size_t i = 0; i < out.size(); ++i)
            std::memcpy(&out[i], record.data() + 4 + i * sizeof(MV_FCPSCSIENTRYV2), sizeof out[i]);
        return out;
    }

    HBA_HANDLE handle_ = 0xFFFFFFFFu;
};

TEST_F(SeveralPathsMapping, DescribedLunHasOneLuidThroughBothPorts) {
    UseFabric(kDualFabric);
    const auto first = Mapping(0x2100001b9e0a0000);
    const auto second = Mapping(0x2100001b9e0a0001);
    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(second.size(), 1u);
    EXPECT_STREQ(first[0].ScsiId.OSDeviceName, "/dev/sdb");
    EXPECT_STREQ(second[0].ScsiId.OSDeviceName, "/dev/sdc");
    EXPECT_EQ(Num(first[0].FcpId.PortWWN), 0x5000000000aa0001u);
    EXPECT_EQ(Num(second[0].FcpId.PortWWN), 0x5000000000bb0001u);
    // The whole designator, behind its length byte.
    EXPECT_EQ(Luid(first[0]), "00085a06c5e000000a00");
    EXPECT_EQ(Luid(second[0]), "00085a06c5e000000a00");
}

TEST_F(SeveralPathsMapping, GeneratedLunsHaveOneLuidThroughEachPathAndOneEachLun) {
    UseFabric(sim::scale_fabric_json(TwoPortsTwoPaths(3)).dump());
    const auto first = Mapping(0x2100001b9e000000);
    const auto second = Mapping(0x2100001b9e000001);
    ASSERT_EQ(first.size(), 3u);
    ASSERT_EQ(second.size(), 3u);
    for (uint64_t l = 0; l < 3; ++l) {
        SCOPED_TRACE(l);
        const MV_FCPSCSIENTRYV2* a = OfLun(first, l);
        const MV_FCPSCSIENTRYV2* b = OfLun(second, l);
        ASSERT_TRUE(a != nullptr && b != nullptr);
        EXPECT_EQ(Luid(*a), "00085a06c5e00000000" + std::to_string(l));
        EXPECT_EQ(Luid(*b), Luid(*a));
        EXPECT_EQ(Num(a->FcpId.PortWWN), 0x5000000000000000u);
        EXPECT_EQ(Num(b->FcpId.PortWWN), 0x5000000001000000u);
        EXPECT_STRNE(a->ScsiId.OSDeviceName, b->ScsiId.OSDeviceName);
    }
}

// ---- Real tools on the simulated host

constexpr int kToolSeconds = 30;  // bound on every tool run

std::string Beside(const char* name) { return (fs::read_symlink("/proc/self/exe").parent_path() / name).string(); }

// What the command prints under "mirvak-simhost run --fabric FILE".
CommandResult OnHost(const std::string& fabric_file, const std::string& command) {
    return testenv::RunShell("timeout " + std::to_string(kToolSeconds) + " " + ShellQuoted(Beside("mirvak-simhost")) +
                             " run --fabric " + ShellQuoted(fabric_file) + " -- sh -c " + ShellQuoted(command) +
                             " 2>/dev/null");
}

class SeveralPathsTools : public ::testing::Test {
protected:
    std::string Write(const std::string& text) {
        const std::string file = dir_.path() + "/fabric.json";
        std::ofstream(file) << text;
        return file;
    }
    sim::TempDir dir_{"mirvak-several-paths"};
};

TEST_F(SeveralPathsTools, SgInqShowsOneIdentityThroughBothPaths) {
    const std::string file = Write(kDualFabric);
    const CommandResult r =
        OnHost(file, "sg_inq -p 0x83 /dev/sdb; echo ==; sg_inq -p 0x83 /dev/sdc; echo ==; sg_inq /dev/sdb; echo ==; "
                     "sg_inq /dev/sdc; echo ==; sg_readcap /dev/sdc");
    ASSERT_EQ(r.status, 0) << r.out;
    std::vector<std::string> parts;
    std::size_t from = 0;
    for (std::size_t at; (at = r.out.find("==\n", from)) != std::string::npos; from = at + 3)
        parts.push_back(r.out.substr(from, at - from));
    parts.push_back(r.out.substr(from));
    ASSERT_EQ(parts.size(), 5u) << r.out;
    EXPECT_EQ(parts[0], parts[1]);
    EXPECT_NE(parts[0].find("      NAA 5, IEEE Company_id: 0xa06c5e\n"
                            "      Vendor Specific Identifier: 0xa00\n"
                            "      [0x5a06c5e000000a00]\n"),
              std::string::npos)
        << parts[0];
    EXPECT_EQ(parts[2], parts[3]);
    EXPECT_NE(parts[2].find(" Unit serial number: ARRAY1L0\n"), std::string::npos) << parts[2];
    EXPECT_NE(parts[4].find("Number of logical blocks=4194304\n"), std::string::npos) << parts[4];
}

TEST_F(SeveralPathsTools, LsscsiShowsEachPathWithItsOwnTarget) {
    const std::string file = Write(kDualFabric);
    const CommandResult r = OnHost(file, "lsscsi -t -k -s");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out,
              "[0:0:0:0]    disk    fcoe:0x5000000000aa0001,0x010200  /dev/sdb   2.14GB\n"
              "[1:0:0:0]    disk    fcoe:0x5000000000bb0001,0x020200  /dev/sdc   2.14GB\n");
}

TEST_F(SeveralPathsTools, GeneratedPathsAgreeInSgInq) {
    const std::string file = Write(sim::scale_fabric_json(TwoPortsTwoPaths(2)).dump());
    // sda, sdb behind port 0; sdc, sdd the same LUNs behind port 1.
    const CommandResult lsscsi = OnHost(file, "lsscsi -t -k");
    ASSERT_EQ(lsscsi.status, 0) << lsscsi.out;
    EXPECT_EQ(lsscsi.out,
              "[0:0:0:0]    disk    fcoe:0x5000000000000000,0x200000  /dev/sda \n"
              "[0:0:0:1]    disk    fcoe:0x5000000000000000,0x200000  /dev/sdb \n"
              "[1:0:0:0]    disk    fcoe:0x5000000001000000,0x210000  /dev/sdc \n"
              "[1:0:0:1]    disk    fcoe:0x5000000001000000,0x210000  /dev/sdd \n");
    struct Pair {
        const char *first, *second, *designator, *serial;
    };
    for (const Pair& p : {Pair{"sda", "sdc", "0x5a06c5e000000000", "SIM5000000000000000L0"},
                          Pair{"sdb", "sdd", "0x5a06c5e000000001", "SIM5000000000000000L1"}}) {
        SCOPED_TRACE(p.first);
        const auto pages = [](const std::string& dev) { return "sg_vpd -p di /dev/" + dev + "; sg_inq /dev/" + dev; };
        const CommandResult first = OnHost(file, pages(p.first));
        const CommandResult second = OnHost(file, pages(p.second));
        ASSERT_EQ(first.status, 0) << first.out;
        EXPECT_EQ(first.out, second.out);
        EXPECT_NE(first.out.find("designator type: NAA,  code set: Binary\n      " + std::string(p.designator) + "\n"),
                  std::string::npos)
            << first.out;
        EXPECT_NE(first.out.find(" Unit serial number: " + std::string(p.serial) + "\n"), std::string::npos)
            << first.out;
    }
}

}  // namespace
