// Large fabrics made to measure: counts, names, limits, the description
// they make, and that the simulated driver and host take them (LUN
// discovery finds every LUN); and the program mirvak-simscale.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "fabric.h"
#include "mirvak/driver_records.h"
#include "mirvak/host_view.h"
#include "mirvak/tuskstor.h"
#include "run_command.h"
#include "scale_fabric.h"
#include "sim_env.h"
#include "tusksim.h"

namespace {

namespace fs = std::filesystem;
using sim::ScaleParams;

ScaleParams Params(uint32_t adapters, uint32_t ports, uint32_t vports, uint32_t targets, uint32_t luns) {
    ScaleParams p;
    p.adapters = adapters;
    p.ports = ports;
    p.vports = vports;
    p.targets = targets;
    p.luns = luns;
    return p;
}

uint64_t Num(const sim::Wwn& w) {
    uint64_t v = 0;
    for (const uint8_t b : w) v = (v << 8) | b;
    return v;
}

std::string Error(const ScaleParams& p) {
    try {
        sim::scale_fabric(p);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "(no error)";
}

// ---- Names and counts

TEST(ScaleFabric, BlockDevicesAreNamedAsTheDiskDriverNamesThem) {
    EXPECT_EQ(sim::block_device_name(0), "sda");
    EXPECT_EQ(sim::block_device_name(1), "sdb");
    EXPECT_EQ(sim::block_device_name(25), "sdz");
    EXPECT_EQ(sim::block_device_name(26), "sdaa");
    EXPECT_EQ(sim::block_device_name(27), "sdab");
    EXPECT_EQ(sim::block_device_name(701), "sdzz");
    EXPECT_EQ(sim::block_device_name(702), "sdaaa");
    EXPECT_EQ(sim::block_device_name(18277), "sdzzz");
    EXPECT_EQ(sim::block_device_name(18278), "sdaaaa");
}

TEST(ScaleFabric, HasAsManyOfEachAsAsked) {
    const ScaleParams p = Params(3, 2, 4, 5, 6);
    const sim::Fabric f = sim::scale_fabric(p);
    ASSERT_EQ(f.adapters.size(), 3u);
    uint64_t physical = 0, virtual_ports = 0, targets = 0, luns = 0;
    for (std::size_t a = 0; a < f.adapters.size(); ++a) {
        const sim::Adapter& ad = f.adapters[a];
        EXPECT_EQ(ad.instance, a);
        EXPECT_EQ(ad.hw.ports.size(), 2u);
        EXPECT_EQ(ad.fcfs.size(), 2u);
        ASSERT_EQ(ad.lnodes.size(), 2u + 2u * 4u);
        for (const sim::LocalNode& ln : ad.lnodes) {
            (ln.parent ? virtual_ports : physical) += 1;
            EXPECT_EQ(ln.rnodes.size(), 5u);
            for (const sim::RemoteNode& rn : ln.rnodes) {
                ++targets;
                EXPECT_EQ(rn.role, "target");
                ASSERT_EQ(rn.luns.size(), 6u);
                for (std::size_t l = 0; l < rn.luns.size(); ++l) EXPECT_EQ(rn.luns[l].lun, l);
                luns += rn.luns.size();
            }
        }
    }
    EXPECT_EQ(physical, 6u);
    EXPECT_EQ(virtual_ports, 24u);
    EXPECT_EQ(targets, 150u);
    EXPECT_EQ(luns, 900u);
    const sim::ScaleCounts c = sim::scale_counts(p);
    EXPECT_EQ(c.physical_ports, 6u);
    EXPECT_EQ(c.virtual_ports, 24u);
    EXPECT_EQ(c.targets, 150u);
    EXPECT_EQ(c.luns, 900u);
}

TEST(ScaleFabric, PhysicalPortsComeFirstThenTheVirtualPortsOfEachPort) {
    const sim::Fabric f = sim::scale_fabric(Params(2, 2, 2, 1, 1));
    const auto& l = f.adapters[1].lnodes;
    ASSERT_EQ(l.size(), 6u);
    EXPECT_EQ(sim::wwn_to_hex(l[0].port_wwn), "2100001b9e010000");
    EXPECT_EQ(sim::wwn_to_hex(l[0].node_wwn), "2000001b9e010000");
    EXPECT_EQ(sim::wwn_to_hex(l[1].port_wwn), "2100001b9e010001");
    EXPECT_EQ(sim::wwn_to_hex(l[2].port_wwn), "2801001b9e010000");
    EXPECT_EQ(sim::wwn_to_hex(l[2].node_wwn), "2901001b9e010000");
    EXPECT_EQ(sim::wwn_to_hex(l[3].port_wwn), "2802001b9e010000");
    EXPECT_EQ(sim::wwn_to_hex(l[4].port_wwn), "2801001b9e010001");
    EXPECT_EQ(sim::wwn_to_hex(l[5].port_wwn), "2802001b9e010001");
    for (std::size_t k = 0; k < 2; ++k) {
        EXPECT_FALSE(l[k].parent.has_value());
        EXPECT_EQ(l[k].port_num, k);
    }
    EXPECT_EQ(l[2].parent, l[0].port_wwn);
    EXPECT_EQ(l[5].parent, l[1].port_wwn);
    EXPECT_EQ(l[5].port_num, 1);
    EXPECT_EQ(l[5].fcf_index, 2u);
    for (std::size_t k = 0; k < l.size(); ++k) EXPECT_EQ(l[k].lnode_id, k + 1);
    EXPECT_EQ(sim::wwn_to_hex(l[5].rnodes[0].port_wwn), "5000000101020000");
    EXPECT_EQ(sim::wwn_to_hex(l[5].rnodes[0].node_wwn), "5100000101020000");
    EXPECT_EQ(f.adapters[1].hw.model, "MVF-SCALE");
    EXPECT_EQ(f.adapters[1].fcfs[1].fcf_index, 2u);
    EXPECT_EQ(f.adapters[1].fcfs[1].vlan, 101);
}

TEST(ScaleFabric, EveryWwnAndBlockDeviceIsUnique) {
    const sim::Fabric f = sim::scale_fabric(Params(4, 3, 5, 7, 3));
    std::set<uint64_t> wwns;
    std::set<std::string> blocks;
    std::size_t named = 0, luns = 0;
    for (const sim::Adapter& a : f.adapters) {
        std::set<uint8_t> last_bytes;
        for (const sim::LocalNode& ln : a.lnodes) {
            wwns.insert(Num(ln.port_wwn));
            wwns.insert(Num(ln.node_wwn));
            named += 2;
            if (!ln.parent) last_bytes.insert(ln.port_wwn[7]);
            for (const sim::RemoteNode& rn : ln.rnodes) {
                wwns.insert(Num(rn.port_wwn));
                wwns.insert(Num(rn.node_wwn));
                named += 2;
                for (const sim::Lun& lun : rn.luns) {
                    ++luns;
                    EXPECT_FALSE(lun.block.empty());
                    EXPECT_TRUE(lun.block_link);
                    EXPECT_TRUE(lun.block_dir);
                    EXPECT_TRUE(lun.has_vendor);
                    blocks.insert(lun.block);
                }
            }
        }
        // The physical ports of an adapter differ in their last byte.
        EXPECT_EQ(last_bytes.size(), 3u);
    }
    EXPECT_EQ(wwns.size(), named);
    EXPECT_EQ(wwns.count(0), 0u);
    EXPECT_EQ(blocks.size(), luns);
    EXPECT_EQ(luns, 4u * 3u * 6u * 7u * 3u);
}

TEST(ScaleFabric, NothingAskedNothingMade) {
    EXPECT_TRUE(sim::scale_fabric(Params(0, 2, 2, 2, 2)).adapters.empty());
    EXPECT_EQ(sim::scale_fabric_json(Params(0, 1, 1, 1, 1)).dump(), R"({"adapters":[]})");
    const sim::Fabric f = sim::scale_fabric(Params(1, 1, 1, 0, 4));
    ASSERT_EQ(f.adapters[0].lnodes.size(), 2u);
    EXPECT_TRUE(f.adapters[0].lnodes[1].rnodes.empty());
}

// ---- Limits

TEST(ScaleFabric, ParametersBeyondTheirLimitsAreRefused) {
    EXPECT_EQ(Error(Params(33, 1, 0, 1, 1)), "scale fabric: adapters 33 beyond 32");
    EXPECT_EQ(Error(Params(1, 68, 0, 1, 1)), "scale fabric: ports 68 beyond 67");
    EXPECT_EQ(Error(Params(1, 1, 129, 1, 1)), "scale fabric: vports 129 beyond 128");
    EXPECT_EQ(Error(Params(1, 1, 0, 65537, 1)), "scale fabric: targets 65537 beyond 65536");
    EXPECT_EQ(Error(Params(1, 1, 0, 1, 16385)), "scale fabric: luns 16385 beyond 16384");
    EXPECT_EQ(Error(Params(32, 67, 128, 65536, 16384)), "scale fabric: 296971218714624 LUNs beyond 1048576");
    EXPECT_EQ(Error(Params(1, 1, 0, 1024, 1025)), "scale fabric: 1049600 LUNs beyond 1048576");
}

TEST(ScaleFabric, LimitsThemselvesAreAccepted) {
    EXPECT_EQ(sim::scale_fabric(Params(32, 1, 0, 1, 1)).adapters.size(), 32u);
    EXPECT_EQ(sim::scale_fabric(Params(1, 67, 0, 1, 1)).adapters[0].lnodes.size(), 67u);
    EXPECT_EQ(sim::scale_fabric(Params(1, 1, 128, 0, 1)).adapters[0].lnodes.size(), 129u);
    EXPECT_EQ(sim::scale_counts(Params(1, 1, 0, 1024, 1024)).luns, sim::kMaxScaleLuns);
}

// ---- Several paths

ScaleParams Paths(ScaleParams p, uint32_t paths) {
    p.paths = paths;
    return p;
}

std::string Hex(const std::vector<uint8_t>& bytes) {
    std::string out;
    char b[4];
    for (const uint8_t x : bytes) {
        std::snprintf(b, sizeof b, "%02x", x);
        out += b;
    }
    return out;
}

// A LUN's identity as a host reader sees it: designators, serial, vendor,
// product, size.
std::string Identity(const sim::Lun& l) {
    std::string out = l.serial + "/" + l.vendor + "/" + l.product + "/" + std::to_string(l.size);
    for (const sim::Designator& d : l.designators)
        out += "/" + std::to_string(d.code_set) + "." + std::to_string(d.type) + "." + std::to_string(d.association) +
               "." + Hex(d.id);
    return out;
}

TEST(ScaleFabric, OnePathKeepsTheHostsMadeUpIdentities) {
    const sim::Fabric f = sim::scale_fabric(Params(2, 2, 1, 2, 2));
    EXPECT_TRUE(f == sim::scale_fabric(Paths(Params(2, 2, 1, 2, 2), 1)));
    for (const sim::Adapter& a : f.adapters)
        for (const sim::LocalNode& ln : a.lnodes)
            for (const sim::RemoteNode& rn : ln.rnodes)
                for (const sim::Lun& l : rn.luns) {
                    EXPECT_TRUE(l.designators.empty());
                    EXPECT_TRUE(l.serial.empty());
                }
}

TEST(ScaleFabric, TwoPathsShowEachLunThroughAPortOfEachAdapter) {
    // Two adapters of one port each, with a virtual port each: adapter 0's
    // port and adapter 1's port are the two paths, and so are their
    // virtual ports.
    const sim::Fabric f = sim::scale_fabric(Paths(Params(2, 1, 1, 2, 2), 2));
    for (std::size_t k = 0; k < 2; ++k) {
        const sim::LocalNode& first = f.adapters[0].lnodes[k];
        const sim::LocalNode& second = f.adapters[1].lnodes[k];
        ASSERT_EQ(first.rnodes.size(), 2u);
        for (std::size_t t = 0; t < 2; ++t) {
            EXPECT_NE(first.rnodes[t].port_wwn, second.rnodes[t].port_wwn);
            for (std::size_t l = 0; l < 2; ++l) {
                const sim::Lun& a = first.rnodes[t].luns[l];
                const sim::Lun& b = second.rnodes[t].luns[l];
                EXPECT_EQ(Identity(a), Identity(b));
                EXPECT_EQ(a.lun, b.lun);
                EXPECT_NE(a.block, b.block);
            }
        }
    }
    // The identity of the first path: its target's serial, and the
    // identity's number (virtual-port slot 1, target 1, LUN 1: 7) in the
    // designator.
    const sim::Lun& l = f.adapters[1].lnodes[1].rnodes[1].luns[1];
    EXPECT_EQ(l.serial, "SIM5000000000010001L1");
    ASSERT_EQ(l.designators.size(), 1u);
    EXPECT_EQ(l.designators[0].code_set, 1);
    EXPECT_EQ(l.designators[0].type, 3);
    EXPECT_EQ(l.designators[0].association, 0);
    EXPECT_EQ(Hex(l.designators[0].id), "5a06c5e000000007");
    EXPECT_EQ(sim::wwn_to_hex(f.adapters[1].lnodes[1].rnodes[1].port_wwn), "5000000100010001");
}

TEST(ScaleFabric, PortsOfAGroupLieOnDifferentAdapters) {
    // Four physical ports in two groups: port 0 of both adapters, port 1 of both.
    const sim::Fabric f = sim::scale_fabric(Paths(Params(2, 2, 0, 1, 1), 2));
    const auto id = [&](std::size_t a, std::size_t p) { return Identity(f.adapters[a].lnodes[p].rnodes[0].luns[0]); };
    EXPECT_EQ(id(0, 0), id(1, 0));
    EXPECT_EQ(id(0, 1), id(1, 1));
    EXPECT_NE(id(0, 0), id(0, 1));
    // One adapter of two ports: its two ports.
    const sim::Fabric g = sim::scale_fabric(Paths(Params(1, 2, 0, 1, 1), 2));
    EXPECT_EQ(Identity(g.adapters[0].lnodes[0].rnodes[0].luns[0]), Identity(g.adapters[0].lnodes[1].rnodes[0].luns[0]));
}

TEST(ScaleFabric, EveryIdentityHasExactlyItsPaths) {
    for (const uint32_t paths : {2u, 3u, 6u}) {
        SCOPED_TRACE(paths);
        const ScaleParams p = Paths(Params(3, 2, 2, 3, 2), paths);
        const sim::Fabric f = sim::scale_fabric(p);
        std::map<std::string, std::set<std::string>> targets_of;  // identity -> target WWPNs
        std::set<std::string> designators;
        uint64_t luns = 0;
        for (const sim::Adapter& a : f.adapters)
            for (const sim::LocalNode& ln : a.lnodes)
                for (const sim::RemoteNode& rn : ln.rnodes)
                    for (const sim::Lun& l : rn.luns) {
                        ++luns;
                        targets_of[Identity(l)].insert(sim::wwn_to_hex(rn.port_wwn));
                        designators.insert(Hex(l.designators.at(0).id));
                    }
        EXPECT_EQ(luns, sim::scale_counts(p).luns);
        EXPECT_EQ(targets_of.size(), luns / paths);
        EXPECT_EQ(designators.size(), luns / paths);
        for (const auto& [identity, targets] : targets_of) EXPECT_EQ(targets.size(), paths) << identity;
    }
}

TEST(ScaleFabric, PathsThatDoNotDivideThePortsAreRefused) {
    EXPECT_EQ(Error(Paths(Params(1, 1, 0, 1, 1), 0)), "scale fabric: paths 0: at least 1");
    EXPECT_EQ(Error(Paths(Params(1, 1, 0, 1, 1), 2)),
              "scale fabric: paths 2 do not divide the 1 physical ports (adapters x ports)");
    EXPECT_EQ(Error(Paths(Params(2, 2, 0, 1, 1), 3)),
              "scale fabric: paths 3 do not divide the 4 physical ports (adapters x ports)");
    EXPECT_EQ(sim::scale_fabric(Paths(Params(2, 2, 0, 1, 1), 4)).adapters.size(), 2u);
}

TEST(ScaleFabric, SeveralPathsReadBackAsTheSameFabric) {
    const ScaleParams p = Paths(Params(2, 2, 1, 2, 2), 2);
    EXPECT_TRUE(sim::parse_fabric(sim::scale_fabric_json(p), "scale") == sim::scale_fabric(p));
}

// ---- The description

TEST(ScaleFabric, DescriptionReadsBackAsTheSameFabric) {
    const ScaleParams p = Params(2, 2, 3, 3, 2);
    const nlohmann::json doc = sim::scale_fabric_json(p);
    EXPECT_TRUE(sim::parse_fabric(doc, "scale") == sim::scale_fabric(p));
    EXPECT_TRUE(sim::parse_fabric_text(doc.dump(2), "scale") == sim::scale_fabric(p));
}

// ---- In the simulated driver and host

class ScaleFabricSimTest : public testenv::SimTest {};

TEST_F(ScaleFabricSimTest, DriverListsEveryPortAndTarget) {
    const ScaleParams p = Params(3, 2, 3, 4, 2);
    UseFabric(sim::scale_fabric_json(p).dump());
    for (uint32_t instance = 0; instance < 3; ++instance) {
        const uint32_t h = open_adapter(instance);
        ASSERT_NE(h, TUSK_INVALID_HANDLE);
        std::vector<lnode_info> chain;
        lnode_info n;
        uint64_t cursor = 0;
        while (tusk_get_lnode_info(h, &n, cursor) == 0 && n.lnode_handle != 0 && chain.size() < 100) {
            chain.push_back(n);
            cursor = n.lnode_handle;
        }
        ASSERT_EQ(chain.size(), 8u);
        EXPECT_EQ(chain[0].num_rnodes, 4u);
        EXPECT_EQ(chain[0].lnode_word_28, 3u);  // the physical port's virtual ports
        // The virtual ports of port 1, in order.
        std::vector<uint8_t> list(sizeof(npiv_list), 0);
        std::memcpy(list.data() + 4, chain[1].port_wwn, 8);
        ASSERT_EQ(tusk_list_npiv_port(h, list.data(), static_cast<uint32_t>(list.size())), 0);
        uint32_t count = 0;
        std::memcpy(&count, list.data(), 4);
        EXPECT_EQ(count, 3u);
        EXPECT_EQ(std::memcmp(list.data() + 20, chain[5].port_wwn, 8), 0);
        // Every target of the last virtual port.
        rnode_info r;
        uint32_t rc = 0xFFFFFFFFu;
        int targets = 0;
        while (tusk_get_rnode_info(h, &r, rc, chain[7].lnode_id) == 0 && r.rnode_index != 0xFFFFFFFFu && targets < 100) {
            ++targets;
            rc = r.rnode_index;
        }
        EXPECT_EQ(targets, 4);
        close_adapter(h);
    }
}

TEST_F(ScaleFabricSimTest, LunDiscoveryFindsEveryLunWithItsSize) {
    const ScaleParams p = Params(2, 2, 2, 3, 4);
    const sim::Fabric f = sim::scale_fabric(p);
    UseFabric(sim::scale_fabric_json(p).dump());
    uint64_t found = 0;
    std::string printed;
    for (const sim::Adapter& a : f.adapters) {
        for (const sim::LocalNode& ln : a.lnodes) {
            for (const sim::RemoteNode& rn : ln.rnodes) {
                printed += testenv::CaptureOut([&] { found += getNumLuns(Num(ln.port_wwn), Num(rn.port_wwn)); });
            }
        }
    }
    EXPECT_EQ(found, sim::scale_counts(p).luns);
    // Every size file that a reader looks for is there.
    EXPECT_EQ(printed.find("read_proc"), std::string::npos);

    // The last target of the last virtual port of the last adapter.
    const sim::LocalNode& ln = f.adapters[1].lnodes.back();
    const sim::RemoteNode& rn = ln.rnodes.back();
    lun_info* luns = nullptr;
    unsigned int count = 0;
    printed = testenv::CaptureOut([&] { getVportLuninfo(&luns, Num(ln.port_wwn), Num(rn.port_wwn), &count); });
    ASSERT_EQ(count, 4u);
    // Hosts: adapter 0 has 0..5, adapter 1 6..11; its last virtual port is
    // host 11, and the target is its third.
    EXPECT_STREQ(luns[3].hctl, "11:0:2:3");
    EXPECT_EQ(std::string(luns[3].device), "/dev/" + rn.luns[3].block);
    EXPECT_EQ(luns[3].size, 2097152u);
    EXPECT_STREQ(luns[3].vendor, "MIRVSIM");
    EXPECT_EQ(printed.find("read_proc"), std::string::npos) << printed;
    std::free(luns);
}

// ---- mirvak-simscale

std::string Program() {
    return (fs::read_symlink("/proc/self/exe").parent_path() / "mirvak-simscale").string();
}

// The program with these arguments; standard error caught too, or dropped.
testenv::CommandResult RunProgram(const std::string& args, bool with_stderr = false) {
    return testenv::RunShell(testenv::ShellQuoted(Program()) + " " + args + (with_stderr ? " 2>&1" : " 2>/dev/null"));
}

TEST(ScaleFabricProgram, PrintsTheDescription) {
    ASSERT_TRUE(fs::exists(Program())) << Program();
    const testenv::CommandResult r = RunProgram("--adapters 2 --ports 2 --vports 1 --targets 3 --luns 2");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, sim::scale_fabric_json(Params(2, 2, 1, 3, 2)).dump(2) + "\n");
}

TEST(ScaleFabricProgram, CompactIsOneLine) {
    const testenv::CommandResult r = RunProgram("--compact --targets 2");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, sim::scale_fabric_json(Params(1, 1, 0, 2, 1)).dump() + "\n");
}

TEST(ScaleFabricProgram, DefaultsAreOneAdapterPortTargetAndLun) {
    const testenv::CommandResult r = RunProgram("");
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(sim::parse_fabric_text(r.out, "out") == sim::scale_fabric(ScaleParams{}));
}

TEST(ScaleFabricProgram, RefusesParametersBeyondTheirLimits) {
    const testenv::CommandResult r = RunProgram("--vports 129", true);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "mirvak-simscale: scale fabric: vports 129 beyond 128\n");
}

TEST(ScaleFabricProgram, PathsGiveEveryLunSeveralPaths) {
    const testenv::CommandResult r = RunProgram("--adapters 2 --vports 1 --luns 2 --paths 2");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, sim::scale_fabric_json(Paths(Params(2, 1, 1, 1, 2), 2)).dump(2) + "\n");
    const testenv::CommandResult refused = RunProgram("--ports 3 --paths 2", true);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "mirvak-simscale: scale fabric: paths 2 do not divide the 3 physical ports (adapters x ports)\n");
}

TEST(ScaleFabricProgram, BadCommandLineIsTwo) {
    EXPECT_EQ(RunProgram("--luns many").status, 2);
    EXPECT_EQ(RunProgram("--colour blue").status, 2);
    EXPECT_EQ(RunProgram("--help").status, 0);
}

}  // namespace
