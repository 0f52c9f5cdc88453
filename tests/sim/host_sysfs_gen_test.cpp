// The simulated host's generator: exact files and contents of the sysfs tree
// and hba.conf written for small fabrics built directly in C++.
#include <gtest/gtest.h>

#include <cstdint>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "sysfs_gen.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

sim::Wwn wwn(uint64_t v) {
    sim::Wwn w{};
    for (int i = 7; i >= 0; --i, v >>= 8) w[static_cast<std::size_t>(i)] = static_cast<uint8_t>(v & 0xff);
    return w;
}

sim::LocalNode lnode(uint64_t port, std::optional<int> host = std::nullopt) {
    sim::LocalNode ln;
    ln.port_wwn = wwn(port);
    ln.node_wwn = wwn(port ^ 0x3000000000000000ULL);
    ln.scsi_host = host;
    return ln;
}

sim::RemoteNode rnode(uint64_t port, const std::string& role = "target") {
    sim::RemoteNode rn;
    rn.port_wwn = wwn(port);
    rn.node_wwn = wwn(port ^ 0x3000000000000000ULL);
    rn.role = role;
    return rn;
}

sim::Lun lun(uint32_t number, const std::string& block = "", uint64_t size = 2097152) {
    sim::Lun l;
    l.lun = number;
    l.block = block;
    l.size = size;
    return l;
}

sim::Fabric fabric_of(std::vector<sim::LocalNode> lnodes) {
    sim::Fabric f;
    f.adapters.emplace_back();
    f.adapters.back().lnodes = std::move(lnodes);
    return f;
}

class HostSysfsGen : public ::testing::Test {
protected:
    sim::TempDir dir{"mirvak-host-gen"};
    fs::path root = dir.path();
    fs::path fc_host = root / "sys" / "class" / "fc_host";

    // Every entry reachable below root/sys/class/fc_host, relative to it,
    // following links as a reader does; directories end in "/". A link back
    // to a directory already on the way (the "device" link of a class
    // device) is listed but not entered again.
    std::set<std::string> tree() const {
        std::set<std::string> out;
        std::vector<fs::path> way;
        walk(fc_host, "", way, out);
        return out;
    }

    static void walk(const fs::path& dir, const std::string& rel, std::vector<fs::path>& way,
                     std::set<std::string>& out) {
        way.push_back(fs::canonical(dir));
        for (const auto& e : fs::directory_iterator(dir)) {
            const std::string name = rel + e.path().filename().string();
            if (!e.is_directory()) {
                out.insert(name);
                continue;
            }
            out.insert(name + "/");
            if (std::find(way.begin(), way.end(), fs::canonical(e.path())) == way.end())
                walk(e.path(), name + "/", way, out);
        }
        way.pop_back();
    }

    // The exact bytes of a file below root; nullopt when it does not exist.
    std::optional<std::string> read(const fs::path& rel) const {
        std::ifstream in(root / rel, std::ios::binary);
        if (!in) return std::nullopt;
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    std::set<std::string> hosts() const {
        std::set<std::string> out;
        for (const auto& e : fs::directory_iterator(fc_host)) out.insert(e.path().filename().string());
        return out;
    }
};

TEST_F(HostSysfsGen, OneHostExactTree) {
    sim::LocalNode ln = lnode(0x2000000743001a2bULL);
    sim::RemoteNode target = rnode(0x5000000000000001ULL);
    target.luns.push_back(lun(0, "sdb", 2097152));
    sim::Lun no_block = lun(3);
    no_block.vendor = "ACME";
    no_block.product = "ARRAY";
    no_block.revision = "12";
    target.luns.push_back(no_block);
    ln.rnodes.push_back(target);
    ln.rnodes.push_back(rnode(0x5000000000000002ULL, "initiator"));

    sim::generate_host(fabric_of({ln}), root.string());

    // Seen through the class entry, as the plug-in reads it: the fc_host
    // attributes, and through its "device" link the SCSI host with its
    // remote ports, targets and LUNs, the older names beside the newer.
    const std::set<std::string> expected = {
        "host0/",
        "host0/active_fc4s",
        "host0/dev_loss_tmo",
        "host0/device/",
        "host0/device/fc_host/",
        "host0/device/fc_host/host0/",
        "host0/device/rport-0:0-0/",
        "host0/device/rport-0:0-0/fc_remote_ports/",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/dev_loss_tmo",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/device/",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/fast_io_fail_tmo",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/maxframe_size",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/node_name",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/port_id",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/port_name",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/port_state",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/roles",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/scsi_target_id",
        "host0/device/rport-0:0-0/fc_remote_ports/rport-0:0-0/supported_classes",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/dev_loss_tmo",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/device/",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/fast_io_fail_tmo",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/maxframe_size",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/node_name",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/port_id",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/port_name",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/port_state",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/roles",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/scsi_target_id",
        "host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/supported_classes",
        "host0/device/rport-0:0-0/target0:0:0/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/sdb/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/sdb/dev",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/sdb/device/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/sdb/removable",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/sdb/queue/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/sdb/queue/hw_sector_size",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/sdb/queue/logical_block_size",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/sdb/queue/physical_block_size",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/sdb/ro",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/sdb/size",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block:sdb/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block:sdb/dev",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block:sdb/device/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block:sdb/removable",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block:sdb/queue/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block:sdb/queue/hw_sector_size",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block:sdb/queue/logical_block_size",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block:sdb/queue/physical_block_size",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block:sdb/ro",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block:sdb/size",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/generic/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/generic/dev",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/generic/device/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/model",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/rev",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/scsi_device/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/scsi_device/0:0:0:0/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/scsi_device/0:0:0:0/device/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/scsi_generic/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/scsi_generic/sg0/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/scsi_generic/sg0/dev",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/scsi_generic/sg0/device/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/state",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/type",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/vendor",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/generic/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/generic/dev",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/generic/device/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/model",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/rev",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/scsi_device/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/scsi_device/0:0:0:3/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/scsi_device/0:0:0:3/device/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/scsi_generic/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/scsi_generic/sg1/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/scsi_generic/sg1/dev",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/scsi_generic/sg1/device/",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/state",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/type",
        "host0/device/rport-0:0-0/target0:0:0/0:0:0:3/vendor",
        "host0/device/rport-0:0-1/",
        "host0/device/rport-0:0-1/fc_remote_ports/",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/dev_loss_tmo",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/device/",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/fast_io_fail_tmo",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/maxframe_size",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/node_name",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/port_id",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/port_name",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/port_state",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/roles",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/scsi_target_id",
        "host0/device/rport-0:0-1/fc_remote_ports/rport-0:0-1/supported_classes",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/dev_loss_tmo",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/device/",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/fast_io_fail_tmo",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/maxframe_size",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/node_name",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/port_id",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/port_name",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/port_state",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/roles",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/scsi_target_id",
        "host0/device/rport-0:0-1/fc_remote_ports:rport-0:0-1/supported_classes",
        "host0/device/scsi_host/",
        "host0/device/scsi_host/host0/",
        "host0/device/scsi_host/host0/device/",
        "host0/device/scsi_host/host0/proc_name",
        "host0/device/scsi_host/host0/state",
        "host0/device/scsi_host/host0/unique_id",
        "host0/driver_version",
        "host0/fabric_name",
        "host0/firmware_version",
        "host0/hardware_version",
        "host0/manufacturer",
        "host0/max_npiv_vports",
        "host0/maxframe_size",
        "host0/model",
        "host0/node_name",
        "host0/npiv_vports_inuse",
        "host0/port_id",
        "host0/port_name",
        "host0/port_state",
        "host0/port_type",
        "host0/serial_number",
        "host0/speed",
        "host0/statistics/",
        "host0/statistics/dumped_frames",
        "host0/statistics/error_frames",
        "host0/statistics/fcp_control_requests",
        "host0/statistics/fcp_frame_alloc_failures",
        "host0/statistics/fcp_input_megabytes",
        "host0/statistics/fcp_input_requests",
        "host0/statistics/fcp_output_megabytes",
        "host0/statistics/fcp_output_requests",
        "host0/statistics/fcp_packet_aborts",
        "host0/statistics/fcp_packet_alloc_failures",
        "host0/statistics/invalid_crc_count",
        "host0/statistics/invalid_tx_word_count",
        "host0/statistics/link_failure_count",
        "host0/statistics/lip_count",
        "host0/statistics/loss_of_signal_count",
        "host0/statistics/loss_of_sync_count",
        "host0/statistics/nos_count",
        "host0/statistics/prim_seq_protocol_err_count",
        "host0/statistics/rx_frames",
        "host0/statistics/rx_words",
        "host0/statistics/seconds_since_last_reset",
        "host0/statistics/tx_frames",
        "host0/statistics/tx_words",
        "host0/supported_classes",
        "host0/supported_fc4s",
        "host0/supported_speeds",
        "host0/symbolic_name",
        "host0/tgtid_bind_type",
    };
    EXPECT_EQ(tree(), expected);

    const fs::path host = "sys/class/fc_host/host0";
    const fs::path rp0 = host / "device/rport-0:0-0";
    const fs::path rp1 = host / "device/rport-0:0-1";
    const fs::path l0 = rp0 / "target0:0:0/0:0:0:0";
    const fs::path l3 = rp0 / "target0:0:0/0:0:0:3";
    EXPECT_EQ(read(host / "port_name"), "0x2000000743001a2b\n");
    EXPECT_EQ(read(host / "node_name"), "0x1000000743001a2b\n");
    EXPECT_EQ(read(host / "port_state"), "Online\n");
    EXPECT_EQ(read(rp0 / "fc_remote_ports:rport-0:0-0/port_name"), "0x5000000000000001\n");
    EXPECT_EQ(read(rp0 / "fc_remote_ports:rport-0:0-0/node_name"), "0x6000000000000001\n");
    EXPECT_EQ(read(rp0 / "fc_remote_ports:rport-0:0-0/port_state"), "Online\n");
    EXPECT_EQ(read(rp0 / "fc_remote_ports:rport-0:0-0/roles"), "FCP Target\n");
    EXPECT_EQ(read(rp1 / "fc_remote_ports:rport-0:0-1/port_name"), "0x5000000000000002\n");
    EXPECT_EQ(read(rp1 / "fc_remote_ports:rport-0:0-1/roles"), "FCP Initiator\n");
    EXPECT_EQ(read(l0 / "vendor"), "MIRVSIM \n");
    EXPECT_EQ(read(l0 / "model"), "SIMDISK         \n");
    EXPECT_EQ(read(l0 / "rev"), "0001\n");
    EXPECT_EQ(read(l0 / "block:sdb/size"), "2097152\n");
    EXPECT_EQ(read(l3 / "vendor"), "ACME    \n");
    EXPECT_EQ(read(l3 / "model"), "ARRAY           \n");
    EXPECT_EQ(read(l3 / "rev"), "12  \n");

    EXPECT_EQ(read("etc/hba.conf"),
              "# HBA API plug-in libraries of the simulated host: name, tab, path\n");
}

TEST_F(HostSysfsGen, DefaultHostNumbersStartAfterLargestExplicit) {
    sim::Fabric f = fabric_of({lnode(0x21), lnode(0x22, 5), lnode(0x23), lnode(0x24, 2)});
    f.adapters.emplace_back();
    f.adapters.back().lnodes = {lnode(0x25)};

    const auto a = sim::assign_hosts(f);
    ASSERT_EQ(a.size(), 5u);
    EXPECT_EQ(a[0].host, 6);
    EXPECT_EQ(a[1].host, 5);
    EXPECT_EQ(a[2].host, 7);
    EXPECT_EQ(a[3].host, 2);
    EXPECT_EQ(a[4].host, 8);
    EXPECT_EQ(a[4].adapter, 1u);
    EXPECT_EQ(a[4].lnode, 0u);

    sim::generate_host(f, root.string());
    EXPECT_EQ(hosts(), (std::set<std::string>{"host2", "host5", "host6", "host7", "host8"}));
    EXPECT_EQ(read("sys/class/fc_host/host5/port_name"), "0x0000000000000022\n");
    EXPECT_EQ(read("sys/class/fc_host/host8/port_name"), "0x0000000000000025\n");
}

TEST_F(HostSysfsGen, DefaultHostNumbersStartAtZeroAcrossAdapters) {
    sim::Fabric f = fabric_of({lnode(0x21), lnode(0x22)});
    f.adapters.emplace_back();
    f.adapters.back().lnodes = {lnode(0x23)};
    sim::generate_host(f, root.string());
    EXPECT_EQ(hosts(), (std::set<std::string>{"host0", "host1", "host2"}));
    EXPECT_EQ(read("sys/class/fc_host/host2/port_name"), "0x0000000000000023\n");
}

TEST_F(HostSysfsGen, StaleDuplicateGetsNoHost) {
    sim::LocalNode stale = lnode(0x2000000743001a2bULL);
    stale.state = "OFFLINE";
    sim::LocalNode live = lnode(0x2000000743001a2bULL);
    live.rnodes.push_back(rnode(0x51));
    sim::Fabric f = fabric_of({stale, live, lnode(0x2000000743001a2cULL)});

    const auto a = sim::assign_hosts(f);
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(a[0].lnode, 0u);
    EXPECT_EQ(a[1].lnode, 2u);
    EXPECT_EQ(a[1].host, 1);

    sim::generate_host(f, root.string());
    EXPECT_EQ(hosts(), (std::set<std::string>{"host0", "host1"}));
    EXPECT_EQ(read("sys/class/fc_host/host0/port_state"), "Offline\n");
    EXPECT_FALSE(fs::exists(fc_host / "host0/device/rport-0:0-0"));
    EXPECT_EQ(read("sys/class/fc_host/host1/port_name"), "0x2000000743001a2c\n");
}

TEST_F(HostSysfsGen, ExplicitHostForDuplicateWwnIsKept) {
    sim::Fabric f = fabric_of({lnode(0x21), lnode(0x21, 4)});
    sim::generate_host(f, root.string());
    EXPECT_EQ(hosts(), (std::set<std::string>{"host4", "host5"}));
}

TEST_F(HostSysfsGen, NegativeHostNumberMeansNoEntry) {
    sim::Fabric f = fabric_of({lnode(0x21, -1), lnode(0x22)});
    sim::generate_host(f, root.string());
    EXPECT_EQ(hosts(), (std::set<std::string>{"host0"}));
    EXPECT_EQ(read("sys/class/fc_host/host0/port_name"), "0x0000000000000022\n");
}

TEST_F(HostSysfsGen, HostNumberClaimedTwiceIsRejected) {
    sim::Fabric f = fabric_of({lnode(0x21, 3), lnode(0x22, 3)});
    EXPECT_THROW(sim::assign_hosts(f), std::runtime_error);
    EXPECT_THROW(sim::generate_host(f, root.string()), std::runtime_error);
    EXPECT_FALSE(fs::exists(fc_host));  // nothing written
}

TEST_F(HostSysfsGen, RportAndTargetOrdinalsCountPublishedEntriesOnly) {
    sim::LocalNode ln = lnode(0x21, 3);
    sim::RemoteNode hidden = rnode(0x50);
    hidden.in_sysfs = false;
    hidden.luns.push_back(lun(0, "sdz"));
    sim::RemoteNode t0 = rnode(0x51);
    t0.luns.push_back(lun(1, "sdb"));
    sim::RemoteNode explicit_t = rnode(0x53, "Target");  // role compared lower-cased
    explicit_t.scsi_target = 7;
    explicit_t.luns.push_back(lun(0, "sdc"));
    sim::RemoteNode t2 = rnode(0x54, "TARGET");
    t2.luns.push_back(lun(2));
    ln.rnodes = {hidden, t0, rnode(0x52, "initiator"), explicit_t, t2};

    sim::generate_host(fabric_of({ln}), root.string());

    const fs::path dev = fc_host / "host3/device";
    std::set<std::string> rports;
    for (const auto& e : fs::directory_iterator(dev)) rports.insert(e.path().filename().string());
    // The SCSI host's device directory: its remote ports beside its two
    // class devices.
    EXPECT_EQ(rports, (std::set<std::string>{"rport-3:0-0", "rport-3:0-1", "rport-3:0-2", "rport-3:0-3",
                                             "fc_host", "scsi_host"}));
    EXPECT_EQ(read("sys/class/fc_host/host3/device/rport-3:0-0/fc_remote_ports:rport-3:0-0/port_name"),
              "0x0000000000000051\n");
    EXPECT_TRUE(fs::is_directory(dev / "rport-3:0-0/target3:0:0/3:0:0:1/block:sdb"));
    EXPECT_EQ(read("sys/class/fc_host/host3/device/rport-3:0-1/fc_remote_ports:rport-3:0-1/port_name"),
              "0x0000000000000052\n");
    EXPECT_EQ(read("sys/class/fc_host/host3/device/rport-3:0-1/fc_remote_ports:rport-3:0-1/roles"),
              "FCP Initiator\n");
    std::set<std::string> initiator_entries;
    for (const auto& e : fs::directory_iterator(dev / "rport-3:0-1"))
        initiator_entries.insert(e.path().filename().string());
    EXPECT_EQ(initiator_entries, (std::set<std::string>{"fc_remote_ports", "fc_remote_ports:rport-3:0-1"}));
    EXPECT_EQ(read("sys/class/fc_host/host3/device/rport-3:0-2/fc_remote_ports:rport-3:0-2/roles"),
              "FCP Target\n");
    EXPECT_TRUE(fs::is_directory(dev / "rport-3:0-2/target3:0:7/3:0:7:0/block:sdc"));
    EXPECT_TRUE(fs::is_directory(dev / "rport-3:0-3/target3:0:2/3:0:2:2"));
    for (const std::string& entry : tree())  // the unpublished node's LUN is nowhere
        EXPECT_EQ(entry.find("sdz"), std::string::npos) << entry;
}

TEST_F(HostSysfsGen, LunWithoutVendorHasNoVendorFile) {
    sim::LocalNode ln = lnode(0x21);
    sim::RemoteNode t = rnode(0x51);
    sim::Lun l = lun(0, "sdb");
    l.has_vendor = false;
    t.luns.push_back(l);
    ln.rnodes.push_back(t);
    sim::generate_host(fabric_of({ln}), root.string());

    const fs::path l0 = "sys/class/fc_host/host0/device/rport-0:0-0/target0:0:0/0:0:0:0";
    EXPECT_EQ(read(l0 / "vendor"), std::nullopt);
    EXPECT_EQ(read(l0 / "model"), "SIMDISK         \n");
    EXPECT_EQ(read(l0 / "block:sdb/size"), "2097152\n");
}

TEST_F(HostSysfsGen, VendorIsPaddedToEightCharacters) {
    sim::LocalNode ln = lnode(0x21);
    sim::RemoteNode t = rnode(0x51);
    for (const char* v : {"AB", "ABCDEFGH", "ABCDEFGHIJ", "TWO WORD"}) {
        sim::Lun l = lun(static_cast<uint32_t>(t.luns.size()));
        l.vendor = v;
        t.luns.push_back(l);
    }
    ln.rnodes.push_back(t);
    sim::generate_host(fabric_of({ln}), root.string());

    const fs::path tgt = "sys/class/fc_host/host0/device/rport-0:0-0/target0:0:0";
    EXPECT_EQ(read(tgt / "0:0:0:0/vendor"), "AB      \n");
    EXPECT_EQ(read(tgt / "0:0:0:1/vendor"), "ABCDEFGH\n");
    EXPECT_EQ(read(tgt / "0:0:0:2/vendor"), "ABCDEFGHIJ\n");
    EXPECT_EQ(read(tgt / "0:0:0:3/vendor"), "TWO WORD\n");
}

TEST_F(HostSysfsGen, BlockDirectoryAlsoCarriesTheSize) {
    sim::LocalNode ln = lnode(0x21);
    sim::RemoteNode t = rnode(0x51);
    sim::Lun both = lun(0, "sdc", 18446744073709551615ULL);
    both.block_dir = true;
    t.luns.push_back(both);
    t.luns.push_back(lun(1, "sdd", 0));
    ln.rnodes.push_back(t);
    sim::generate_host(fabric_of({ln}), root.string());

    const fs::path tgt = "sys/class/fc_host/host0/device/rport-0:0-0/target0:0:0";
    EXPECT_EQ(read(tgt / "0:0:0:0/block:sdc/size"), "18446744073709551615\n");
    EXPECT_EQ(read(tgt / "0:0:0:0/block/size"), "18446744073709551615\n");
    EXPECT_EQ(read(tgt / "0:0:0:1/block:sdd/size"), "0\n");
    // Without block_dir the block directory holds the device alone.
    std::set<std::string> block;
    for (const auto& e : fs::directory_iterator(root / tgt / "0:0:0:1/block")) block.insert(e.path().filename().string());
    EXPECT_EQ(block, (std::set<std::string>{"sdd"}));
}

TEST_F(HostSysfsGen, BlockDirectoryHasTheNewerLayoutToo) {
    sim::LocalNode ln = lnode(0x21);
    sim::RemoteNode t = rnode(0x51);
    sim::Lun newer = lun(0, "sdc", 77);
    newer.block_dir = true;
    newer.block_link = false;
    t.luns.push_back(newer);
    ln.rnodes.push_back(t);
    sim::generate_host(fabric_of({ln}), root.string());

    const std::string l0 = "host0/device/rport-0:0-0/target0:0:0/0:0:0:0/";
    std::set<std::string> below;
    for (const std::string& e : tree())
        if (e.size() > l0.size() && e.rfind(l0, 0) == 0) below.insert(e.substr(l0.size()));
    EXPECT_EQ(below, (std::set<std::string>{"vendor", "model", "rev", "type", "state", "block/", "block/size",
                                            "block/sdc/", "block/sdc/size", "block/sdc/dev", "block/sdc/device/",
                                            "block/sdc/ro", "block/sdc/removable", "block/sdc/queue/",
                                            "block/sdc/queue/hw_sector_size", "block/sdc/queue/logical_block_size",
                                            "block/sdc/queue/physical_block_size", "generic/", "generic/dev",
                                            "generic/device/", "scsi_device/", "scsi_device/0:0:0:0/",
                                            "scsi_device/0:0:0:0/device/", "scsi_generic/", "scsi_generic/sg0/",
                                            "scsi_generic/sg0/dev", "scsi_generic/sg0/device/"}));
    EXPECT_EQ(read("sys/class/fc_host/" + l0 + "block/sdc/size"), "77\n");
}

TEST_F(HostSysfsGen, LunNameAndFileTextsAreWrittenVerbatim) {
    sim::LocalNode ln = lnode(0x21);
    sim::RemoteNode t = rnode(0x51);
    sim::Lun odd = lun(0, "sdb");
    odd.sysfs_name = "lun zero";
    odd.vendor_text = "";
    odd.size_text = "12abc";
    odd.block_dir = true;
    t.luns.push_back(odd);
    sim::Lun plain = lun(1);
    plain.vendor_text = "NO NEWLINE";
    t.luns.push_back(plain);
    ln.rnodes.push_back(t);
    sim::generate_host(fabric_of({ln}), root.string());

    const fs::path tgt = "sys/class/fc_host/host0/device/rport-0:0-0/target0:0:0";
    EXPECT_FALSE(fs::exists(root / tgt / "0:0:0:0"));
    EXPECT_EQ(read(tgt / "lun zero/vendor"), "");
    EXPECT_EQ(read(tgt / "lun zero/block:sdb/size"), "12abc");
    EXPECT_EQ(read(tgt / "lun zero/block/size"), "12abc");
    EXPECT_EQ(read(tgt / "lun zero/block/sdb/size"), "12abc");
    EXPECT_EQ(read(tgt / "0:0:0:1/vendor"), "NO NEWLINE");
}

TEST_F(HostSysfsGen, UnusableLunNameIsRefused) {
    sim::LocalNode ln = lnode(0x21);
    sim::RemoteNode t = rnode(0x51);
    sim::Lun bad = lun(0);
    bad.sysfs_name = "a/b";
    t.luns.push_back(bad);
    ln.rnodes.push_back(t);
    try {
        sim::generate_host(fabric_of({ln}), root.string());
        FAIL() << "no error";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "simulated host: unusable LUN name \"a/b\"");
    }
}

TEST_F(HostSysfsGen, PortNameOverridesAreWrittenVerbatim) {
    sim::LocalNode upper = lnode(0x2000000743001a2bULL);
    upper.sysfs_port_name = "0x2000000743001A2B\n";
    sim::RemoteNode t = rnode(0x51);
    t.sysfs_port_name = "0x0000000000000051ffff";  // over-long, no line end
    upper.rnodes.push_back(t);
    sim::LocalNode longer = lnode(0x22);
    longer.sysfs_port_name = "0x0000000000000022abc\n";
    sim::generate_host(fabric_of({upper, longer}), root.string());

    EXPECT_EQ(read("sys/class/fc_host/host0/port_name"), "0x2000000743001A2B\n");
    EXPECT_EQ(read("sys/class/fc_host/host0/node_name"), "0x1000000743001a2b\n");
    EXPECT_EQ(read("sys/class/fc_host/host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/port_name"),
              "0x0000000000000051ffff");
    EXPECT_EQ(read("sys/class/fc_host/host1/port_name"), "0x0000000000000022abc\n");
}

TEST_F(HostSysfsGen, ExtraAttributesAreWrittenExactly) {
    sim::LocalNode ln = lnode(0x21);
    ln.sysfs_attrs = {{"permanent_port_name", "0x2100000000000021\n"}, {"symbolic_name", "sim\tport"}};
    sim::generate_host(fabric_of({ln}), root.string());
    EXPECT_EQ(read("sys/class/fc_host/host0/permanent_port_name"), "0x2100000000000021\n");
    EXPECT_EQ(read("sys/class/fc_host/host0/symbolic_name"), "sim\tport");
}

TEST_F(HostSysfsGen, UnusableNamesAreRejected) {
    for (const char* name : {"", ".", "..", "a/b"}) {
        sim::LocalNode ln = lnode(0x21);
        ln.sysfs_attrs = {{name, "x"}};
        EXPECT_THROW(sim::generate_host(fabric_of({ln}), root.string()), std::runtime_error) << name;
    }
    sim::LocalNode ln = lnode(0x21);
    sim::RemoteNode t = rnode(0x51);
    t.luns.push_back(lun(0, "../sdb"));
    ln.rnodes.push_back(t);
    EXPECT_THROW(sim::generate_host(fabric_of({ln}), root.string()), std::runtime_error);
}

TEST_F(HostSysfsGen, DuplicateLunNumberIsRejected) {
    sim::LocalNode ln = lnode(0x21);
    sim::RemoteNode t = rnode(0x51);
    t.luns = {lun(4), lun(4)};
    ln.rnodes.push_back(t);
    try {
        sim::generate_host(fabric_of({ln}), root.string());
        FAIL() << "no error";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("0:0:0:4"), std::string::npos) << e.what();
    }
}

TEST_F(HostSysfsGen, PortStatesFollowTheDriverState) {
    sim::LocalNode ready = lnode(0x21);
    sim::LocalNode offline = lnode(0x22);
    offline.state = "OFFLINE";
    sim::LocalNode uninit = lnode(0x23);
    uninit.state = "UNINIT";
    sim::LocalNode other = lnode(0x24);
    other.state = "WEIRD";
    sim::RemoteNode gone = rnode(0x51);
    gone.state = "OFFLINE";
    ready.rnodes.push_back(gone);
    sim::generate_host(fabric_of({ready, offline, uninit, other}), root.string());
    EXPECT_EQ(read("sys/class/fc_host/host0/port_state"), "Online\n");
    EXPECT_EQ(read("sys/class/fc_host/host1/port_state"), "Offline\n");
    EXPECT_EQ(read("sys/class/fc_host/host2/port_state"), "Linkdown\n");
    EXPECT_EQ(read("sys/class/fc_host/host3/port_state"), "Unknown\n");
    EXPECT_EQ(read("sys/class/fc_host/host0/device/rport-0:0-0/fc_remote_ports:rport-0:0-0/port_state"),
              "Offline\n");
}

TEST_F(HostSysfsGen, HbaConfRegistersThePlugin) {
    sim::HostOptions opt;
    opt.plugin_path = "/opt/mirvak/lib/libmirvakhbaapi.so";
    sim::generate_host(fabric_of({}), root.string(), opt);
    EXPECT_EQ(read("etc/hba.conf"),
              "# HBA API plug-in libraries of the simulated host: name, tab, path\n"
              "com.mirvak.fcoe\t/opt/mirvak/lib/libmirvakhbaapi.so\n");

    opt.plugin_name = "org.example.other";
    sim::generate_host(fabric_of({}), root.string(), opt);
    EXPECT_EQ(read("etc/hba.conf"),
              "# HBA API plug-in libraries of the simulated host: name, tab, path\n"
              "org.example.other\t/opt/mirvak/lib/libmirvakhbaapi.so\n");

    opt.plugin_name = "two words";
    EXPECT_THROW(sim::generate_host(fabric_of({}), root.string(), opt), std::runtime_error);
}

TEST_F(HostSysfsGen, EmptyFabricGivesAnEmptyClassDirectory) {
    sim::generate_host(sim::Fabric{}, root.string());
    EXPECT_TRUE(fs::is_directory(fc_host));
    EXPECT_TRUE(tree().empty());
}

TEST_F(HostSysfsGen, RegeneratingReplacesTheTreeOnly) {
    sim::generate_host(fabric_of({lnode(0x21), lnode(0x22)}), root.string());
    fs::create_directories(root / "keep");
    std::ofstream(root / "keep" / "file") << "kept";
    std::ofstream(root / "etc" / "stale") << "old";

    sim::generate_host(fabric_of({lnode(0x23, 9)}), root.string());
    EXPECT_EQ(hosts(), (std::set<std::string>{"host9"}));
    EXPECT_FALSE(fs::exists(root / "etc" / "stale"));
    EXPECT_EQ(read("keep/file"), "kept");
}

TEST_F(HostSysfsGen, FileSystemFailureNamesThePath) {
    const fs::path blocker = root / "not-a-folder";
    std::ofstream(blocker) << "x";
    try {
        sim::generate_host(fabric_of({lnode(0x21)}), blocker.string());
        FAIL() << "no error";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find(blocker.string()), std::string::npos) << e.what();
    }
    EXPECT_THROW(sim::generate_host(fabric_of({}), ""), std::runtime_error);
}

}  // namespace
