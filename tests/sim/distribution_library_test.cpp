// The distribution's own sysfs-based HBA library, registered in the
// simulated host's hba.conf beside the plug-in and loaded with it by the
// distribution's front library, lists the simulated ports with the same
// WWNs as the plug-in. It keeps the fc_hosts whose symbolic name ends in
// "over <network interface>" and takes each one's adapter from that
// interface's PCI function, one adapter of one port per fc_host (virtual
// ports included), named "fcoe:<interface>-<n>". What it answers
// differently is listed in sim/FABRIC.md.
#include <dlfcn.h>
#include <time.h>

#include <hbaapi.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "sim/fabric.h"
#include "sim/host/sysfs_gen.h"
#include "sim_env.h"

// Under the leak checker: what the distribution's library and the PCI
// access library it uses leave allocated after the front library freed them
// is theirs, not ours (they stay loaded, see SetUp, so that the checker can
// name them).
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libhbalinux.so\nleak:libpciaccess.so\n";
}

namespace {

std::string hex(const HBA_WWN& w) {
    sim::Wwn v{};
    std::memcpy(v.data(), w.wwn, 8);
    return sim::wwn_to_hex(v);
}

// One port as a library lists it.
struct Listed {
    std::string adapter;     // adapter name
    std::string library;     // path of the library that lists it
    std::string port_wwn, node_wwn, os_device;
    HBA_UINT32 fcid = 0;
    HBA_ADAPTERATTRIBUTES attributes{};
    HBA_PORTATTRIBUTES port{};
};

class DistributionLibrary : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_TRUE(std::filesystem::exists(MIRVAK_DISTRIBUTION_HBA_LIBRARY))
            << MIRVAK_DISTRIBUTION_HBA_LIBRARY << " is not installed (libhbalinux2, scripts/install-deps.sh)";
        // Kept loaded when the front library closes it, for the leak checker.
        ASSERT_NE(dlopen(MIRVAK_DISTRIBUTION_HBA_LIBRARY, RTLD_NOW | RTLD_NODELETE), nullptr) << dlerror();
        RegisterPlugin(MIRVAK_PLUGIN_PATH);
        UseDefaultFabric();
        // The staging hba.conf: ours, then the distribution's library.
        std::ofstream(root() + "/etc/hba.conf", std::ios::app)
            << "org.distribution.hbalinux\t" << MIRVAK_DISTRIBUTION_HBA_LIBRARY << "\n";
        ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
        const HBA_UINT32 n = HBA_GetNumberOfAdapters();
        for (HBA_UINT32 i = 0; i < n; ++i) {
            char name[256] = {};
            ASSERT_EQ(HBA_GetAdapterName(i, name), HBA_STATUS_OK);
            HBA_LIBRARYATTRIBUTES lib;
            std::memset(&lib, 0, sizeof lib);
            HBA_GetVendorLibraryAttributes(i, &lib);
            const HBA_HANDLE h = HBA_OpenAdapter(name);
            ASSERT_NE(h, 0u) << name;
            HBA_ADAPTERATTRIBUTES a;
            std::memset(&a, 0, sizeof a);
            ASSERT_EQ(HBA_GetAdapterAttributes(h, &a), HBA_STATUS_OK) << name;
            for (HBA_UINT32 p = 0; p < a.NumberOfPorts; ++p) {
                Listed l;
                l.adapter = name;
                l.library = lib.LibPath;
                l.attributes = a;
                ASSERT_EQ(HBA_GetAdapterPortAttributes(h, p, &l.port), HBA_STATUS_OK) << name << " port " << p;
                l.port_wwn = hex(l.port.PortWWN);
                l.node_wwn = hex(l.port.NodeWWN);
                l.os_device = l.port.OSDeviceName;
                l.fcid = l.port.PortFcId;
                listed_.push_back(l);
            }
            handles_[name] = h;
        }
    }
    void TearDown() override {
        for (const auto& [name, h] : handles_) HBA_CloseAdapter(h);
        HBA_FreeLibrary();
        SimTest::TearDown();
    }

    // The ports one library lists.
    std::vector<Listed> Of(const std::string& library) const {
        std::vector<Listed> out;
        for (const Listed& l : listed_)
            if (l.library == library) out.push_back(l);
        return out;
    }
    std::vector<Listed> Ours() const { return Of(MIRVAK_PLUGIN_PATH); }
    std::vector<Listed> Theirs() const { return Of(MIRVAK_DISTRIBUTION_HBA_LIBRARY); }

    sim::Fabric fabric = sim::parse_fabric_text(sim::default_fabric_text(), "<default>");
    std::vector<Listed> listed_;
    std::map<std::string, HBA_HANDLE> handles_;
};

// The interface the simulated host names for an adapter port.
std::string interface_of(uint32_t instance, unsigned port) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "enp%us0f%u", 0x10 + instance, port);
    return buf;
}

TEST_F(DistributionLibrary, ListsEveryFcHostOfTheSimulatedHost) {
    // Every fc_host: the physical ports and the virtual ports alike.
    std::set<std::string> expected;
    for (const sim::HostAssignment& h : sim::assign_hosts(fabric)) {
        const sim::LocalNode& ln = fabric.adapters[h.adapter].lnodes[h.lnode];
        expected.insert(sim::wwn_to_hex(ln.port_wwn) + " " + sim::wwn_to_hex(ln.node_wwn) + " host" +
                        std::to_string(h.host) + " over " + interface_of(fabric.adapters[h.adapter].instance, ln.port_num));
    }
    std::set<std::string> got;
    for (const Listed& l : Theirs()) {
        EXPECT_EQ(l.attributes.NumberOfPorts, 1u) << l.adapter;
        // "fcoe:<interface>-<n>", the interface its symbolic name ends in.
        const std::string sym = l.port.PortSymbolicName;
        const std::string iface = sym.substr(sym.rfind(" over ") + 6);
        EXPECT_EQ(l.adapter.rfind("fcoe:" + iface + "-", 0), 0u) << l.adapter << " / " << sym;
        got.insert(l.port_wwn + " " + l.node_wwn + " " + l.os_device + " over " + iface);
    }
    EXPECT_EQ(got, expected);
    EXPECT_EQ(Theirs().size(), 8u);
}

TEST_F(DistributionLibrary, ListsOurPortsWithTheSameWwnsIdsAndAdapters) {
    const std::vector<Listed> ours = Ours();
    ASSERT_EQ(ours.size(), 5u);  // instance 1: two ports; instance 4: three
    std::map<std::string, Listed> theirs;
    for (const Listed& l : Theirs()) theirs[l.port_wwn] = l;
    std::size_t compared = 0;
    for (const Listed& o : ours) {
        SCOPED_TRACE(o.adapter + " " + o.port_wwn);
        if (o.os_device.empty()) {
            // A port without an fc_host (instance 4 port 2, UNINIT): nothing
            // in sysfs for the distribution's library to find.
            EXPECT_EQ(theirs.count(o.port_wwn), 0u);
            continue;
        }
        const auto it = theirs.find(o.port_wwn);
        ASSERT_NE(it, theirs.end());
        const Listed& t = it->second;
        ++compared;
        EXPECT_EQ(t.node_wwn, o.node_wwn);
        EXPECT_EQ(t.fcid, o.fcid);
        EXPECT_EQ(t.port.PortState, o.port.PortState);
        // Ours names the fc_host by its path, theirs by its name.
        EXPECT_EQ("/sys/class/fc_host/" + t.os_device, o.os_device);
        // The same adapter: our "/dev/tuskstorN" is the instance N whose
        // port P carries the interface theirs is named by.
        unsigned instance = 0;
        ASSERT_EQ(std::sscanf(o.adapter.c_str(), "/dev/tuskstor%u", &instance), 1) << o.adapter;
        bool on_adapter = false;
        for (unsigned p = 0; p < 8; ++p)
            on_adapter = on_adapter || t.adapter.rfind("fcoe:" + interface_of(instance, p) + "-", 0) == 0;
        EXPECT_TRUE(on_adapter) << t.adapter;
        // The driver's version comes from the PCI function's driver module.
        EXPECT_STREQ(t.attributes.DriverVersion, o.attributes.DriverVersion);
    }
    EXPECT_EQ(compared, 4u);
}

TEST_F(DistributionLibrary, TakesTheSerialNumberFromThePortsMacAddress) {
    // The Device Serial Number capability of each PCI function holds the
    // EUI-64 of its port's MAC address; the distribution's library prints
    // it without the middle FFFE.
    std::map<std::string, std::string> mac_of;  // WWPN -> MAC as 12 upper-case hex digits
    for (const sim::Adapter& a : fabric.adapters)
        for (const sim::LocalNode& ln : a.lnodes) {
            if (ln.port_num >= a.hw.ports.size()) continue;
            const sim::Mac& m = a.hw.ports[ln.port_num].mac;
            char buf[16];
            std::snprintf(buf, sizeof buf, "%02X%02X%02X%02X%02X%02X", m[0], m[1], m[2], m[3], m[4], m[5]);
            mac_of[sim::wwn_to_hex(ln.port_wwn)] = buf;
        }
    ASSERT_FALSE(Theirs().empty());
    for (const Listed& t : Theirs()) EXPECT_EQ(t.attributes.SerialNumber, mac_of.at(t.port_wwn)) << t.adapter;
}

// The FCP target mapping, version 2, of physical port 0 of instance 4
// (host4), through the front library: every LUN of the port's targets with
// its device node, the target's WWPN and port id, the LUN number and the
// LUID its SCSI generic node answers, as the fabric has them. (The plug-in's own mapping follows its own rules,
// pinned by its tests; sim/FABRIC.md says how the two differ.)
TEST_F(DistributionLibrary, MapsEveryLunOfAPortToItsTargetAndDevice) {
    const Listed* theirs = nullptr;
    for (const Listed& l : listed_)
        if (l.library == MIRVAK_DISTRIBUTION_HBA_LIBRARY && l.port_wwn == "2100001b9eb40000") theirs = &l;
    ASSERT_NE(theirs, nullptr);

    std::set<std::string> expected;
    const sim::LocalNode& ln = fabric.adapters[1].lnodes[0];
    ASSERT_EQ(sim::wwn_to_hex(ln.port_wwn), theirs->port_wwn);
    for (const sim::RemoteNode& rn : ln.rnodes) {
        std::string role = rn.role;
        for (char& c : role) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (!rn.in_sysfs || role != "target") continue;
        for (const sim::Lun& lun : rn.luns) {
            char line[400];
            // The LUID: the device identification page's NAA designator
            // (binary, NAA, 16 bytes) as the simulated device answers it.
            std::snprintf(line, sizeof line, "/dev/%s %s 0x%06x %u 0103001060000000%s%08x", lun.block.c_str(),
                          sim::wwn_to_hex(rn.port_wwn).c_str(), rn.fcid, lun.lun,
                          sim::wwn_to_hex(rn.port_wwn).c_str(), lun.lun);
            expected.insert(line);
        }
    }
    ASSERT_EQ(expected.size(), 5u);

    constexpr HBA_UINT32 kRoom = 64;
    std::vector<char> buf(sizeof(HBA_FCPTARGETMAPPINGV2) + kRoom * sizeof(HBA_FCPSCSIENTRYV2), 0);
    auto* map = reinterpret_cast<HBA_FCPTARGETMAPPINGV2*>(buf.data());
    map->NumberOfEntries = kRoom;
    ASSERT_EQ(HBA_GetFcpTargetMappingV2(handles_.at(theirs->adapter), theirs->port.PortWWN, map), HBA_STATUS_OK);
    std::set<std::string> got;
    for (HBA_UINT32 i = 0; i < map->NumberOfEntries && i < kRoom; ++i) {
        const HBA_FCPSCSIENTRYV2& e = map->entry[i];
        EXPECT_EQ(e.ScsiId.ScsiBusNumber, 4u);  // the SCSI host
        char luid[41] = {};
        for (int i = 0; i < 20; ++i)
            std::snprintf(luid + 2 * i, 3, "%02x", static_cast<unsigned char>(e.LUID.buffer[i]));
        char line[400];
        std::snprintf(line, sizeof line, "%s %s 0x%06x %llu %s", e.ScsiId.OSDeviceName, hex(e.FcpId.PortWWN).c_str(),
                      e.FcpId.FcId, static_cast<unsigned long long>(e.FcpId.FcpLun), luid);
        got.insert(line);
    }
    EXPECT_EQ(got, expected);
}

}  // namespace
