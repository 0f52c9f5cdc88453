// The simulated host's tree in the kernel's shape: the device tree, the
// class and bus views as links into it, and every fc_host, remote-port and
// LUN attribute as the fabric gives it.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <string>

#include "fabric.h"
#include "sysfs_gen.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

class HostKernelShape : public ::testing::Test {
protected:
    sim::TempDir dir{"mirvak-host-shape"};
    fs::path root = dir.path();
    fs::path sys = root / "sys";

    std::optional<std::string> read(const fs::path& rel) const {
        std::ifstream in(sys / rel, std::ios::binary);
        if (!in) return std::nullopt;
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    // The link's text, as readlink gives it.
    std::string link(const fs::path& rel) const {
        std::error_code ec;
        return fs::read_symlink(sys / rel, ec).string();
    }
    // Where a path below sys/ resolves to, relative to sys/.
    std::string resolved(const fs::path& rel) const {
        return fs::relative(fs::canonical(sys / rel), fs::canonical(sys)).string();
    }
    std::set<std::string> names(const fs::path& rel) const {
        std::set<std::string> out;
        for (const auto& e : fs::directory_iterator(sys / rel)) out.insert(e.path().filename().string());
        return out;
    }
};

std::string hex(const sim::Wwn& w) { return "0x" + sim::wwn_to_hex(w) + "\n"; }

std::string counter(uint64_t v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%llx\n", static_cast<unsigned long long>(v));
    return buf;
}

constexpr const char* kHost0 = "devices/pci0000:00/0000:11:00.0/host0";

// Two paths below sys/ name the same file or folder.
#define EXPECT_SAME(a, b) EXPECT_TRUE(fs::equivalent(sys / (a), sys / (b))) << (a) << " and " << (b)

TEST_F(HostKernelShape, EveryViewReachesTheSameDevices) {
    sim::generate_host(sim::parse_fabric_text(sim::default_fabric_text(), "<default>"), root.string());
    const std::string h0 = kHost0;
    const std::string l0 = h0 + "/rport-0:0-0/target0:0:0/0:0:0:0";
    // The SCSI host's folder is the fc_host entry's "device"; the device
    // tree, the class views and the SCSI bus reach the same folders.
    EXPECT_EQ(link(h0), "../../../class/fc_host/host0/device");
    EXPECT_SAME(h0, "class/fc_host/host0/device");
    EXPECT_SAME(h0 + "/fc_host/host0", "class/fc_host/host0");
    EXPECT_SAME(h0 + "/scsi_host/host0", "class/scsi_host/host0");
    EXPECT_SAME(h0 + "/rport-0:0-0/fc_remote_ports/rport-0:0-0", "class/fc_remote_ports/rport-0:0-0");
    EXPECT_SAME(h0 + "/rport-0:0-0/target0:0:0", "class/fc_transport/target0:0:0/device");
    EXPECT_SAME(h0, "bus/scsi/devices/host0");
    EXPECT_SAME(h0 + "/rport-0:0-0/target0:0:0", "bus/scsi/devices/target0:0:0");
    EXPECT_SAME(l0, "bus/scsi/devices/0:0:0:0");
    EXPECT_SAME(l0 + "/block/sdb", "block/sdb");
    EXPECT_SAME(l0 + "/block/sdb", "class/block/sdb");
    EXPECT_SAME(l0 + "/scsi_device/0:0:0:0", "class/scsi_device/0:0:0:0");
    EXPECT_SAME(l0 + "/scsi_generic/sg0", "class/scsi_generic/sg0");
    EXPECT_SAME(l0 + "/scsi_generic/sg0", l0 + "/generic");
    EXPECT_SAME(l0, l0 + "/block/sdb/device");
    EXPECT_SAME("class/fc_host/host0", "class/fc_host/host0/device/fc_host/host0");
    // Links are relative, so the tree can be read wherever it lies.
    EXPECT_EQ(link("bus/scsi/devices/0:0:0:0"), "../../../class/fc_host/host0/device/rport-0:0-0/target0:0:0/0:0:0:0");
    // The older names the plug-in reads are links beside the newer entries.
    EXPECT_EQ(link(h0 + "/rport-0:0-0/fc_remote_ports:rport-0:0-0"), "fc_remote_ports/rport-0:0-0");
    EXPECT_EQ(link(l0 + "/block:sdb"), "block/sdb");
    EXPECT_EQ(link(l0 + "/generic"), "scsi_generic/sg0");
    // Instance 1's port 1 is the next function; its virtual ports sit below
    // its host; instance 4 is another bus.
    EXPECT_SAME("devices/pci0000:00/0000:11:00.1/host1", "class/fc_host/host1/device");
    EXPECT_SAME("devices/pci0000:00/0000:11:00.1/host1/vport-1:0-0/host2", "class/fc_host/host2/device");
    EXPECT_SAME("devices/pci0000:00/0000:11:00.1/host1/vport-1:0-1/host3", "class/fc_host/host3/device");
    EXPECT_SAME("devices/pci0000:00/0000:14:00.0/host4", "class/fc_host/host4/device");
    EXPECT_EQ(names("class/fc_host"),
              (std::set<std::string>{"host0", "host1", "host2", "host3", "host4", "host5", "host6", "host7"}));
    // A target directory holds its LUNs, nothing else.
    EXPECT_EQ(names(h0 + "/rport-0:0-0/target0:0:0"), (std::set<std::string>{"0:0:0:0", "0:0:0:1", "0:0:0:2"}));
}

TEST_F(HostKernelShape, FcHostAttributesComeFromTheDriversRecords) {
    const sim::Fabric f = sim::parse_fabric_text(sim::default_fabric_text(), "<default>");
    sim::generate_host(f, root.string());
    const sim::Adapter& a = f.adapters[0];
    const sim::LocalNode& ln = a.lnodes[0];
    const fs::path h = "class/fc_host/host0";
    EXPECT_EQ(read(h / "port_name"), hex(ln.port_wwn));
    EXPECT_EQ(read(h / "node_name"), hex(ln.node_wwn));
    EXPECT_EQ(read(h / "port_id"), "0x010a01\n");
    EXPECT_EQ(read(h / "port_type"), "NPort (fabric via point-to-point)\n");
    EXPECT_EQ(read(h / "port_state"), "Online\n");
    EXPECT_EQ(read(h / "speed"), "10 Gbit\n");  // hardware port 0's speed code
    EXPECT_EQ(read(h / "supported_speeds"), "10 Gbit\n");
    EXPECT_EQ(read(h / "supported_classes"), "Class 1, Class 2, Class 3\n");
    EXPECT_EQ(read(h / "fabric_name"), "0x1000001b9ef00021\n");  // FCF 33
    EXPECT_EQ(read(h / "maxframe_size"), "2112 bytes\n");
    EXPECT_EQ(read(h / "symbolic_name"), "MVF-2210 FW:52030A11 DVR:4.2.7-mv over enp17s0f0\n");
    EXPECT_EQ(read(h / "manufacturer"), "Mirvak\n");
    EXPECT_EQ(read(h / "model"), "MVF-2210\n");
    EXPECT_EQ(read(h / "serial_number"), "MVA1K4C00117\n");
    EXPECT_EQ(read(h / "firmware_version"), "0x52030a11\n");
    EXPECT_EQ(read(h / "max_npiv_vports"), "128\n");
    EXPECT_EQ(read(h / "npiv_vports_inuse"), "0\n");
    EXPECT_EQ(read(h / "dev_loss_tmo"), "60\n");
    EXPECT_EQ(read(h / "statistics/tx_frames"), counter(ln.quads[1]));
    EXPECT_EQ(read(h / "statistics/tx_words"), counter(ln.quads[0]));
    EXPECT_EQ(read(h / "statistics/rx_frames"), counter(ln.quads[3]));
    EXPECT_EQ(read(h / "statistics/rx_words"), counter(ln.quads[2]));
    EXPECT_EQ(read(h / "statistics/error_frames"), "0x0\n");
    EXPECT_NE(ln.quads[1], 0u);
    EXPECT_EQ(read("class/scsi_host/host0/proc_name"), "tuskstor\n");
    // The physical port with two virtual ports, at speed 8, and one of them.
    EXPECT_EQ(read("class/fc_host/host1/npiv_vports_inuse"), "2\n");
    EXPECT_EQ(read("class/fc_host/host1/speed"), "8 Gbit\n");
    EXPECT_EQ(read("class/fc_host/host2/port_type"), "NPIV VPORT\n");
    EXPECT_EQ(read("class/fc_host/host2/max_npiv_vports"), "0\n");
    // Instance 4's port 1 is OFFLINE: no negotiated speed or type.
    EXPECT_EQ(read("class/fc_host/host5/port_state"), "Offline\n");
    EXPECT_EQ(read("class/fc_host/host5/port_type"), "Unknown\n");
    EXPECT_EQ(read("class/fc_host/host5/speed"), "Unknown\n");
    EXPECT_EQ(read("class/fc_host/host5/supported_speeds"), "32 Gbit\n");
    // No second attribute whose name contains "port_name".
    for (const auto& e : fs::directory_iterator(sys / h)) {
        const std::string n = e.path().filename().string();
        if (n.find("port_name") != std::string::npos) { EXPECT_EQ(n, "port_name"); }
    }
}

TEST_F(HostKernelShape, RemotePortTargetAndLunAttributes) {
    const sim::Fabric f = sim::parse_fabric_text(sim::default_fabric_text(), "<default>");
    sim::generate_host(f, root.string());
    const sim::RemoteNode& rn = f.adapters[0].lnodes[0].rnodes[0];
    const fs::path r = "class/fc_remote_ports/rport-0:0-0";
    EXPECT_EQ(read(r / "port_name"), hex(rn.port_wwn));
    EXPECT_EQ(read(r / "node_name"), hex(rn.node_wwn));
    char id[16];
    std::snprintf(id, sizeof id, "0x%06x\n", rn.fcid);
    EXPECT_EQ(read(r / "port_id"), id);
    EXPECT_EQ(read(r / "roles"), "FCP Target\n");
    EXPECT_EQ(read(r / "port_state"), "Online\n");
    EXPECT_EQ(read(r / "scsi_target_id"), "0\n");
    EXPECT_EQ(read("class/fc_transport/target0:0:0/port_name"), hex(rn.port_wwn));
    EXPECT_EQ(read("class/fc_transport/target0:0:0/port_id"), id);

    const fs::path lun = "bus/scsi/devices/0:0:0:0";
    EXPECT_EQ(read(lun / "type"), "0\n");
    EXPECT_EQ(read(lun / "state"), "running\n");
    EXPECT_EQ(read(lun / "vendor"), "KESTREL \n");
    EXPECT_EQ(read(lun / "block/sdb/dev"), "8:16\n");
    EXPECT_EQ(read(lun / "block/sdb/size"), std::to_string(rn.luns[0].size) + "\n");
    EXPECT_EQ(read(lun / "block:sdb/size"), std::to_string(rn.luns[0].size) + "\n");
    EXPECT_EQ(read(lun / "scsi_generic/sg0/dev"), "21:0\n");
    EXPECT_EQ(read("class/block/sdq/dev"), "65:0\n");
    EXPECT_EQ(read("class/block/sdx/dev"), "65:112\n");
}

TEST_F(HostKernelShape, EachPhysicalPortHasAnFcoeControllerBelowItsNetworkDevice) {
    sim::generate_host(sim::parse_fabric_text(sim::default_fabric_text(), "<default>"), root.string());
    const std::string c0 = "devices/pci0000:00/0000:11:00.0/net/enp17s0f0/ctlr_0";
    EXPECT_SAME(c0 + "/host0", "class/fc_host/host0/device");
    EXPECT_SAME(c0, "bus/fcoe/devices/ctlr_0");
    EXPECT_SAME(c0, "class/net/enp17s0f0/ctlr_0");
    EXPECT_SAME(c0 + "/fcf_0", "bus/fcoe/devices/fcf_0");
    EXPECT_SAME("class/net/enp17s0f1/ctlr_1/host1/vport-1:0-0/host2", "class/fc_host/host2/device");
    EXPECT_SAME("class/net/enp20s0f0/ctlr_2/host4", "class/fc_host/host4/device");
    EXPECT_SAME("class/net/enp20s0f1/ctlr_3/fcf_3", "bus/fcoe/devices/fcf_3");
    EXPECT_EQ(names("bus/fcoe/devices"), (std::set<std::string>{"ctlr_0", "ctlr_1", "ctlr_2", "ctlr_3", "fcf_0",
                                                                "fcf_1", "fcf_2", "fcf_3"}));
    EXPECT_EQ(names("bus/fcoe"), (std::set<std::string>{"ctlr_create", "ctlr_destroy", "devices"}));
    // Instance 4's port 2 has no fc_host, so no controller.
    for (const std::string& n : names("class/net/enp20s0f2")) EXPECT_EQ(n.rfind("ctlr_", 0), std::string::npos) << n;

    EXPECT_EQ(read(c0 + "/enabled"), "1\n");
    EXPECT_EQ(read(c0 + "/mode"), "Fabric\n");
    EXPECT_EQ(read(c0 + "/fcf_dev_loss_tmo"), "1800\n");
    EXPECT_EQ(read(c0 + "/lesb/link_fail"), "0\n");
    // FCF 33 of instance 1, which port 0 logged in through.
    const fs::path f0 = "bus/fcoe/devices/fcf_0";
    EXPECT_EQ(read(f0 / "fabric_name"), "0x1000001b9ef00021\n");
    EXPECT_EQ(read(f0 / "switch_name"), "0x1000001b9ef00021\n");
    EXPECT_EQ(read(f0 / "mac"), "00:1b:9e:f0:00:21\n");
    EXPECT_EQ(read(f0 / "fc_map"), "0xefc00\n");
    EXPECT_EQ(read(f0 / "vlan_id"), "101\n");
    EXPECT_EQ(read(f0 / "selected"), "1\n");
    EXPECT_EQ(read(f0 / "state"), "Connected\n");
    EXPECT_EQ(read(f0 / "priority"), "128\n");
    EXPECT_EQ(read(f0 / "fka_period"), "8\n");
    EXPECT_EQ(read(f0 / "vfid"), "0\n");
    EXPECT_EQ(read(f0 / "dev_loss_tmo"), "1800\n");
    // Instance 4's port 1 is OFFLINE, on FCF 9 (VLAN 202).
    EXPECT_EQ(read("bus/fcoe/devices/fcf_3/state"), "Disconnected\n");
    EXPECT_EQ(read("bus/fcoe/devices/fcf_3/vlan_id"), "202\n");
    EXPECT_EQ(read("bus/fcoe/devices/fcf_3/mac"), "00:1b:9e:f4:00:09\n");

    // The class views name the devices through the controller.
    EXPECT_EQ(link("class/fc_remote_ports/rport-0:0-0"),
              "../../devices/pci0000:00/0000:11:00.0/net/enp17s0f0/ctlr_0/host0/rport-0:0-0/fc_remote_ports/rport-0:0-0");
    EXPECT_EQ(link("class/scsi_device/2:0:0:0"),
              "../../devices/pci0000:00/0000:11:00.1/net/enp17s0f1/ctlr_1/host1/vport-1:0-0/host2/rport-2:0-0/"
              "target2:0:0/2:0:0:0/scsi_device/2:0:0:0");
    EXPECT_SAME("class/scsi_device/2:0:0:0", "class/fc_host/host2/device/rport-2:0-0/target2:0:0/2:0:0:0/scsi_device/2:0:0:0");
    EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/maxframe_size"), "2048 bytes\n");  // FCF 34
    EXPECT_EQ(read("block/sdb/queue/hw_sector_size"), "512\n");
}

TEST_F(HostKernelShape, RegeneratingLeavesNoStaleEntryInAnyView) {
    sim::Fabric f = sim::parse_fabric_text(sim::default_fabric_text(), "<default>");
    sim::generate_host(f, root.string());
    f.adapters.pop_back();
    sim::update_scsi_view(f, root.string());
    EXPECT_EQ(names("class/fc_host"), (std::set<std::string>{"host0", "host1", "host2", "host3"}));
    EXPECT_FALSE(fs::exists(sys / "class/block/sdr"));
    EXPECT_FALSE(fs::exists(sys / "devices/pci0000:00/0000:14:00.0"));
    for (const auto& e : fs::recursive_directory_iterator(sys))
        if (e.is_symlink()) { EXPECT_TRUE(fs::exists(e.path())) << e.path() << " dangles"; }
}

}  // namespace
