// The simulated host follows the driver's virtual ports: a created port gets
// an fc_host entry with the remote ports and LUNs its template gives, a
// deleted one loses it, the other ports keep their host numbers, and LUN
// discovery through the plug-in sees all of it, also from another process.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "fabric.h"
#include "mirvak/driver_records.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/host_view.h"
#include "mirvak/mgmt.h"
#include "mirvak/tuskstor.h"
#include "sim_env.h"
#include "sysfs_gen.h"
#include "tusksim.h"

namespace {

namespace fs = std::filesystem;

// Adapter 2: physical ports P1 (with a template of its own: target T1 with
// LUNs 0 and 1 on sdy and sdz) and P2 (no template: the adapter's, target T2
// with LUN 0 on sdx), and virtual port V1 of P1 (target T3, sdw). Adapter 3:
// physical port P3 (target T4, sdv). Default host numbers: P1 0, P2 1, V1 2,
// P3 3.
const char* kFabric = R"({"adapters":[
 {"instance":2,"hw":{"ports":[{},{}]},
  "lnodes":[
   {"port_num":0,"port_wwn":"2100000000000a01","node_wwn":"2000000000000a01","lnode_id":1,"fcid":"0x010a01",
    "npiv_template":[{"port_wwn":"5000000000000f01","node_wwn":"5100000000000f01",
                      "luns":[{"lun":0,"block":"sdy"},{"lun":1,"block":"sdz","vendor":"TPLVEND"}]}]},
   {"port_num":1,"port_wwn":"2100000000000a02","node_wwn":"2000000000000a02","lnode_id":2,"fcid":"0x010b01"},
   {"port_num":0,"port_wwn":"2800000000000a01","node_wwn":"2900000000000a01","lnode_id":3,"fcid":"0x010a02",
    "parent":"2100000000000a01",
    "rnodes":[{"port_wwn":"5000000000000c01","luns":[{"lun":0,"block":"sdw"}]}]}],
  "npiv_template":[{"port_wwn":"5000000000000e01","luns":[{"lun":0,"block":"sdx"}]}]},
 {"instance":3,
  "lnodes":[{"port_wwn":"2100000000000b01","lnode_id":1,
             "rnodes":[{"port_wwn":"5000000000000d01","luns":[{"lun":0,"block":"sdv"}]}]}]}]})";

constexpr unsigned long kP1 = 0x2100000000000a01ul;
constexpr unsigned long kP3 = 0x2100000000000b01ul;
constexpr unsigned long kV1 = 0x2800000000000a01ul;
constexpr unsigned long kNew = 0x2800000000000a03ul;
constexpr unsigned long kT1 = 0x5000000000000f01ul;
constexpr unsigned long kT2 = 0x5000000000000e01ul;
constexpr unsigned long kT3 = 0x5000000000000c01ul;
constexpr unsigned long kT4 = 0x5000000000000d01ul;

sim::Wwn W(unsigned long v) {
    sim::Wwn w;
    for (int i = 7; i >= 0; --i, v >>= 8) w[static_cast<std::size_t>(i)] = static_cast<uint8_t>(v & 0xFF);
    return w;
}

npiv_req Request(unsigned long vport, unsigned long vnode, unsigned long physical) {
    npiv_req r{};
    std::memcpy(r.wwn_0, W(vport).data(), 8);
    std::memcpy(r.wwn_8, W(vnode).data(), 8);
    std::memcpy(r.wwn_16, W(physical).data(), 8);
    return r;
}

std::string Read(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Every file below dir, relative path -> contents.
std::vector<std::pair<std::string, std::string>> Tree(const fs::path& dir) {
    std::vector<std::pair<std::string, std::string>> out;
    if (!fs::exists(dir)) return out;
    for (const auto& e : fs::recursive_directory_iterator(dir)) {
        const std::string rel = fs::relative(e.path(), dir).string();
        out.emplace_back(rel, e.is_regular_file() ? Read(e.path()) : std::string("<dir>"));
    }
    std::sort(out.begin(), out.end());
    return out;
}

class NpivHostTest : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        RegisterPlugin("/opt/plugin/libexample.so");
        UseFabric(kFabric);
    }
    void TearDown() override {
        for (const uint32_t h : opened_) close_adapter(h);
        SimTest::TearDown();
    }
    uint32_t Open(uint32_t instance = 2) {
        const uint32_t h = open_adapter(instance);
        EXPECT_NE(h, TUSK_INVALID_HANDLE);
        opened_.push_back(h);
        return h;
    }
    int Create(unsigned long vport, unsigned long physical, uint32_t instance = 2) {
        npiv_req r = Request(vport, vport | 0x0100000000000000ul, physical);
        return tusk_create_npiv_port(Open(instance), &r);
    }
    int Delete(unsigned long vport, uint32_t instance = 2) {
        npiv_req r = Request(vport, 0, 0);
        return tusk_delete_npiv_port(Open(instance), &r);
    }
    fs::path Host(int n) const { return fs::path(root()) / "sys/class/fc_host" / ("host" + std::to_string(n)); }
    std::string PortName(int n) const { return Read(Host(n) / "port_name"); }
    // The fc_host entries there are now.
    std::set<std::string> Hosts() const {
        std::set<std::string> out;
        for (const auto& e : fs::directory_iterator(fs::path(root()) / "sys/class/fc_host"))
            out.insert(e.path().filename().string());
        return out;
    }
    // LUN discovery through the plug-in: count, then the records.
    unsigned long Count(unsigned long local, unsigned long remote) {
        unsigned long n = 0;
        printed = testenv::CaptureOut([&] { n = getNumLuns(local, remote); });
        return n;
    }
    std::vector<lun_info> Luns(unsigned long local, unsigned long remote) {
        lun_info* luns = nullptr;
        unsigned int count = 0;
        printed = testenv::CaptureOut([&] { getVportLuninfo(&luns, local, remote, &count); });
        std::vector<lun_info> out(luns, luns + count);
        std::free(luns);
        return out;
    }
    // The progress lines of the latest discovery (without the messages about
    // the block/size files that this layout does not have).
    std::string Progress() const {
        std::istringstream in(printed);
        std::string line, out;
        while (std::getline(in, line))
            if (line.rfind("BTL info ", 0) == 0) out += line + "\n";
        return out;
    }
    std::string printed;
    std::vector<uint32_t> opened_;
};

// ---- Creating

TEST_F(NpivHostTest, CreatedPortGetsAnFcHostAfterEveryOther) {
    ASSERT_EQ(Hosts(), (std::set<std::string>{"host0", "host1", "host2", "host3"}));
    ASSERT_EQ(Create(kNew, kP1), 0);
    EXPECT_EQ(Hosts(), (std::set<std::string>{"host0", "host1", "host2", "host3", "host4"}));
    EXPECT_EQ(PortName(4), "0x2800000000000a03\n");
    EXPECT_EQ(Read(Host(4) / "node_name"), "0x2900000000000a03\n");
    EXPECT_EQ(Read(Host(4) / "port_state"), "Online\n");
    // The ports that were there keep their numbers.
    EXPECT_EQ(PortName(0), "0x2100000000000a01\n");
    EXPECT_EQ(PortName(1), "0x2100000000000a02\n");
    EXPECT_EQ(PortName(2), "0x2800000000000a01\n");
    EXPECT_EQ(PortName(3), "0x2100000000000b01\n");
}

TEST_F(NpivHostTest, CreatedPortShowsItsPortsTemplate) {
    ASSERT_EQ(Create(kNew, kP1), 0);
    const fs::path rport = Host(4) / "device/rport-4:0-0";
    EXPECT_EQ(Read(rport / "fc_remote_ports:rport-4:0-0/port_name"), "0x5000000000000f01\n");
    EXPECT_EQ(Read(rport / "fc_remote_ports:rport-4:0-0/node_name"), "0x5100000000000f01\n");
    EXPECT_EQ(Read(rport / "target4:0:0/4:0:0:1/block:sdz/size"), "2097152\n");

    EXPECT_EQ(Count(kNew, kT1), 2u);
    const auto luns = Luns(kNew, kT1);
    ASSERT_EQ(luns.size(), 2u);
    EXPECT_STREQ(luns[0].hctl, "4:0:0:0");
    EXPECT_STREQ(luns[0].device, "/dev/sdy");
    EXPECT_STREQ(luns[1].hctl, "4:0:0:1");
    EXPECT_STREQ(luns[1].device, "/dev/sdz");
    EXPECT_STREQ(luns[1].vendor, "TPLVEND");
    EXPECT_EQ(Progress(), "BTL info Bus:port:target:lun -> 4:0:0:0\nBTL info Bus:port:target:lun -> 4:0:0:1\n");
    // The device index lists the template's LUNs under the new host too.
    EXPECT_NE(Read(fs::path(root()) / "sim/sg.json").find("\"4:0:0:1\""), std::string::npos);
}

TEST_F(NpivHostTest, PortWithoutATemplateShowsTheAdapters) {
    ASSERT_EQ(Create(kNew, 0x2100000000000a02ul), 0);
    EXPECT_EQ(Count(kNew, kT2), 1u);
    const auto luns = Luns(kNew, kT2);
    ASSERT_EQ(luns.size(), 1u);
    EXPECT_STREQ(luns[0].hctl, "4:0:0:0");
    EXPECT_STREQ(luns[0].device, "/dev/sdx");
    EXPECT_EQ(Count(kNew, kT1), 0u);
}

TEST_F(NpivHostTest, OtherPortsStillShowTheirLuns) {
    ASSERT_EQ(Create(kNew, kP1), 0);
    EXPECT_EQ(Count(kV1, kT3), 1u);
    EXPECT_EQ(Count(kP3, kT4), 1u);
    const auto luns = Luns(kP3, kT4);
    ASSERT_EQ(luns.size(), 1u);
    EXPECT_STREQ(luns[0].hctl, "3:0:0:0");
}

TEST_F(NpivHostTest, HbaConfStaysAsItWas) {
    const fs::path conf = fs::path(root()) / "etc/hba.conf";
    const std::string before = Read(conf);
    ASSERT_NE(before.find("/opt/plugin/libexample.so"), std::string::npos);
    ASSERT_EQ(Create(kNew, kP1), 0);
    ASSERT_EQ(Delete(kNew), 0);
    EXPECT_EQ(Read(conf), before);
}

TEST_F(NpivHostTest, CreatePinsEveryHostNumberInTheDescription) {
    ASSERT_EQ(Create(kNew, kP1), 0);
    const sim::Fabric now = sim::parse_fabric_text(tusksim_dump(), "dump");
    const auto& a = now.adapters[0].lnodes;
    ASSERT_EQ(a.size(), 4u);
    EXPECT_EQ(a[0].scsi_host, std::optional<int>(0));
    EXPECT_EQ(a[1].scsi_host, std::optional<int>(1));
    EXPECT_EQ(a[2].scsi_host, std::optional<int>(2));
    EXPECT_EQ(a[3].scsi_host, std::optional<int>(4));
    EXPECT_EQ(now.adapters[1].lnodes[0].scsi_host, std::optional<int>(3));
}

TEST_F(NpivHostTest, ExplicitNumbersAndPortsWithoutAHostAreKept) {
    // A stale entry without a host, and numbers given by the description.
    UseFabric(R"({"adapters":[{"instance":2,"lnodes":[
        {"port_wwn":"2100000000000a01","lnode_id":1,"scsi_host":7},
        {"port_wwn":"2100000000000a02","lnode_id":2,"state":"OFFLINE","scsi_host":-1},
        {"port_wwn":"2100000000000a02","lnode_id":3},
        {"port_wwn":"2100000000000a01","lnode_id":4,"state":"OFFLINE"}]}]})");
    ASSERT_EQ(Hosts(), (std::set<std::string>{"host7", "host8"}));
    ASSERT_EQ(Create(kNew, kP1), 0);
    EXPECT_EQ(Hosts(), (std::set<std::string>{"host7", "host8", "host9"}));
    EXPECT_EQ(PortName(8), "0x2100000000000a02\n");
    EXPECT_EQ(PortName(9), "0x2800000000000a03\n");
    const sim::Fabric dumped = sim::parse_fabric_text(tusksim_dump(), "dump");
    const auto& l = dumped.adapters[0].lnodes;
    EXPECT_EQ(l[1].scsi_host, std::optional<int>(-1));
    EXPECT_EQ(l[3].scsi_host, std::nullopt);  // a duplicate WWPN: still no host of its own
}

TEST_F(NpivHostTest, RefusedCreateChangesNeitherHostNorDescription) {
    const auto tree = Tree(root());
    const std::string dump = tusksim_dump();
    EXPECT_EQ(Create(kV1, kP1), -EEXIST);
    EXPECT_EQ(Create(kNew, 0x2100000000000a09ul), -ENOENT);
    EXPECT_EQ(Tree(root()), tree);
    EXPECT_EQ(tusksim_dump(), dump);  // no host numbers pinned either
}

TEST_F(NpivHostTest, FaultedCreateChangesNothing) {
    const auto tree = Tree(root());
    ASSERT_EQ(tusksim_add_fault("tusk_create_npiv_port", 1, 12, 0), 0);
    EXPECT_EQ(Create(kNew, kP1), 12);
    EXPECT_EQ(Tree(root()), tree);
}

// ---- Deleting

TEST_F(NpivHostTest, DeletedPortLosesItsFcHostAndItsLuns) {
    ASSERT_EQ(Count(kV1, kT3), 1u);
    ASSERT_EQ(Delete(kV1), 0);
    EXPECT_EQ(Hosts(), (std::set<std::string>{"host0", "host1", "host3"}));
    EXPECT_EQ(Count(kV1, kT3), 0u);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(PortName(3), "0x2100000000000b01\n");
    EXPECT_EQ(Count(kP3, kT4), 1u);
    EXPECT_EQ(Read(fs::path(root()) / "sim/sg.json").find("/dev/sdw"), std::string::npos);
}

TEST_F(NpivHostTest, NumbersStayAcrossCreatesAndDeletes) {
    ASSERT_EQ(Create(kNew, kP1), 0);                       // host4
    ASSERT_EQ(Delete(kV1), 0);                             // host2 goes
    ASSERT_EQ(Create(0x2800000000000a04ul, kP1), 0);       // host5, 2 is not taken again
    EXPECT_EQ(Hosts(), (std::set<std::string>{"host0", "host1", "host3", "host4", "host5"}));
    EXPECT_EQ(PortName(4), "0x2800000000000a03\n");
    EXPECT_EQ(PortName(5), "0x2800000000000a04\n");
    ASSERT_EQ(Delete(kNew), 0);
    EXPECT_EQ(Hosts(), (std::set<std::string>{"host0", "host1", "host3", "host5"}));
    EXPECT_EQ(Count(0x2800000000000a04ul, kT1), 2u);
    EXPECT_EQ(Progress(), "BTL info Bus:port:target:lun -> 5:0:0:0\nBTL info Bus:port:target:lun -> 5:0:0:1\n");
}

TEST_F(NpivHostTest, RefusedDeleteChangesNothing) {
    const auto tree = Tree(root());
    EXPECT_EQ(Delete(kP1), -ENOENT);
    EXPECT_EQ(Tree(root()), tree);
}

// ---- Where the host is written

TEST_F(NpivHostTest, NoHostUnderTheRootNothingIsWritten) {
    const std::string empty = root() + "/elsewhere";
    fs::create_directory(empty);
    setenv("MIRVAK_SIM_ROOT", empty.c_str(), 1);
    EXPECT_EQ(Create(kNew, kP1), 0);
    EXPECT_TRUE(fs::is_empty(empty));
    unsetenv("MIRVAK_SIM_ROOT");
    EXPECT_EQ(Delete(kNew), 0);
    setenv("MIRVAK_SIM_ROOT", root().c_str(), 1);
    EXPECT_EQ(Hosts(), (std::set<std::string>{"host0", "host1", "host2", "host3"}));
}

TEST_F(NpivHostTest, HostThatCannotBeWrittenUndoesTheChange) {
    // The template's target has LUN 0 twice: the new port's tree cannot be
    // written.
    UseFabric(R"({"adapters":[{"instance":2,"lnodes":[{"port_wwn":"2100000000000a01","lnode_id":1,
        "npiv_template":[{"port_wwn":"5000000000000f01","luns":[{"lun":0},{"lun":0}]}]}]}]})");
    const auto tree = Tree(root());
    const std::string dump = tusksim_dump();
    std::string err;
    int status = 0;
    err = testenv::CaptureErr([&] { status = Create(kNew, kP1); });
    EXPECT_EQ(status, -EIO);
    EXPECT_EQ(err.rfind("libtuskstor (simulated): simulated host: cannot create directory " + root() +
                            "/sys/class/fc_host/host1/device/rport-1:0-0/target1:0:0/1:0:0:0: File exists",
                        0),
              0u)
        << err;
    EXPECT_EQ(tusksim_dump(), dump);
    EXPECT_EQ(Tree(root()), tree);  // written again as it was
}

// ---- Across processes

class NpivHostProcessTest : public NpivHostTest {
protected:
    void SetUp() override {
        NpivHostTest::SetUp();
        file_ = root() + "/fabric.json";
        std::ofstream(file_) << kFabric;
        setenv("MIRVAK_SIM_FABRIC", file_.c_str(), 1);
        ASSERT_EQ(tusksim_load_env(), 0);
    }
    void TearDown() override {
        unsetenv("MIRVAK_SIM_FABRIC");
        NpivHostTest::TearDown();
    }
    // Runs fn in a child process that starts from the description file as a
    // new process would; its result is the child's exit status.
    int InChild(const std::function<int()>& fn) {
        const pid_t pid = fork();
        if (pid == 0) {
            int rc = tusksim_load_env() == 0 ? fn() : 99;
            _exit(rc & 0xFF);
        }
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // The virtual ports of P1 as the plug-in lists them in this process,
    // after loading the description afresh.
    std::vector<unsigned long> Vports(uint32_t expected) {
        EXPECT_EQ(tusksim_load_env(), 0);
        const HBA_HANDLE h = mirvak_OpenAdapter("/dev/tuskstor2");
        EXPECT_NE(h, 0xFFFFFFFFu);
        std::vector<port_info> ports(expected + 1);
        const auto st = mirvak_GetAllVPortsForPort(h, W(kP1).data(), ports.data(), expected);
        mirvak_CloseAdapter(h);
        std::vector<unsigned long> out;
        if (st != 0) return out;
        for (uint32_t i = 0; i < expected; ++i) {
            uint8_t wwn[8];
            std::memcpy(wwn, &ports[i].attributes.PortWWN, sizeof wwn);
            unsigned long v = 0;
            for (const uint8_t b : wwn) v = (v << 8) | b;
            out.push_back(v);
        }
        return out;
    }
    std::string file_;
};

TEST_F(NpivHostProcessTest, PortCreatedInOneProcessIsSeenInAnother) {
    ASSERT_EQ(InChild([] {
                  const uint32_t h = open_adapter(2);
                  npiv_req r = Request(kNew, 0x2900000000000a03ul, kP1);
                  return tusk_create_npiv_port(h, &r) == 0 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(Vports(2), (std::vector<unsigned long>{kV1, kNew}));
    EXPECT_EQ(Count(kNew, kT1), 2u);
    EXPECT_EQ(PortName(4), "0x2800000000000a03\n");

    ASSERT_EQ(InChild([] {
                  const HBA_HANDLE h = mirvak_OpenAdapter("/dev/tuskstor2");
                  const auto wwpn = W(kV1);
                  const uint8_t zero[8] = {};
                  return static_cast<int>(mirvak_CreateDelNPIV(h, 2, 1, nullptr, wwpn.data(), zero, zero));
              }),
              0);
    EXPECT_EQ(Vports(1), (std::vector<unsigned long>{kNew}));
    EXPECT_EQ(Count(kV1, kT3), 0u);
    EXPECT_EQ(Count(kNew, kT1), 2u);
    EXPECT_EQ(Hosts(), (std::set<std::string>{"host0", "host1", "host3", "host4"}));
}

TEST_F(NpivHostProcessTest, NumbersPinnedInOneProcessHoldInTheNext) {
    ASSERT_EQ(InChild([] {
                  const uint32_t h = open_adapter(2);
                  npiv_req r = Request(kNew, 0x2900000000000a03ul, kP1);
                  return tusk_create_npiv_port(h, &r) == 0 ? 0 : 1;
              }),
              0);
    // The next process writes the host afresh from the file: same numbers.
    ASSERT_EQ(tusksim_load_env(), 0);
    const auto tree = Tree(root() + "/sys");
    sim::generate_host(sim::load_fabric_file(file_), root());
    EXPECT_EQ(Tree(root() + "/sys"), tree);
}

}  // namespace
