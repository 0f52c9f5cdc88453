// The built-in default fabric shows every feature of the simulation.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "fabric.h"

namespace {

class DefaultFabric : public ::testing::Test {
protected:
    const sim::Fabric f = sim::parse_fabric_text(sim::default_fabric_text(), "<default>");

    template <class Pred>
    std::size_t CountLnodes(Pred pred) const {
        std::size_t n = 0;
        for (const auto& a : f.adapters) n += std::count_if(a.lnodes.begin(), a.lnodes.end(), pred);
        return n;
    }
    template <class Pred>
    std::size_t CountRnodes(Pred pred) const {
        std::size_t n = 0;
        for (const auto& a : f.adapters) {
            for (const auto& l : a.lnodes) n += std::count_if(l.rnodes.begin(), l.rnodes.end(), pred);
        }
        return n;
    }
};

TEST_F(DefaultFabric, HasTwoAdaptersAtNonAdjacentInstances) {
    ASSERT_EQ(f.adapters.size(), 2u);
    EXPECT_EQ(f.adapters[0].instance, 1u);
    EXPECT_EQ(f.adapters[1].instance, 4u);
}

TEST_F(DefaultFabric, HardwareTextsAndFirmwareFieldsDiffer) {
    const sim::Hw& a = f.adapters[0].hw;
    const sim::Hw& b = f.adapters[1].hw;
    EXPECT_EQ(a.manufacturer, "Mirvak");
    EXPECT_NE(a.model, b.model);
    EXPECT_NE(a.serial_num, b.serial_num);
    // Four packed fields, all different, and a non-zero top nibble that the
    // plug-in masks away.
    EXPECT_EQ(a.fw_version, 0x52030A11u);
    EXPECT_EQ(b.fw_version, 0x6104020Cu);
    EXPECT_NE(a.optrom_version, 0u);
    EXPECT_NE(a.vendor_id, 0u);
}

TEST_F(DefaultFabric, PortSpeedsIncludeOneOutsideTheSpeedTableAndADisabledPort) {
    std::set<uint16_t> speeds;
    bool disabled = false;
    for (const auto& a : f.adapters) {
        EXPECT_GE(a.hw.ports.size(), 2u);
        for (const auto& p : a.hw.ports) {
            speeds.insert(p.speed);
            disabled = disabled || p.enabled == 0;
        }
    }
    EXPECT_EQ(speeds, (std::set<uint16_t>{4, 8, 10, 16, 32}));
    EXPECT_TRUE(disabled);
}

TEST_F(DefaultFabric, LocalPortsCoverEveryState) {
    EXPECT_GE(CountLnodes([](const sim::LocalNode& n) { return n.state == "READY"; }), 5u);
    EXPECT_EQ(CountLnodes([](const sim::LocalNode& n) { return n.state == "UNINIT"; }), 1u);
    // The stale port 1 entry of the first adapter, a physical port of the
    // second and one of its virtual ports.
    EXPECT_EQ(CountLnodes([](const sim::LocalNode& n) { return n.state == "OFFLINE"; }), 3u);
}

TEST_F(DefaultFabric, StaleOfflineEntryStandsJustBeforeItsLiveEntry) {
    const auto& l = f.adapters[0].lnodes;
    ASSERT_GE(l.size(), 3u);
    EXPECT_EQ(l[1].state, "OFFLINE");
    EXPECT_EQ(l[2].state, "READY");
    EXPECT_EQ(l[1].port_wwn, l[2].port_wwn);
    // The host publishes the live entry's fc_host, not the stale one's.
    EXPECT_EQ(l[1].scsi_host, std::optional<int>(-1));
    EXPECT_FALSE(l[2].scsi_host.has_value());
    EXPECT_EQ(sim::wwn_to_hex(l[2].port_wwn), "2100001b9ea10001");
}

TEST_F(DefaultFabric, TwoVirtualPortsHangOffOnePhysicalPort) {
    const auto wwpn = *sim::parse_wwn("2100001b9ea10001");
    const auto& l = f.adapters[0].lnodes;
    EXPECT_EQ(std::count_if(l.begin(), l.end(), [&](const sim::LocalNode& n) { return n.parent == wwpn; }), 2);
    for (const auto& n : l) {
        if (n.parent) {
            EXPECT_FALSE(n.rnodes.empty());
        }
    }
    EXPECT_EQ(CountLnodes([](const sim::LocalNode& n) { return n.parent.has_value(); }), 4u);
}

TEST_F(DefaultFabric, RemoteNodesShowEveryRoleSpellingAndState) {
    for (const char* role : {"Target", "TARGET", "target", "initiator"}) {
        EXPECT_GE(CountRnodes([&](const sim::RemoteNode& r) { return r.role == role; }), 1u) << role;
    }
    for (const char* state : {"READY", "OFFLINE", "DISAPPEARED", "READY_PLOGI"}) {
        EXPECT_GE(CountRnodes([&](const sim::RemoteNode& r) { return r.state == state; }), 1u) << state;
    }
}

TEST_F(DefaultFabric, TargetsHaveLunsWithDistinctBlockNames) {
    std::set<std::string> blocks;
    std::size_t luns = 0;
    for (const auto& a : f.adapters) {
        for (const auto& l : a.lnodes) {
            for (const auto& r : l.rnodes) {
                if (r.role == "initiator" || r.state == "DISAPPEARED" || r.state == "OFFLINE") continue;
                EXPECT_GE(r.luns.size(), 2u);
                EXPECT_LE(r.luns.size(), 4u);
                for (const auto& lun : r.luns) {
                    blocks.insert(lun.block);
                    ++luns;
                }
            }
        }
    }
    EXPECT_EQ(blocks.size(), luns);
    EXPECT_EQ(blocks.count("sdb"), 1u);
}

TEST_F(DefaultFabric, CountersDifferEverywhere) {
    std::vector<uint64_t> all;
    for (const auto& a : f.adapters) {
        for (const auto& l : a.lnodes) {
            all.insert(all.end(), l.words.begin(), l.words.end());
            all.insert(all.end(), l.quads.begin(), l.quads.end());
            for (const auto& r : l.rnodes) all.insert(all.end(), r.words.begin(), r.words.end());
        }
    }
    const std::set<uint64_t> values(all.begin(), all.end());
    EXPECT_EQ(values.size(), all.size());
    EXPECT_EQ(values.count(0), 0u);
}

TEST_F(DefaultFabric, FcfsDifferInVlanAndFabricName) {
    for (const auto& a : f.adapters) {
        ASSERT_GE(a.fcfs.size(), 2u);
        EXPECT_NE(a.fcfs[0].vlan, a.fcfs[1].vlan);
        EXPECT_NE(a.fcfs[0].fabric_name, a.fcfs[1].fabric_name);
    }
}

}  // namespace
