// Real tools read the simulated host: lsscsi (pointed at the tree, and under
// "mirvak-simhost run"), sg3_utils on the emulated device nodes, and the node
// exporter's fibrechannel collector. Every value they print is checked
// against the fabric description. Each tool runs bounded in time; the node
// exporter listens on 127.0.0.1 at a port chosen free at run time and is
// stopped by its process id.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fabric.h"
#include "run_command.h"
#include "sysfs_gen.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

constexpr int kToolSeconds = 30;  // bound on every tool run

using testenv::CommandResult;
using testenv::ShellQuoted;

// The command's standard output, run under timeout(1).
CommandResult run(const std::string& cmd) {
    return testenv::RunShell("timeout " + std::to_string(kToolSeconds) + " " + cmd + " 2>/dev/null");
}

bool installed(const std::string& tool) { return run("sh -c " + ShellQuoted("command -v " + tool)).status == 0; }

std::string beside(const char* name) {
    return (fs::read_symlink("/proc/self/exe").parent_path() / name).string();
}

std::string rtrim(std::string s) {
    while (!s.empty() && (s.back() == ' ' || s.back() == '\n')) s.pop_back();
    return s;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(rtrim(l));
    return out;
}

std::string printf_line(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string printf_line(const char* fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return rtrim(buf);
}

// One published LUN of the fabric, as the host shows it.
struct ShownLun {
    std::string hctl;
    const sim::Lun* lun;
    const sim::RemoteNode* target;
    const sim::LocalNode* port;
    int host;
};

// Every LUN the host publishes, in host, target and LUN order.
std::vector<ShownLun> shown_luns(const sim::Fabric& f) {
    std::vector<ShownLun> out;
    for (const sim::HostAssignment& h : sim::assign_hosts(f)) {
        const sim::LocalNode& ln = f.adapters[h.adapter].lnodes[h.lnode];
        uint32_t ordinal = 0;
        for (const sim::RemoteNode& rn : ln.rnodes) {
            std::string role = rn.role;
            for (char& c : role) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            if (!rn.in_sysfs || role != "target") continue;
            const uint32_t t = rn.scsi_target ? *rn.scsi_target : ordinal;
            ++ordinal;
            for (const sim::Lun& l : rn.luns)
                out.push_back({std::to_string(h.host) + ":0:" + std::to_string(t) + ":" + std::to_string(l.lun), &l,
                               &rn, &ln, h.host});
        }
    }
    return out;
}

std::string device_of(const sim::Lun& l) { return l.block.empty() ? "-" : "/dev/" + l.block; }

class RealTools : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(setenv("MIRVAK_SIM_ROOT", "", 1), 0);  // this process reads the real paths
        sim::generate_host(fabric, root);
    }
    void TearDown() override { unsetenv("MIRVAK_SIM_ROOT"); }

    sim::Fabric fabric = sim::parse_fabric_text(sim::default_fabric_text(), "<default>");
    sim::TempDir dir{"mirvak-real-tools"};
    std::string root = dir.path();
    std::string sys = root + "/sys";
    std::string simhost = ShellQuoted(beside("mirvak-simhost"));
};

// lsscsi's own columns: the address, the type, vendor, model, revision and
// the device node (kernel names: without -k lsscsi looks the node up by its
// numbers in the machine's own /dev, which the simulated host leaves alone).
std::set<std::string> expected_lsscsi(const sim::Fabric& f) {
    std::set<std::string> out;
    for (const ShownLun& s : shown_luns(f)) {
        const std::string vendor = s.lun->has_vendor ? s.lun->vendor : "vendor?";
        out.insert(printf_line("%-13s%-8s%-8s %-16s %-4s  %s", ("[" + s.hctl + "]").c_str(), "disk", vendor.c_str(),
                               s.lun->product.c_str(), s.lun->revision.c_str(), device_of(*s.lun).c_str()));
    }
    return out;
}

std::set<std::string> expected_lsscsi_transport(const sim::Fabric& f) {
    std::set<std::string> out;
    for (const ShownLun& s : shown_luns(f)) {
        char fc[64];
        std::snprintf(fc, sizeof fc, "fcoe:0x%s,0x%06x", sim::wwn_to_hex(s.target->port_wwn).c_str(), s.target->fcid);
        out.insert(printf_line("%-13s%-8s%s  %s", ("[" + s.hctl + "]").c_str(), "disk", fc, device_of(*s.lun).c_str()));
    }
    return out;
}

std::set<std::string> as_set(const std::vector<std::string>& v) { return {v.begin(), v.end()}; }

TEST_F(RealTools, LsscsiListsEveryLunOfTheTree) {
    ASSERT_TRUE(installed("lsscsi")) << "lsscsi is not installed (scripts/install-deps.sh)";
    const CommandResult r = run("lsscsi -k --sysfsroot=" + ShellQuoted(sys));
    ASSERT_EQ(r.status, 0) << r.out;
    const std::vector<std::string> got = lines(r.out);
    EXPECT_EQ(got.size(), 23u);
    EXPECT_EQ(as_set(got), expected_lsscsi(fabric)) << r.out;
}

TEST_F(RealTools, LsscsiUnderTheSimulatedHostShowsTheTargetsWwns) {
    ASSERT_TRUE(installed("lsscsi")) << "lsscsi is not installed (scripts/install-deps.sh)";
    const CommandResult r = run(simhost + " run -- lsscsi -t -k");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(as_set(lines(r.out)), expected_lsscsi_transport(fabric)) << r.out;

    // The hosts with their own port names and ids.
    const CommandResult hosts = run(simhost + " run -- lsscsi -H -t");
    ASSERT_EQ(hosts.status, 0) << hosts.out;
    std::set<std::string> expected;
    for (const sim::HostAssignment& h : sim::assign_hosts(fabric)) {
        const sim::LocalNode& ln = fabric.adapters[h.adapter].lnodes[h.lnode];
        char fc[64];
        std::snprintf(fc, sizeof fc, "fcoe:0x%s,0x%06x", sim::wwn_to_hex(ln.port_wwn).c_str(), ln.fcid);
        expected.insert(printf_line("%-7s%-14s%s", ("[" + std::to_string(h.host) + "]").c_str(), "tuskstor", fc));
    }
    EXPECT_EQ(as_set(lines(hosts.out)), expected) << hosts.out;
}

TEST_F(RealTools, Sg3UtilsAnswerWithTheFabricsIdentitiesAndSizes) {
    ASSERT_TRUE(installed("sg_inq")) << "sg3-utils is not installed (scripts/install-deps.sh)";
    // One LUN of each of two targets of different adapters.
    std::size_t checked = 0;
    for (const ShownLun& s : shown_luns(fabric)) {
        if (s.lun->block != "sdc" && s.lun->block != "sdw") continue;
        const std::string dev = "/dev/" + s.lun->block;
        SCOPED_TRACE(dev);
        ++checked;
        // The four tools in one run of the simulated host, one after the other.
        const std::string tools = "sg_inq " + dev + "; echo ==; sg_vpd -p di " + dev + "; echo ==; sg_readcap " + dev +
                                  "; echo ==; sg_luns " + dev;
        const CommandResult all = run(simhost + " run -- sh -c " + ShellQuoted(tools));
        ASSERT_EQ(all.status, 0) << all.out;
        std::vector<CommandResult> parts;
        std::size_t from = 0;
        for (std::size_t at; (at = all.out.find("==\n", from)) != std::string::npos; from = at + 3)
            parts.push_back({0, all.out.substr(from, at - from)});
        parts.push_back({0, all.out.substr(from)});
        ASSERT_EQ(parts.size(), 4u) << all.out;
        const CommandResult& inq = parts[0];
        char vendor[64];
        std::snprintf(vendor, sizeof vendor, " Vendor identification: %-8s\n", s.lun->vendor.c_str());
        EXPECT_NE(inq.out.find(vendor), std::string::npos)
            << inq.out;
        EXPECT_NE(inq.out.find(" Product identification: " + s.lun->product), std::string::npos) << inq.out;
        EXPECT_NE(inq.out.find(" Unit serial number: SIM" + sim::wwn_to_hex(s.target->port_wwn) + "L" +
                               std::to_string(s.lun->lun) + "\n"),
                  std::string::npos)
            << inq.out;

        const CommandResult& vpd = parts[1];
        char naa[64];
        std::snprintf(naa, sizeof naa, "0x60000000%s%08x\n", sim::wwn_to_hex(s.target->port_wwn).c_str(), s.lun->lun);
        EXPECT_NE(vpd.out.find("designator type: NAA,  code set: Binary\n      " + std::string(naa)), std::string::npos)
            << vpd.out;

        const CommandResult& cap = parts[2];
        EXPECT_NE(cap.out.find("Last LBA=" + std::to_string(s.lun->size - 1) + " "), std::string::npos) << cap.out;
        EXPECT_NE(cap.out.find("Number of logical blocks=" + std::to_string(s.lun->size) + "\n"), std::string::npos)
            << cap.out;
        EXPECT_NE(cap.out.find("Logical block length=512 bytes\n"), std::string::npos) << cap.out;

        const CommandResult& luns = parts[3];
        std::string listed;
        for (const sim::Lun& l : s.target->luns) {
            char entry[32];
            std::snprintf(entry, sizeof entry, "    %04x000000000000\n", l.lun);
            listed += entry;
        }
        EXPECT_NE(luns.out.find("Report luns [select_report=0x0]:\n" + listed), std::string::npos) << luns.out;
    }
    EXPECT_EQ(checked, 2u);
}

// GET /metrics from 127.0.0.1:port; empty when nothing answers.
std::string fetch_metrics(int port) { return testenv::HttpGet(port, "/metrics", "", 5).body; }

// Series name with labels -> value, from the text format.
std::map<std::string, std::string> series(const std::string& text) {
    std::map<std::string, std::string> out;
    for (const std::string& l : lines(text)) {
        if (l.empty() || l[0] == '#') continue;
        const std::size_t space = l.rfind(' ');
        if (space != std::string::npos) out[l.substr(0, space)] = l.substr(space + 1);
    }
    return out;
}

TEST_F(RealTools, NodeExporterFibreChannelSeriesEqualTheFabric) {
    const char* exporter = "/usr/bin/prometheus-node-exporter";
    ASSERT_TRUE(fs::exists(exporter)) << "prometheus-node-exporter is not installed (scripts/install-deps.sh)";
    const int port = testenv::FreePort();
    ASSERT_GT(port, 0);
    const std::string listen = "--web.listen-address=127.0.0.1:" + std::to_string(port);
    const std::string sysfs = "--path.sysfs=" + sys;
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execl(exporter, exporter, listen.c_str(), sysfs.c_str(), "--collector.disable-defaults",
              "--collector.fibrechannel", static_cast<char*>(nullptr));
        _exit(127);
    }
    std::string text;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(kToolSeconds);
    while (text.empty() && std::chrono::steady_clock::now() < until && waitpid(pid, nullptr, WNOHANG) == 0) {
        text = fetch_metrics(port);
        if (text.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    testenv::StopProcess(pid);
    ASSERT_FALSE(text.empty()) << "the node exporter did not answer on port " << port;

    const auto got = series(text);
    EXPECT_EQ(got.at("node_scrape_collector_success{collector=\"fibrechannel\"}"), "1");
    std::size_t hosts = 0;
    for (const sim::HostAssignment& h : sim::assign_hosts(fabric)) {
        const sim::LocalNode& ln = fabric.adapters[h.adapter].lnodes[h.lnode];
        const std::string label = "{fc_host=\"host" + std::to_string(h.host) + "\"}";
        SCOPED_TRACE(label);
        ++hosts;
        const std::pair<const char*, uint64_t> counters[] = {
            {"tx_frames", ln.quads[1]}, {"tx_words", ln.quads[0]}, {"rx_frames", ln.quads[3]}, {"rx_words", ln.quads[2]}};
        for (const auto& [name, value] : counters) {
            const auto it = got.find(std::string("node_fibrechannel_") + name + "_total" + label);
            ASSERT_NE(it, got.end()) << name;
            EXPECT_EQ(std::stod(it->second), static_cast<double>(value)) << name;
        }
        EXPECT_EQ(got.at("node_fibrechannel_error_frames_total" + label), "0");
        // The info series carries the port's names and id.
        char id[16];
        std::snprintf(id, sizeof id, "%06x", ln.fcid);
        bool info = false;
        for (const auto& [name, value] : got) {
            if (name.rfind("node_fibrechannel_info{", 0) != 0 ||
                name.find("fc_host=\"host" + std::to_string(h.host) + "\"") == std::string::npos)
                continue;
            info = true;
            EXPECT_EQ(value, "1");
            EXPECT_NE(name.find("port_name=\"" + sim::wwn_to_hex(ln.port_wwn) + "\""), std::string::npos) << name;
            EXPECT_NE(name.find("port_id=\"" + std::string(id) + "\""), std::string::npos) << name;
        }
        EXPECT_TRUE(info);
    }
    EXPECT_EQ(hosts, 8u);
    EXPECT_NE(got.find("node_fibrechannel_info{dev_loss_tmo=\"60\",fabric_name=\"1000001b9ef00021\",fc_host=\"host0\","
                       "port_id=\"010a01\",port_name=\"2100001b9ea10000\",port_state=\"Online\","
                       "port_type=\"NPort (fabric via point-to-point)\",speed=\"10 Gbit\","
                       "supported_classes=\"Class 1, Class 2, Class 3\",supported_speeds=\"10 Gbit\","
                       "symbolic_name=\"MVF-2210 FW:52030A11 DVR:4.2.7-mv over enp17s0f0\"}"),
              got.end());
}

}  // namespace
