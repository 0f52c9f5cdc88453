// Debian's fcoe-utils read the simulated host as they read an FCoE host:
// fcoeadm -i (interfaces), -t (targets), -l (LUNs) and -f (FCFs), and fcrls
// on every remote port, run under "mirvak-simhost run" on the default
// fabric and on generated ones (several adapters, virtual ports). Every
// value they print is checked against the fabric description. Each run is
// bounded in time.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "fabric.h"
#include "run_command.h"
#include "scale_fabric.h"
#include "sysfs_gen.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

constexpr int kToolSeconds = 120;  // bound on one run of the simulated host
constexpr const char* kFcoeadm = "/usr/sbin/fcoeadm";
constexpr const char* kFcrls = "/usr/sbin/fcrls";

std::string beside(const char* name) { return (fs::read_symlink("/proc/self/exe").parent_path() / name).string(); }

std::string trim(const std::string& s) {
    const std::size_t b = s.find_first_not_of(' ');
    const std::size_t e = s.find_last_not_of(" \t\r");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

std::string format(const char* fmt, unsigned long long v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, fmt, v);
    return buf;
}

unsigned long long wwn(const sim::Wwn& w) { return std::stoull(sim::wwn_to_hex(w), nullptr, 16); }
std::string wwn_text(const sim::Wwn& w) { return format("0x%016llx", wwn(w)); }
std::string fcid_text(uint32_t id) { return format("0x%06llx", id); }

// What one run of the tools printed: the sections a shell line marks with
// "== NAME" lines.
std::map<std::string, std::string> sections(const std::string& out) {
    std::map<std::string, std::string> s;
    std::string name;
    std::istringstream in(out);
    for (std::string l; std::getline(in, l);) {
        if (l.rfind("== ", 0) == 0) {
            name = l.substr(3);
            s[name];
        } else if (!name.empty()) {
            s[name] += l + "\n";
        }
    }
    return s;
}

// One entry of fcoeadm's output: "Key: value" lines, the entries nested in
// it, and the rows of its LUN table.
struct Entry {
    std::map<std::string, std::string> fields;
    std::vector<Entry> subs;
    std::vector<std::string> rows;
};

// The entries that start with the key top; inside them, an entry starts at
// a line beginning with sub (a key or a heading such as "LUN #").
std::vector<Entry> entries(const std::string& text, const std::string& top, const std::string& sub) {
    std::vector<Entry> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const std::string l = trim(line);
        if (l.empty() || l.rfind("---", 0) == 0 || l.rfind("LUN ID  ", 0) == 0) continue;
        const std::size_t colon = l.find(':');
        const std::string key = colon == std::string::npos ? l : trim(l.substr(0, colon));
        if (key == top) out.emplace_back();
        if (out.empty()) continue;
        if (!sub.empty() && l.rfind(sub, 0) == 0) out.back().subs.emplace_back();
        if (std::isdigit(static_cast<unsigned char>(l[0])) != 0) {
            out.back().rows.push_back(l);
            continue;
        }
        Entry& e = out.back().subs.empty() ? out.back() : out.back().subs.back();
        e.fields[key] = colon == std::string::npos ? std::string() : trim(l.substr(colon + 1));
    }
    return out;
}

// A published local port of the fabric, as the host shows it.
struct Port {
    int host = 0;
    const sim::Adapter* adapter = nullptr;
    const sim::LocalNode* node = nullptr;
    int physical_host = -1;  // a virtual port's physical port, else its own host
    std::string interface;   // the physical port's network interface
    sim::Fcf fcf;            // the FCF it logged in through (zero when none)
};

// A published target, with its LUNs.
struct Target {
    const Port* port = nullptr;
    const sim::RemoteNode* node = nullptr;
    std::string rport;  // rport-H:0-M
    uint32_t id = 0;    // T
};

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// Every fc_host of the fabric with what the tools should print for it.
std::vector<Port> ports_of(const sim::Fabric& f) {
    std::vector<Port> out;
    std::map<std::pair<const sim::Adapter*, sim::Wwn>, int> physical;
    for (const sim::HostAssignment& h : sim::assign_hosts(f)) {
        Port p;
        p.host = h.host;
        p.adapter = &f.adapters[h.adapter];
        p.node = &p.adapter->lnodes[h.lnode];
        char ifname[32];
        std::snprintf(ifname, sizeof ifname, "enp%us%uf%u", 0x10 + p.adapter->instance, p.node->port_num / 8u,
                      p.node->port_num % 8u);
        p.interface = ifname;
        p.fcf.max_frame_size = 0;
        for (const sim::Fcf& x : p.adapter->fcfs)
            if (x.fcf_index == p.node->fcf_index) p.fcf = x;
        if (!p.node->parent) physical[{p.adapter, p.node->port_wwn}] = p.host;
        out.push_back(p);
    }
    for (Port& p : out)
        p.physical_host = p.node->parent ? physical.at({p.adapter, *p.node->parent}) : p.host;
    return out;
}

std::vector<Target> targets_of(const std::vector<Port>& ports) {
    std::vector<Target> out;
    for (const Port& p : ports) {
        uint32_t ordinal = 0, target_ordinal = 0;
        for (const sim::RemoteNode& rn : p.node->rnodes) {
            if (!rn.in_sysfs) continue;
            const std::string rport = "rport-" + std::to_string(p.host) + ":0-" + std::to_string(ordinal++);
            if (lower(rn.role) != "target") continue;
            const uint32_t t = rn.scsi_target ? *rn.scsi_target : target_ordinal;
            ++target_ordinal;
            out.push_back({&p, &rn, rport, t});
        }
    }
    return out;
}

std::string state_text(const std::string& state) {
    if (state == "READY") return "Online";
    if (state == "OFFLINE") return "Offline";
    if (state == "UNINIT") return "Linkdown";
    return "Unknown";
}

// The hardware record's speed of a port as the transport class names it.
std::string port_speed(const Port& p) {
    const auto& hw = p.adapter->hw.ports;
    if (p.node->port_num >= hw.size() || hw[p.node->port_num].enabled == 0) return "Unknown";
    const std::set<unsigned> named = {1, 2, 4, 8, 10, 16, 20, 25, 32, 40, 50, 64, 100, 128};
    const unsigned gbit = hw[p.node->port_num].speed;
    return named.count(gbit) != 0 ? std::to_string(gbit) + " Gbit" : "Unknown";
}

// A LUN's capacity as fcoeadm prints it: 512-byte blocks in MiB, or GiB
// from one GiB on.
std::string capacity(uint64_t blocks) {
    const double bytes = static_cast<double>(blocks) * 512.0;
    char buf[32];
    if (bytes >= 1024.0 * 1024 * 1024)
        std::snprintf(buf, sizeof buf, "%0.2f GiB", bytes / (1024.0 * 1024 * 1024));
    else
        std::snprintf(buf, sizeof buf, "%0.2f MiB", bytes / (1024.0 * 1024));
    return buf;
}

// The device names fcoeadm may show for a LUN: it takes the first entry of
// the LUN's block/ folder, which holds "size" beside the device when the
// LUN has the newer layout too (block_dir), in the file system's order.
std::set<std::string> device_names(const sim::Lun& l) {
    if (l.block_dir) return {l.block, "size"};
    return {l.block};
}

class FcoeTools : public ::testing::Test {
protected:
    // One run of the simulated host for the fabric (the default when
    // fabric_file is empty): every fcoeadm view, then fcrls on every remote
    // port, each section headed by "== NAME".
    std::map<std::string, std::string> RunTools(const std::vector<Target>& rports, const std::string& fabric_file) {
        const std::string script = "for o in -i -t -l -f; do echo \"== fcoeadm $o\"; " + std::string(kFcoeadm) +
                                   " $o 2>&1; s=$?; echo \"== fcoeadm $o status\"; echo $s; done; "
                                   "for p in \"$@\"; do echo \"== fcrls $p\"; " + kFcrls +
                                   " --port \"$p\" 2>&1; s=$?; echo \"== fcrls $p status\"; echo $s; done";
        std::string cmd = "timeout " + std::to_string(kToolSeconds) + " " + testenv::ShellQuoted(beside("mirvak-simhost")) +
                          " run";
        if (!fabric_file.empty()) cmd += " --fabric " + testenv::ShellQuoted(fabric_file);
        cmd += " -- sh -c " + testenv::ShellQuoted(script) + " sh";
        for (const Target& t : rports) cmd += " " + t.rport;
        const testenv::CommandResult r = testenv::RunShell(cmd + " 2>&1");
        EXPECT_EQ(r.status, 0) << r.out;
        return sections(r.out);
    }

    void SetUp() override {
        ASSERT_TRUE(fs::exists(kFcoeadm) && fs::exists(kFcrls)) << "fcoe-utils is not installed (scripts/install-deps.sh)";
    }

    sim::TempDir dir{"mirvak-fcoe-tools"};
};

// Every remote port, targets and others: fcrls is pointed at each.
std::vector<Target> all_rports(const std::vector<Port>& ports) {
    std::vector<Target> out;
    for (const Port& p : ports) {
        uint32_t ordinal = 0;
        for (const sim::RemoteNode& rn : p.node->rnodes)
            if (rn.in_sysfs) out.push_back({&p, &rn, "rport-" + std::to_string(p.host) + ":0-" + std::to_string(ordinal++), 0});
    }
    return out;
}

// fcoeadm -i: one adapter entry per physical port (its PCI function), with
// the port and its virtual ports below it.
void CheckInterfaces(const std::string& text, const std::vector<Port>& ports) {
    const std::vector<Entry> adapters = entries(text, "Description", "Symbolic Name");
    std::size_t physical = 0, shown = 0;
    for (const Port& p : ports) physical += p.physical_host == p.host ? 1 : 0;
    ASSERT_EQ(adapters.size(), physical) << text;
    std::map<int, const Port*> by_host;
    for (const Port& p : ports) by_host[p.host] = &p;
    for (const Entry& a : adapters) {
        ASSERT_FALSE(a.subs.empty()) << text;
        const Port& first = *by_host.at(std::stoi(a.subs.front().fields.at("OS Device Name").substr(4)));
        const Port& phys = *by_host.at(first.physical_host);
        SCOPED_TRACE(phys.interface);
        const sim::Mac& mac = phys.adapter->hw.ports.at(phys.node->port_num).mac;
        char serial[16];
        std::snprintf(serial, sizeof serial, "%02X%02X%02X%02X%02X%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
        EXPECT_EQ(a.fields.at("Serial Number"), serial);
        EXPECT_EQ(a.fields.at("Driver"), "tuskstor " + phys.adapter->hw.drv_version);
        EXPECT_EQ(a.fields.at("Number of Ports"), "1");
        std::set<int> below, expected;
        for (const Entry& e : a.subs) {
            const Port& p = *by_host.at(std::stoi(e.fields.at("OS Device Name").substr(4)));
            below.insert(p.host);
            ++shown;
            const bool live = p.node->state == "READY";
            char fw[16];
            std::snprintf(fw, sizeof fw, "%08X", p.adapter->hw.fw_version);
            EXPECT_EQ(e.fields.at("Symbolic Name"), p.adapter->hw.model + " FW:" + fw + " DVR:" +
                                                        p.adapter->hw.drv_version + " over " + p.interface);
            EXPECT_EQ(e.fields.at("Node Name"), wwn_text(p.node->node_wwn));
            EXPECT_EQ(e.fields.at("Port Name"), wwn_text(p.node->port_wwn));
            EXPECT_EQ(e.fields.at("Fabric Name"), wwn_text(p.fcf.fabric_name));
            EXPECT_EQ(e.fields.at("Speed"), live ? port_speed(p) : "Unknown");
            EXPECT_EQ(e.fields.at("Supported Speed"), port_speed(p));
            EXPECT_EQ(e.fields.at("MaxFrameSize"), std::to_string(p.fcf.max_frame_size) + " bytes");
            EXPECT_EQ(e.fields.at("FC-ID (Port ID)"), fcid_text(p.node->fcid));
            EXPECT_EQ(e.fields.at("State"), state_text(p.node->state));
        }
        for (const Port& p : ports)
            if (p.physical_host == phys.host) expected.insert(p.host);
        EXPECT_EQ(below, expected);
    }
    EXPECT_EQ(shown, ports.size());
}

// fcoeadm -t: every target with its LUN table.
void CheckTargets(const std::string& text, const std::vector<Target>& targets) {
    const std::vector<Entry> got = entries(text, "Interface", "");
    ASSERT_EQ(got.size(), targets.size()) << text;
    std::map<std::string, const Entry*> by_rport;
    for (const Entry& e : got) by_rport[e.fields.at("OS Device Name")] = &e;
    for (const Target& t : targets) {
        SCOPED_TRACE(t.rport);
        ASSERT_EQ(by_rport.count(t.rport), 1u) << text;
        const Entry& e = *by_rport.at(t.rport);
        EXPECT_EQ(e.fields.at("Interface"), t.port->interface);
        EXPECT_EQ(e.fields.at("Roles"), "FCP Target");
        EXPECT_EQ(e.fields.at("Node Name"), wwn_text(t.node->node_wwn));
        EXPECT_EQ(e.fields.at("Port Name"), wwn_text(t.node->port_wwn));
        EXPECT_EQ(e.fields.at("Target ID"), std::to_string(t.id));
        EXPECT_EQ(e.fields.at("MaxFrameSize"), std::to_string(t.port->fcf.max_frame_size) + " bytes");
        EXPECT_EQ(e.fields.at("FC-ID (Port ID)"), fcid_text(t.node->fcid));
        EXPECT_EQ(e.fields.at("State"), state_text(t.node->state));
        ASSERT_EQ(e.rows.size(), t.node->luns.size());
        for (const sim::Lun& l : t.node->luns) {
            bool found = false;
            for (const std::string& device : device_names(l)) {
                char row[256];
                std::snprintf(row, sizeof row, "%d  %-11s  %10s  %7d     ", static_cast<int>(l.lun), device.c_str(),
                              capacity(l.size).c_str(), 512);
                for (const std::string& r : e.rows)
                    if (r.rfind(row, 0) == 0 && r.size() > std::strlen(row)) {
                        found = true;
                        // A LUN without a vendor file shows whatever vendor
                        // fcoeadm read before; its product and revision hold.
                        const std::string description = r.substr(std::strlen(row));
                        const std::string tail = l.product + " (rev " + l.revision + ")";
                        if (l.has_vendor) {
                            EXPECT_EQ(description, l.vendor + " " + tail);
                        }
                        EXPECT_EQ(description.substr(description.size() - std::min(description.size(), tail.size())), tail);
                    }
            }
            EXPECT_TRUE(found) << "LUN " << l.lun << " of " << t.rport << "\n" << text;
        }
    }
}

// fcoeadm -l: every LUN of every target.
void CheckLuns(const std::string& text, const std::vector<Target>& targets) {
    const std::vector<Entry> got = entries(text, "Interface", "LUN #");
    ASSERT_EQ(got.size(), targets.size()) << text;
    std::size_t luns = 0;
    for (const Entry& e : got) {
        const std::string rport = e.fields.at("OS Device Name");
        const Target* t = nullptr;
        for (const Target& x : targets)
            if (x.rport == rport) t = &x;
        ASSERT_NE(t, nullptr) << rport;
        SCOPED_TRACE(rport);
        ASSERT_EQ(e.subs.size(), t->node->luns.size());
        for (const Entry& lun : e.subs) {
            const uint32_t number = static_cast<uint32_t>(std::stoul(lun.fields.at("LUN ID")));
            const sim::Lun* l = nullptr;
            for (const sim::Lun& x : t->node->luns)
                if (x.lun == number) l = &x;
            ASSERT_NE(l, nullptr) << number;
            ++luns;
            EXPECT_EQ(device_names(*l).count(lun.fields.at("OS Device Name")), 1u) << lun.fields.at("OS Device Name");
            const std::string description = lun.fields.at("Description");
            const std::string tail = l->product + " (rev " + l->revision + ")";
            if (l->has_vendor) {
                EXPECT_EQ(description, l->vendor + " " + tail);
            }
            EXPECT_EQ(description.substr(description.size() - std::min(description.size(), tail.size())), tail);
            // The local port's id: fcoeadm takes the text from the first
            // "host" to "/rport" of the device's path for its host, which for
            // a virtual port's LUN names no host (host1/vport-1:0-0/host2).
            const bool virtual_port = t->port->physical_host != t->port->host;
            EXPECT_EQ(lun.fields.at("Ethernet Port FCID"), virtual_port ? "" : fcid_text(t->port->node->fcid));
            EXPECT_EQ(lun.fields.at("Target FCID"), fcid_text(t->node->fcid));
            EXPECT_EQ(lun.fields.at("Target ID"), std::to_string(t->id));
            EXPECT_EQ(lun.fields.at("Capacity"), capacity(l->size));
            EXPECT_EQ(lun.fields.at("Capacity in Blocks"), std::to_string(l->size));
            EXPECT_EQ(lun.fields.at("Block Size"), "512 bytes");
            EXPECT_EQ(lun.fields.at("Status"), "Attached");
        }
    }
    std::size_t expected = 0;
    for (const Target& t : targets) expected += t.node->luns.size();
    EXPECT_EQ(luns, expected);
}

// fcoeadm -f: each physical port's controller with the FCFs its port and
// virtual ports logged in through.
void CheckFcfs(const std::string& text, const std::vector<Port>& ports) {
    const std::vector<Entry> got = entries(text, "Interface", "FCF #");
    std::size_t physical = 0;
    for (const Port& p : ports) physical += p.physical_host == p.host ? 1 : 0;
    ASSERT_EQ(got.size(), physical) << text;
    for (const Entry& e : got) {
        const Port* p = nullptr;
        for (const Port& x : ports)
            if (x.physical_host == x.host && x.interface == e.fields.at("Interface")) p = &x;
        ASSERT_NE(p, nullptr) << e.fields.at("Interface");
        SCOPED_TRACE(p->interface);
        EXPECT_EQ(e.fields.at("Connection Type"), "Fabric");
        ASSERT_EQ(e.subs.size(), 1u) << text;  // one FCF a port on these fabrics
        const Entry& fcf = e.subs.front();
        const sim::Wwn& name = p->fcf.fabric_name;
        char mac[32];
        std::snprintf(mac, sizeof mac, "%02X:%02X:%02X:%02X:%02X:%02X", name[2], name[3], name[4], name[5], name[6],
                      name[7]);
        EXPECT_EQ(fcf.fields.at("Connection Mode"), p->node->state == "READY" ? "Connected" : "Disconnected");
        EXPECT_EQ(fcf.fields.at("Fabric Name"), wwn_text(name));
        EXPECT_EQ(fcf.fields.at("Switch Name"), wwn_text(name));
        EXPECT_EQ(fcf.fields.at("MAC Address"), mac);
        EXPECT_EQ(fcf.fields.at("FCF Priority"), "128");
        EXPECT_EQ(fcf.fields.at("FKA Period"), "8 seconds");
        EXPECT_EQ(fcf.fields.at("Selected"), "Yes");
        EXPECT_EQ(fcf.fields.at("VLAN ID"), std::to_string(p->fcf.vlan));
    }
}

// fcrls on every remote port: the online ones answer Read Link Status with
// their link error counts, the others are refused by their state.
void CheckFcrls(const std::map<std::string, std::string>& out, const std::vector<Target>& rports) {
    for (const Target& r : rports) {
        SCOPED_TRACE(r.rport);
        const std::string& text = out.at("fcrls " + r.rport);
        const std::string& status = out.at("fcrls " + r.rport + " status");
        if (r.node->state == "READY") {
            EXPECT_EQ(status, "0\n");
            EXPECT_EQ(text,
                      "DEBUG: ioctl returned 0: bsg_reply result=0\n"
                      "RLS request accepted (LS_ACC), dumping status counters:\n"
                      "\tLink Failure Count                   = 0\n"
                      "\tVirtual Link Failure Count           = 0\n"
                      "\tMissed Discovery Advertisement Count = 0\n"
                      "\tSymbol Error During Carrier Count    = 0\n"
                      "\tErrored Block Count                  = 0\n"
                      "\tFrame Check Sequence Error Count     = 0\n");
        } else {
            EXPECT_NE(status, "0\n");
            EXPECT_NE(text.find(format("ERROR: rport 0x%llx ", r.node->fcid) + state_text(r.node->state) +
                                "\n:must be Online"),
                      std::string::npos)
                << text;
        }
    }
}

void CheckEverything(const std::map<std::string, std::string>& out, const std::vector<Port>& ports,
                     const std::vector<Target>& targets, const std::vector<Target>& rports) {
    for (const char* o : {"-i", "-t", "-l", "-f"}) EXPECT_EQ(out.at(std::string("fcoeadm ") + o + " status"), "0\n") << o;
    {
        SCOPED_TRACE("fcoeadm -i");
        CheckInterfaces(out.at("fcoeadm -i"), ports);
    }
    {
        SCOPED_TRACE("fcoeadm -t");
        CheckTargets(out.at("fcoeadm -t"), targets);
    }
    {
        SCOPED_TRACE("fcoeadm -l");
        CheckLuns(out.at("fcoeadm -l"), targets);
    }
    {
        SCOPED_TRACE("fcoeadm -f");
        CheckFcfs(out.at("fcoeadm -f"), ports);
    }
    CheckFcrls(out, rports);
}

TEST_F(FcoeTools, DefaultFabricAsTheFabricDescribesIt) {
    const sim::Fabric f = sim::parse_fabric_text(sim::default_fabric_text(), "<default>");
    const std::vector<Port> ports = ports_of(f);
    const std::vector<Target> targets = targets_of(ports);
    const std::vector<Target> rports = all_rports(ports);
    ASSERT_EQ(ports.size(), 8u);
    ASSERT_EQ(targets.size(), 11u);
    ASSERT_EQ(rports.size(), 12u);
    const auto out = RunTools(rports, "");
    CheckEverything(out, ports, targets, rports);
    // A few values spelled out: instance 1 port 0 and its FCF 33.
    EXPECT_NE(out.at("fcoeadm -f").find("    Interface:        enp17s0f0\n    Connection Type:  Fabric\n\n"
                                        "    FCF #0 Information\n        Connection Mode:  Connected\n"
                                        "        Fabric Name:      0x1000001b9ef00021\n"
                                        "        Switch Name:      0x1000001b9ef00021\n"
                                        "        MAC Address:      00:1B:9E:F0:00:21\n"
                                        "        FCF Priority:     128\n        FKA Period:       8 seconds\n"
                                        "        Selected:         Yes\n        VLAN ID:          101\n"),
              std::string::npos)
        << out.at("fcoeadm -f");
    EXPECT_NE(out.at("fcoeadm -i").find("        OS Device Name:    host0\n"
                                        "        Node Name:         0x2000001b9ea10000\n"
                                        "        Port Name:         0x2100001b9ea10000\n"),
              std::string::npos);
}

TEST_F(FcoeTools, GeneratedFabricsWithSeveralAdaptersAndVirtualPorts) {
    for (const sim::ScaleParams& params : {sim::ScaleParams{3, 2, 2, 2, 2}, sim::ScaleParams{2, 3, 0, 3, 1}}) {
        SCOPED_TRACE(std::to_string(params.adapters) + " adapters, " + std::to_string(params.ports) + " ports, " +
                     std::to_string(params.vports) + " virtual ports");
        const sim::Fabric f = sim::scale_fabric(params);
        const std::string file = dir.path() + "/fabric.json";
        std::ofstream(file) << sim::fabric_to_json(f).dump(2);
        const std::vector<Port> ports = ports_of(f);
        const std::vector<Target> targets = targets_of(ports);
        const std::vector<Target> rports = all_rports(ports);
        ASSERT_EQ(ports.size(), params.adapters * params.ports * (1u + params.vports));
        ASSERT_EQ(targets.size(), ports.size() * params.targets);
        const auto out = RunTools(rports, file);
        CheckEverything(out, ports, targets, rports);
    }
}

}  // namespace
