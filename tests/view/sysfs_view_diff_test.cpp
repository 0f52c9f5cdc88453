// The per-request sysfs view changes nothing callers can see: on the same
// simulated host, the snapshot bytes, the FCP target mappings, the LUN
// records, the result codes and everything printed on standard output and
// standard error are the same with the view as without it.
//
// This program is built from the plug-in's own sources (not linked to the
// shared object) so that it can reach the test-only switch that turns the
// view off; the plug-in exports nothing for it.
//
// Fabrics: the default one; the benchmark's small and medium shapes as they
// are and its large and wide shapes cut down to a size the sanitizer run
// affords (the benchmark itself runs them at full size); and generated
// shapes with holes in the tree (missing size, vendor and port_name files,
// directories that cannot be opened or files that cannot be read, empty and
// duplicated port names, extra attributes ending in "port_name", directories
// that fail to close, LUNs without a vendor file or a block link), from a
// fixed list of seeds.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "host/sysfs_view.h"
#include "mirvak/fcp_mapping.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/instance_map.h"
#include "mirvak/mgmt.h"
#include "mirvak/mv_fcoe_ini.h"
#include "sim/fabric.h"
#include "sim/scale_fabric.h"
#include "close_fault.h"
#include "sim_env.h"

// Directories that fail to close (see close_fault.h), by inode.
namespace {
std::set<ino_t> g_fail_close;

bool chosen_to_fail(DIR* dir) {
    struct stat st {};
    return !g_fail_close.empty() && fstat(dirfd(dir), &st) == 0 && g_fail_close.count(st.st_ino) != 0;
}
}  // namespace

namespace {

namespace fs = std::filesystem;

using testenv::CaptureErr;
using testenv::CaptureOut;

constexpr uint8_t kPattern = 0xA5;

// What the requests answered, as one byte string, and what they printed.
struct Transcript {
    std::string data;
    std::string out;
    std::string err;
};

void put(std::string& data, const char* label, const void* bytes, std::size_t n) {
    data += label;
    data += ':';
    data += std::to_string(n);
    data += '=';
    data.append(static_cast<const char*>(bytes), n);
    data += '\n';
}

void put_value(std::string& data, const char* label, long long v) {
    const std::string text = std::to_string(v);
    put(data, label, text.data(), text.size());
}

// The buffer up to its last byte that is not the pattern any more.
std::size_t written_length(const std::vector<uint8_t>& buf) {
    std::size_t n = buf.size();
    while (n > 0 && buf[n - 1] == kPattern) --n;
    return n;
}

std::size_t lun_dirs(const sim::Fabric& f) {
    std::size_t n = 0;
    for (const auto& a : f.adapters)
        for (const auto& ln : a.lnodes)
            for (const auto& rn : ln.rnodes) n += rn.luns.size();
    return n;
}

vport_in key_by_wwn(const std::string& adapter, const sim::Wwn& local, const sim::Wwn& remote) {
    vport_in key;
    std::memset(&key, 0, sizeof key);
    std::snprintf(key.adapter_name, sizeof key.adapter_name, "%s", adapter.c_str());
    std::memcpy(key.vport_wwpn, local.data(), 8);
    std::memcpy(key.rport_wwpn, remote.data(), 8);
    return key;
}

vport_in key_by_index(const std::string& adapter, uint16_t port, uint16_t rport) {
    vport_in key;
    std::memset(&key, 0, sizeof key);
    std::snprintf(key.adapter_name, sizeof key.adapter_name, "%s", adapter.c_str());
    key.port_num = port;
    key.rport_index = rport;
    return key;
}

void facade_block(std::string& data, const char* label, int rc, char* buf, unsigned int size) {
    put_value(data, label, rc);
    if (rc == FCOE_OK && buf != nullptr) put(data, label, buf, size);
    std::free(buf);
}

// The LUN queries of the facade and of the extended interface for one pair
// of ports, by WWN, and (for a physical port) by port and target index.
void lun_queries(std::string& data, MvFCoEIni& facade, HBA_HANDLE handle, const std::string& adapter,
                 const sim::Wwn& local, const sim::Wwn& remote, bool physical, uint16_t port, uint16_t rport) {
    vport_in by_wwn = key_by_wwn(adapter, local, remote);
    char* buf = nullptr;
    unsigned int size = 0;
    int rc = facade.GetLunInfo(&by_wwn, &buf, &size);
    facade_block(data, "GetLunInfo/wwn", rc, buf, size);
    buf = nullptr;
    rc = facade.GetVPortLunInfo(&by_wwn, &buf, &size);
    facade_block(data, "GetVPortLunInfo/wwn", rc, buf, size);

    lun_info* grown = nullptr;
    unsigned int grown_count = 0;
    const HBA_UINT32 st = mirvak_GetKXVPortLunInfo_by_wwn(handle, by_wwn.vport_wwpn, by_wwn.rport_wwpn, &grown,
                                                          &grown_count);
    put_value(data, "GetKXVPortLunInfo_by_wwn", st);
    if (grown != nullptr) put(data, "records", grown, std::size_t{grown_count} * sizeof(lun_info));
    std::free(grown);

    std::vector<vport_in> keys{by_wwn};
    if (physical) keys.push_back(key_by_index(adapter, port, rport));
    for (vport_in& key : keys) {
        int count = -1;
        put_value(data, "GetKXLunCount", mirvak_GetKXLunCount(handle, &key, &count));
        put_value(data, "count", count);
        std::vector<uint8_t> luns((static_cast<std::size_t>(std::max(count, 0)) + 1) * sizeof(lun_info), kPattern);
        int unused = 0;
        put_value(data, "GetKXLunInfo",
                  mirvak_GetKXLunInfo(handle, &key, reinterpret_cast<lun_info*>(luns.data()), &unused));
        put(data, "records", luns.data(), written_length(luns));
    }
    if (physical) {
        vport_in key = key_by_index(adapter, port, rport);
        buf = nullptr;
        rc = facade.GetLunInfo(&key, &buf, &size);
        facade_block(data, "GetLunInfo/index", rc, buf, size);
    }
}

// Remote ports whose LUNs are asked for in every way, at most: without the
// view each such query walks every host, so on the bigger shapes they are
// spread evenly over the remote ports.
constexpr std::size_t kQueriedRemotes = 16;

// Every request the view serves, on the fabric now loaded.
std::string requests(const sim::Fabric& f) {
    std::string data;
    MvFCoEIni facade;
    unsigned int size = 0;
    void* snapshot = facade.GetFCoEAll(nullptr, &size);
    put(data, "snapshot", snapshot, snapshot != nullptr ? size : 0);
    std::free(snapshot);

    const std::size_t entries = 2 * lun_dirs(f) + 8;
    std::size_t remotes = 0;
    for (const auto& a : f.adapters)
        for (const auto& ln : a.lnodes) remotes += ln.rnodes.size();
    const std::size_t sample = std::max<std::size_t>(1, remotes / kQueriedRemotes);
    const HBA_UINT32 adapters = mirvak_GetNumberOfAdapters();
    std::size_t remote_no = 0;
    for (HBA_UINT32 i = 0; i < adapters && i < f.adapters.size(); ++i) {
        char name[256] = {};
        if (mirvak_GetAdapterName(i, name) != HBA_STATUS_OK) continue;
        const HBA_HANDLE handle = mirvak_OpenAdapter(name);
        put_value(data, "handle", handle == 0xFFFFFFFFu ? -1 : 0);
        if (handle == 0xFFFFFFFFu) continue;

        std::vector<uint8_t> v1(4 + entries * sizeof(MV_FCPSCSIENTRY), kPattern);
        std::memset(v1.data(), 0, 4);
        put_value(data, "mapping v1", mirvak_GetFCPTargetMappingv1(handle, reinterpret_cast<MV_FCPTARGETMAPPING*>(v1.data())));
        put(data, "entries", v1.data(), written_length(v1));

        const sim::Adapter& a = f.adapters[i];
        uint16_t physical_no = 0;
        for (const sim::LocalNode& ln : a.lnodes) {
            const bool physical = !ln.parent.has_value();
            // A virtual port's WWN selects its physical port in these two
            // (they compare the last bytes): asked for physical ports only.
            HBA_WWN wwn;
            std::memcpy(wwn.wwn, ln.port_wwn.data(), 8);
            if (physical) {
                std::vector<uint8_t> v2(4 + entries * sizeof(MV_FCPSCSIENTRYV2), kPattern);
                std::memset(v2.data(), 0, 4);
                put_value(data, "mapping v2",
                          mirvak_GetFCPTargetMappingv2(handle, wwn,
                                                       reinterpret_cast<MV_FCPTARGETMAPPINGV2*>(v2.data())));
                put(data, "entries", v2.data(), written_length(v2));
                for (uint64_t lun : {0ull, 1ull}) {
                    for (HBA_UINT32 first : {0u, 1u}) {
                        if (first != 0 && lun != 0) break;
                        char out[256] = {};
                        const int rc = GetDeviceFromFCPLunOrPortWWN(handle, lun << 48, 0, wwn, wwn, out, first);
                        put_value(data, "device", rc);
                        put(data, "path", out, sizeof out);
                    }
                }
            }            uint16_t target_no = 0;
            for (const sim::RemoteNode& rn : ln.rnodes) {
                if ((remote_no++ % sample) == 0)
                    lun_queries(data, facade, handle, name, ln.port_wwn, rn.port_wwn, physical, physical_no,
                                target_no);
                ++target_no;
            }
            if (physical) ++physical_no;
        }
        mirvak_CloseAdapter(handle);
    }
    return data;
}

class SysfsViewDiff : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        testenv::FailCloseWhen(chosen_to_fail);
    }
    void TearDown() override {
        testenv::FailCloseWhen(nullptr);
        g_fail_close.clear();
        mv::host::set_view_enabled_for_tests(true);
        SimTest::TearDown();
    }

    Transcript Observe(const sim::Fabric& f, bool view) {
        mv::host::set_view_enabled_for_tests(view);
        Transcript t;
        t.err = CaptureErr([&] { t.out = CaptureOut([&] { t.data = requests(f); }); });
        mv::host::set_view_enabled_for_tests(true);
        return t;
    }

    // Both ways on the host now written; the transcripts must be equal.
    void Compare(const sim::Fabric& f) {
        const Transcript without = Observe(f, false);
        const Transcript with = Observe(f, true);
        EXPECT_FALSE(without.data.empty());
        EXPECT_TRUE(with.data == without.data) << "answers differ (" << with.data.size() << " and "
                                               << without.data.size() << " bytes)";
        EXPECT_EQ(with.out, without.out);
        EXPECT_EQ(with.err, without.err);
    }

    void Load(const sim::Fabric& f) { UseFabric(sim::fabric_to_json(f).dump()); }
};

TEST_F(SysfsViewDiff, DefaultFabric) {
    UseDefaultFabric();
    Compare(sim::parse_fabric_text(sim::default_fabric_text(), "<default>"));
}

// The benchmark's shapes (adapters x ports x virtual ports x targets x
// LUNs): small and medium as they are; large (4 x 2 x 16 x 32 x 8) and the
// wide ones (4 x 2 x 32/64/128 x 8 x 2) with fewer adapters, virtual ports
// and targets, keeping their character (many targets with many LUNs; many
// virtual ports with few targets). The benchmark runs them at full size.
class SysfsViewShapes : public SysfsViewDiff {
protected:
    void Shape(const sim::ScaleParams& p) {
        const sim::Fabric f = sim::scale_fabric(p);
        Load(f);
        Compare(f);
    }
};

TEST_F(SysfsViewShapes, Small) { Shape({1, 1, 1, 2, 2}); }
TEST_F(SysfsViewShapes, Medium) { Shape({2, 2, 4, 8, 4}); }
TEST_F(SysfsViewShapes, LargeCutDown) { Shape({1, 2, 2, 12, 4}); }
TEST_F(SysfsViewShapes, WideCutDown) { Shape({1, 1, 16, 4, 2}); }

// ---- generated shapes with holes ----

class Holes {
public:
    explicit Holes(unsigned seed) : rng_(seed) {}

    bool chance(int percent) { return std::uniform_int_distribution<int>(0, 99)(rng_) < percent; }
    uint32_t between(uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(rng_); }
    template <class T>
    T& pick(std::vector<T>& v) {
        return v[std::uniform_int_distribution<std::size_t>(0, v.size() - 1)(rng_)];
    }

    // A small scale fabric with LUNs that the walk treats specially.
    sim::Fabric fabric() {
        sim::ScaleParams p{between(1, 2), between(1, 2), between(0, 3), between(1, 4), between(1, 3)};
        sim::Fabric f = sim::scale_fabric(p);
        for (auto& a : f.adapters)
            for (auto& ln : a.lnodes)
                for (auto& rn : ln.rnodes)
                    for (auto& lun : rn.luns) {
                        if (chance(5)) lun.has_vendor = false;
                        if (chance(5)) lun.block_link = false;
                        if (chance(5)) lun.block.clear();
                        if (chance(5)) lun.vendor_text = "TWO WORDS\n";
                        if (chance(5)) lun.size_text = "not a number";
                    }
        return f;
    }

    // Holes made in the written tree.
    void punch(const fs::path& root) {
        std::vector<fs::path> remote_names, host_names, vendors, sizes, hosts, rports, targets, luns;
        for (auto it = fs::recursive_directory_iterator(root / "sys/class/fc_host"); it != fs::end(it); ++it) {
            const fs::path& p = it->path();
            const std::string name = p.filename().string();
            if (it->is_directory(ec_)) {
                if (name.rfind("host", 0) == 0) hosts.push_back(p);
                else if (name.rfind("rport-", 0) == 0) rports.push_back(p);
                else if (name.rfind("target", 0) == 0) targets.push_back(p);
                else if (std::count(name.begin(), name.end(), ':') == 3) luns.push_back(p);
            } else if (name == "port_name") {
                // As many holes at the hosts as at the remote ports.
                (p.parent_path().filename().string().rfind("host", 0) == 0 ? host_names : remote_names).push_back(p);
            } else if (name == "vendor") {
                vendors.push_back(p);
            } else if (name == "size") {
                sizes.push_back(p);
            }
        }
        const int holes = static_cast<int>(between(1, 6));
        for (int i = 0; i < holes; ++i) {
            std::vector<fs::path>& port_names = chance(50) || remote_names.empty() ? host_names : remote_names;
            switch (between(0, 12)) {
            case 0:  // a missing port_name (host or remote port)
                if (!port_names.empty()) fs::remove(pick(port_names), ec_);
                break;
            case 1:  // a missing vendor
                if (!vendors.empty()) fs::remove(pick(vendors), ec_);
                break;
            case 2:  // a missing size
                if (!sizes.empty()) fs::remove(pick(sizes), ec_);
                break;
            case 3:  // a duplicated WWN: one port_name copied over another
                if (port_names.size() > 1)
                    fs::copy_file(pick(port_names), pick(port_names), fs::copy_options::overwrite_existing,
                                  ec_);
                break;
            case 4:  // an empty port_name
                if (!port_names.empty()) std::ofstream(pick(port_names), std::ios::trunc);
                break;
            case 5:  // a port_name that opens but cannot be read
                if (!port_names.empty()) {
                    const fs::path p = pick(port_names);
                    fs::remove(p, ec_);
                    fs::create_directory(p, ec_);
                }
                break;
            case 6:  // a directory that cannot be opened (a file in its place)
                replace_with_file(luns.empty() ? targets : luns);
                break;
            case 7:
                replace_with_file(chance(50) ? rports : targets);
                break;
            case 8:  // a directory that cannot be opened (a link to itself)
                if (!luns.empty()) {
                    const fs::path p = pick(luns);
                    fs::remove_all(p, ec_);
                    fs::create_symlink(p.filename(), p, ec_);
                }
                break;
            case 9:  // another attribute ending in "port_name": the host is walked again
                if (!hosts.empty()) std::ofstream(pick(hosts) / "fabric_port_name") << "0x0\n";
                break;
            case 10:  // a host directory that cannot be opened
                replace_with_file(hosts);
                break;
            case 12:  // a port_name listed but not there (a dangling link)
                if (!port_names.empty()) {
                    const fs::path p = pick(port_names);
                    fs::remove(p, ec_);
                    fs::create_symlink("gone", p, ec_);
                }
                break;
            case 11: {  // a directory that cannot be closed
                std::vector<fs::path>& dirs = chance(30) ? hosts : chance(50) ? targets : luns;
                struct stat st {};
                if (!dirs.empty() && stat(pick(dirs).c_str(), &st) == 0) g_fail_close.insert(st.st_ino);
                break;
            }
            }
        }
    }

private:
    void replace_with_file(std::vector<fs::path>& dirs) {
        if (dirs.empty()) return;
        const fs::path p = pick(dirs);
        fs::remove_all(p, ec_);
        std::ofstream(p) << "x\n";
    }

    std::mt19937 rng_;
    std::error_code ec_;
};

TEST_F(SysfsViewDiff, GeneratedShapesWithHoles) {
    for (unsigned seed : {1u, 2u, 3u, 5u, 8u, 13u, 21u, 34u, 55u, 89u, 144u, 233u}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        g_fail_close.clear();
        Holes holes(seed);
        const sim::Fabric f = holes.fabric();
        Load(f);
        holes.punch(root());
        Compare(f);
    }
}

}  // namespace
