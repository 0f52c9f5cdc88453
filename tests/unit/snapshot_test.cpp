// The whole-system snapshot: one byte stream with every adapter, port,
// remote port, virtual port and LUN, checked byte for byte against what the
// standard face and the extended functions answer, and on every way a query
// can fail.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "mirvak/hba_plugin.h"
#include "mirvak/instance_map.h"
#include "mirvak/mgmt.h"
#include "mirvak/mv_fcoe_ini.h"
#include "mirvak/snapshot_records.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::CaptureOut;

using Bytes = std::vector<uint8_t>;

// Record sizes and field offsets as the agent reads them (written out here
// rather than taken from the library's header, which they also check).
constexpr std::size_t kHeader = 4;
constexpr std::size_t kAdapterRec = 5368;
constexpr std::size_t kPortRec = 1416;
constexpr std::size_t kRemoteRec = 1412;
constexpr std::size_t kLunRec = 1044;
constexpr HBA_HANDLE kBad = 0xFFFFFFFFu;

static_assert(sizeof(mv::snapshot::adapter_record) == kAdapterRec && sizeof(mv::snapshot::port_record) == kPortRec &&
                  sizeof(mv::snapshot::remote_record) == kRemoteRec && sizeof(mv::snapshot::lun_record) == kLunRec,
              "record sizes");

uint32_t U32(const Bytes& b, std::size_t off) {
    uint32_t v;
    std::memcpy(&v, b.data() + off, 4);
    return v;
}
void PutU32(Bytes& b, std::size_t off, uint32_t v) { std::memcpy(b.data() + off, &v, 4); }
void PutName(Bytes& b, std::size_t off, const char* name) { std::memcpy(b.data() + off, name, std::strlen(name) + 1); }
std::string Text(const Bytes& b, std::size_t off, std::size_t max) {
    return std::string(reinterpret_cast<const char*>(b.data() + off),
                       strnlen(reinterpret_cast<const char*>(b.data() + off), max));
}
bool AllZero(const Bytes& b, std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
        if (b[i] != 0) return false;
    }
    return true;
}
std::size_t Count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

struct Snapshot {
    bool null = true;
    unsigned int size = 0;
    Bytes bytes;
    std::string out;
};

// GetFCoEAll on a fresh facade object, with what it printed.
Snapshot Take() {
    Snapshot s;
    unsigned int size = 0xA5A5A5A5u;
    void* p = nullptr;
    s.out = CaptureOut([&] {
        MvFCoEIni ini;
        p = ini.GetFCoEAll(nullptr, &size);
    });
    s.size = size;
    s.null = p == nullptr;
    if (p != nullptr) {
        const auto* b = static_cast<const uint8_t*>(p);
        s.bytes.assign(b, b + size);
        std::free(p);
    }
    return s;
}

// One record of an expected stream.
struct Rec {
    char kind;  // 'A' adapter, 'P' port, 'R' remote port, 'V' virtual port, 'L' LUN
    Bytes b;
};

Bytes Join(const std::vector<Rec>& recs, uint32_t header) {
    Bytes s(kHeader);
    PutU32(s, 0, header);
    for (const Rec& r : recs) s.insert(s.end(), r.b.begin(), r.b.end());
    return s;
}

// The records the snapshot is made of, put together here from the answers
// of the standard face and the extended functions, on handles of the test's
// own, following the stream's published layout.
class Reference {
public:
    std::vector<Rec> recs;
    uint32_t header = 0;

    Bytes Build() {
        CaptureOut([&] {
            MvFCoEIni ini;  // the instance map, as the facade has it
            header = mirvak_GetNumberOfAdapters();
            for (uint32_t i = 0; i < header; ++i) Adapter(i);
        });
        return Join(recs, header);
    }

private:
    void Add(char kind, const Bytes& b) { recs.push_back({kind, b}); }

    void Adapter(uint32_t i) {
        char name[256] = {};
        if (mirvak_GetAdapterName(i, name) != 0) return;
        const HBA_HANDLE h = mirvak_OpenAdapter(name);
        if (h == kBad) return;
        HBA_ADAPTERATTRIBUTES attr;
        std::memset(&attr, 0, sizeof attr);
        adapter_info info;
        std::memset(&info, 0, sizeof info);
        if (mirvak_GetAdapterAttributes(h, &attr) == 0) {
            info.instance = static_cast<uint32_t>(getAssignedInstance(name));
            std::strcpy(info.adapter_name, name);
            info.attributes = attr;
            if (mirvak_GetKXAdapterAttributes(h, &info) == 0) {
                Bytes rec(kAdapterRec, 0);
                PutU32(rec, 0, i);
                PutU32(rec, 4, attr.NumberOfPorts);
                std::memcpy(&rec[8], &info, sizeof info);
                std::memcpy(&rec[2688], &info, sizeof info);
                if (attr.NumberOfPorts == 0) Add('A', rec);
                for (uint32_t p = 0; p < attr.NumberOfPorts; ++p) {
                    HBA_PORTATTRIBUTES pa;
                    std::memset(&pa, 0, sizeof pa);
                    if (mirvak_GetAdapterPortAttributes(h, p, &pa) != 0) {
                        PutU32(rec, 4, 0);
                        Add('A', rec);
                        break;
                    }
                    if (p == 0) Add('A', rec);
                    Port(h, name, p, pa);
                }
            }
        }
        mirvak_CloseAdapter(h);
    }

    void Port(HBA_HANDLE h, const char* name, uint32_t p, const HBA_PORTATTRIBUTES& pa) {
        port_info pi;
        std::memset(&pi, 0, sizeof pi);
        std::strcpy(pi.adapter_name, name);
        pi.port_num = p;
        pi.attributes = pa;
        if (mirvak_GetKXAdapterPortAttributes(h, p, &pi) != 0) return;
        Bytes rec(kPortRec, 0);
        PutU32(rec, 0, p);
        std::memcpy(&rec[12], &pi, sizeof pi);
        port_info key;
        std::memset(&key, 0, sizeof key);
        std::strcpy(key.adapter_name, name);
        key.port_num = p;
        std::memcpy(key.attributes.PortWWN.wwn, &rec[284], 8);
        port_stats st;
        std::memset(&st, 0, sizeof st);
        if (mirvak_GetKXPortStatistics(h, &key, &st) != 0) {
            Add('P', rec);
            return;
        }
        std::memcpy(&rec[984], &st, sizeof st);
        const uint32_t vcount = U32(rec, 939);
        const uint8_t flag = rec[938];
        const uint32_t discovered = U32(rec, 904);
        char* ports = static_cast<char*>(std::calloc(0x40000, 1));
        char* stats = static_cast<char*>(std::calloc(0x40000, 1));
        unsigned int size = 0;
        uint32_t count = 0;
        if (discovered == 0 || mirvak_GetKXDiscoveredPortAttributes_by_wwpn(h, &key, &ports, &size, &stats) != 0) {
            PutU32(rec, 8, vcount);
        } else {
            count = size / 972;
            PutU32(rec, 4, count);
            PutU32(rec, 8, flag == 0 ? vcount : 0);
        }
        Add('P', rec);
        for (uint32_t r = 0; r < count; ++r) {
            Bytes rr(kRemoteRec, 0);
            PutU32(rr, 0, r);
            std::memcpy(&rr[8], ports + r * 972, 972);
            PutName(rr, 8, name);
            std::memcpy(&rr[980], stats + r * 432, 432);
            PutName(rr, 980, name);
            PutU32(rr, 1236, p);
            PutU32(rr, 1240, r);
            vport_in vk;
            std::memset(&vk, 0, sizeof vk);
            std::strcpy(vk.adapter_name, name);
            vk.port_num = static_cast<uint16_t>(p);
            vk.rport_index = static_cast<uint16_t>(r);
            std::memcpy(vk.vport_wwpn, &rec[284], 8);
            std::memcpy(vk.rport_wwpn, &rr[280], 8);
            int n = 0;
            if (mirvak_GetKXLunCount(h, &vk, &n) != 0 || n <= 0) {
                Add('R', rr);
                continue;
            }
            std::vector<lun_info> luns(static_cast<std::size_t>(n));
            std::memset(luns.data(), 0, luns.size() * sizeof(lun_info));
            int unused = 0;
            if (mirvak_GetKXLunInfo(h, &vk, luns.data(), &unused) != 0) {
                Add('R', rr);
                continue;
            }
            PutU32(rr, 4, static_cast<uint32_t>(n));
            Add('R', rr);
            for (int j = 0; j < n; ++j) Lun(static_cast<uint32_t>(j), luns[static_cast<std::size_t>(j)], name, p, r);
        }
        std::free(ports);
        std::free(stats);
        if (flag == 0 && vcount != 0) Vports(h, name, p, rec, vcount);
    }

    void Lun(uint32_t j, const lun_info& lun, const char* name, uint32_t parent, uint32_t remote) {
        Bytes lr(kLunRec, 0);
        PutU32(lr, 0, j);
        std::memcpy(&lr[4], &lun, sizeof lun);
        PutU32(lr, 4, parent);
        PutU32(lr, 8, remote);
        PutName(lr, 532, name);
        Add('L', lr);
    }

    void Vports(HBA_HANDLE h, const char* name, uint32_t p, const Bytes& rec, uint32_t vcount) {
        std::vector<port_info> list(vcount);
        std::memset(list.data(), 0, list.size() * sizeof(port_info));
        if (mirvak_GetAllVPortsForPort(h, &rec[284], list.data(), vcount) != 0) {
            Add('V', Bytes(kRemoteRec, 0));
            return;
        }
        const uint32_t state = U32(rec, 300);
        const bool down = state == 3 || state == 6;
        for (uint32_t v = 0; v < vcount; ++v) {
            const uint8_t* wwn = list[v].attributes.PortWWN.wwn;
            Bytes vr(kRemoteRec, 0);
            PutU32(vr, 0, v);
            if (!down) std::memcpy(&vr[8], &list[v], 972);
            PutName(vr, 8, name);
            PutU32(vr, 264, p);
            PutU32(vr, 268, v);
            if (!down) {
                std::memcpy(&vr[884], &rec[888], 4);  // PortSpeed
                std::memcpy(&vr[888], &rec[892], 4);  // PortMaxFrameSize
                std::memcpy(&vr[892], &rec[896], 8);  // FabricName
                vr[939] = rec[943];                   // VLAN id
                const std::string device = Text(rec, 628, 256);
                if (!device.empty()) {
                    std::memcpy(&vr[624], device.data(), device.size());
                } else {
                    PutName(vr, 624, name);
                }
            }
            port_stats st;
            std::memset(&st, 0, sizeof st);
            const HBA_UINT32 stats_status = down ? 0 : mirvak_GetKXVPortStatistics(h, wwn, &st);
            std::memcpy(&vr[980], &st, sizeof st);
            PutName(vr, 980, name);
            PutU32(vr, 1236, p);
            PutU32(vr, 1240, v);
            if (stats_status != 0) {
                Add('V', vr);
                continue;
            }
            port_info* rp = nullptr;
            port_stats* rs = nullptr;
            unsigned int rc = 0;
            if (mirvak_GetAllRPortsForVPort(h, wwn, &rp, &rc, &rs, true) != 0 || rp == nullptr) {
                Add('V', vr);
                std::free(rp);
                std::free(rs);
                continue;
            }
            PutU32(vr, 4, rc);
            Add('V', vr);
            for (uint32_t k = 0; k < rc; ++k) {
                Bytes rr(kRemoteRec, 0);
                PutU32(rr, 0, k);
                std::memcpy(&rr[8], &rp[k], 972);
                PutName(rr, 8, name);
                PutU32(rr, 264, v);
                PutU32(rr, 268, k);
                std::memcpy(&rr[980], &rs[k], 432);
                PutName(rr, 980, name);
                PutU32(rr, 1236, v);
                PutU32(rr, 1240, k);
                lun_info* luns = nullptr;
                unsigned int lc = 0;
                const HBA_UINT32 st2 = mirvak_GetKXVPortLunInfo_by_wwn(h, wwn, &rr[280], &luns, &lc);
                if (st2 != 0 || lc == 0 || luns == nullptr) {
                    Add('R', rr);
                } else {
                    PutU32(rr, 4, lc);
                    Add('R', rr);
                    for (uint32_t j = 0; j < lc; ++j) Lun(j, luns[j], name, v, k);
                }
                std::free(luns);
            }
            std::free(rp);
            std::free(rs);
        }
    }
};

// ---- Fabrics ----

std::string Hex16(uint64_t v) {
    char buf[17];
    std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(v));
    return buf;
}

// A target with `luns` LUNs on block devices named from `tag`.
std::string Target(uint64_t wwpn, int luns, const std::string& tag, const std::string& extra = "") {
    std::string s = R"({"role":"target","port_wwn":")" + Hex16(wwpn) + R"(","node_wwn":")" + Hex16(wwpn | 0xFF) +
                    R"(","words":[)" + std::to_string(wwpn & 0xFFFF) + R"(,2,3,4,5,6,7,8,9])" + extra +
                    R"(,"luns":[)";
    for (int j = 0; j < luns; ++j) {
        if (j) s += ",";
        s += R"({"lun":)" + std::to_string(j) + R"(,"vendor":"V)" + tag + R"(","block":"sd)" + tag + "l" +
             std::to_string(j) + R"(","size":)" + std::to_string(1000 + j) + "}";
    }
    return s + "]}";
}

std::string Adapter(int instance, const std::string& ports, const std::string& lnodes, const std::string& extra = "") {
    return R"({"instance":)" + std::to_string(instance) + R"(,"hw":{"model":"MVF-T)" + std::to_string(instance) +
           R"(","serial_num":"SN)" + std::to_string(instance) + R"(","word_192":)" + std::to_string(instance * 7) +
           R"(,"block_336":"0a 0b 0c","ports":[)" + ports + R"(]},"fcfs":[{"fcf_index":5,"vlan":55,
           "fabric_name":"1000000000000005","max_frame_size":2048}],"lnodes":[)" +
           lnodes + "]" + extra + "}";
}

std::string Fabric(const std::string& adapters) { return R"({"adapters":[)" + adapters + "]}"; }

const char* kPort0 = R"({"speed":8,"mac":"00:1b:9e:00:00:00"})";
const char* kPort1 = R"({"speed":16,"mac":"00:1b:9e:00:00:01"})";

// A physical port at chain position = port number.
std::string Local(int port, uint64_t wwpn, int lnode_id, const std::string& rnodes, const std::string& extra = "") {
    return R"({"port_num":)" + std::to_string(port) + R"(,"port_wwn":")" + Hex16(wwpn) + R"(","node_wwn":")" +
           Hex16(wwpn ^ 0x0100000000000000ull) + R"(","fcf_index":5,"lnode_id":)" + std::to_string(lnode_id) +
           R"(,"mac":"0e:fc:00:00:00:0)" + std::to_string(port) + R"(","words":[11,12,13,14,15,16,17,18],
           "quads":[21,22,23,24])" + extra + R"(,"rnodes":[)" + rnodes + "]}";
}

// A virtual port of the physical port `parent`.
std::string Virtual(int port, uint64_t wwpn, uint64_t parent, int lnode_id, const std::string& rnodes,
                    const std::string& extra = "") {
    return Local(port, wwpn, lnode_id, rnodes, R"(,"parent":")" + Hex16(parent) + "\"" + extra);
}

class Snapshots : public testenv::SimTest {
protected:
    // Handles another test of this program left open are not the
    // snapshot's: count from what is open when the test starts.
    void SetUp() override {
        testenv::SimTest::SetUp();
        open_before = tusksim_open_handles();
    }
    void TearDown() override {
        // Every adapter the snapshot opened is closed again.
        EXPECT_EQ(tusksim_open_handles(), open_before);
        testenv::SimTest::TearDown();
    }

    // The snapshot of the fabric in force, and the reference built for it.
    void ExpectMatchesReference(const Snapshot& s) {
        Reference ref;
        const Bytes want = ref.Build();
        ASSERT_FALSE(s.null);
        EXPECT_EQ(s.size, want.size());
        EXPECT_TRUE(s.bytes == want) << "snapshot differs from the extended functions' answers";
    }

    // How many calls of `op` the driver saw while fn ran on an open adapter.
    uint64_t CallsDuring(const char* op, const char* adapter, const std::function<void(HBA_HANDLE)>& fn) {
        uint64_t n = 0;
        CaptureOut([&] {
            MvFCoEIni ini;
            const HBA_HANDLE h = mirvak_OpenAdapter(adapter);
            testenv::ResetCalls();
            fn(h);
            n = testenv::Calls(op);
            mirvak_CloseAdapter(h);
        });
        return n;
    }

    uint32_t open_before = 0;
};

// ---- The whole stream against the extended functions ----

TEST_F(Snapshots, DefaultFabricIsWhatTheExtendedFunctionsAnswer) {
    UseDefaultFabric();
    const Snapshot s = Take();
    ExpectMatchesReference(s);
    EXPECT_EQ(U32(s.bytes, 0), 2u);
    // Port 1 of the first adapter counts no discovered ports (its chain
    // position is the stale entry); ports 1 and 2 of the second are not live.
    EXPECT_EQ(Count(s.out, "Target Ports Not Present\n"), 1u);
    EXPECT_EQ(Count(s.out, "Local Ports statistics Not Present\n"), 2u);
    EXPECT_EQ(Count(s.out, "Allocation failed"), 0u);
}

TEST_F(Snapshots, RecordsInTraversalOrderWithTheirIndexesAndNames) {
    // Port 0: two targets (2 LUNs, none); port 1: one target (1 LUN) and a
    // virtual port with one target (2 LUNs).
    UseFabric(Fabric(Adapter(
        3, std::string(kPort0) + "," + kPort1,
        Local(0, 0x2100000000000300, 30, Target(0x5000000000000301, 2, "a") + "," + Target(0x5000000000000302, 0, "b")) +
            "," + Local(1, 0x2100000000000301, 31, Target(0x5000000000000311, 1, "c")) + "," +
            Virtual(1, 0x2800000000000301, 0x2100000000000301, 32, Target(0x5000000000000321, 2, "d")))));
    const Snapshot s = Take();
    ExpectMatchesReference(s);
    ASSERT_EQ(s.bytes.size(), kHeader + kAdapterRec + 2 * kPortRec + 5 * kRemoteRec + 5 * kLunRec);
    const char* name = "/dev/tuskstor3";
    const Bytes& b = s.bytes;
    EXPECT_EQ(U32(b, 0), 1u);

    std::size_t at = kHeader;  // adapter
    const Bytes a(b.begin() + at, b.begin() + at + kAdapterRec);
    EXPECT_EQ(U32(a, 0), 0u);
    EXPECT_EQ(U32(a, 4), 2u);
    EXPECT_EQ(U32(a, 8), 0u);  // the adapter's dense index, as the instance map gives it
    EXPECT_EQ(Text(a, 104, 256), name);
    EXPECT_EQ(Text(a, 360 + 128, 256), "MVF-T3");  // Model inside the standard attributes
    EXPECT_EQ(U32(a, 8 + 8), 21u);                  // hw_word_192
    EXPECT_TRUE(std::equal(a.begin() + 8, a.begin() + 2688, a.begin() + 2688));

    at += kAdapterRec;  // port 0
    EXPECT_EQ(U32(b, at + 0), 0u);
    EXPECT_EQ(U32(b, at + 4), 2u);
    EXPECT_EQ(U32(b, at + 8), 0u);
    EXPECT_EQ(Text(b, at + 12, 256), name);
    EXPECT_EQ(U32(b, at + 268), 0u);
    EXPECT_EQ(b[at + 284], 0x21);
    EXPECT_EQ(b[at + 291], 0x00);
    EXPECT_EQ(U32(b, at + 300), 2u);  // online
    EXPECT_EQ(U32(b, at + 904), 2u);  // discovered ports
    EXPECT_EQ(U32(b, at + 984 + 264), 13u);  // counter0: the driver word at 1417

    at += kPortRec;  // remote 0 of port 0
    EXPECT_EQ(U32(b, at + 0), 0u);
    EXPECT_EQ(U32(b, at + 4), 2u);
    EXPECT_EQ(Text(b, at + 8, 256), name);
    EXPECT_EQ(b[at + 280], 0x50);
    EXPECT_EQ(b[at + 287], 0x01);
    EXPECT_EQ(Text(b, at + 944, 32), "target");
    EXPECT_EQ(Text(b, at + 980, 256), name);
    EXPECT_EQ(U32(b, at + 1236), 0u);
    EXPECT_EQ(U32(b, at + 1240), 0u);
    for (uint32_t j = 0; j < 2; ++j) {
        const std::size_t l = at + kRemoteRec + j * kLunRec;
        EXPECT_EQ(U32(b, l + 0), j);
        EXPECT_EQ(U32(b, l + 4), 0u);  // parent port
        EXPECT_EQ(U32(b, l + 8), 0u);  // remote port
        EXPECT_EQ(Text(b, l + 532, 256), name);
    }
    at += kRemoteRec + 2 * kLunRec;  // remote 1 of port 0: no LUNs, one record with count 0
    EXPECT_EQ(U32(b, at + 0), 1u);
    EXPECT_EQ(U32(b, at + 4), 0u);
    EXPECT_EQ(b[at + 287], 0x02);
    EXPECT_EQ(U32(b, at + 1236), 0u);
    EXPECT_EQ(U32(b, at + 1240), 1u);

    at += kRemoteRec;  // port 1: one remote port, one virtual port
    EXPECT_EQ(U32(b, at + 0), 1u);
    EXPECT_EQ(U32(b, at + 4), 1u);
    EXPECT_EQ(U32(b, at + 8), 1u);
    EXPECT_EQ(U32(b, at + 268), 1u);
    EXPECT_EQ(U32(b, at + 939), 1u);  // the port's own virtual-port count (unaligned)
    const std::size_t port1 = at;

    at += kPortRec;  // its remote port and LUN
    EXPECT_EQ(U32(b, at + 4), 1u);
    EXPECT_EQ(U32(b, at + 1236), 1u);
    EXPECT_EQ(U32(b, at + kRemoteRec + 4), 1u);  // LUN's parent port
    EXPECT_EQ(U32(b, at + kRemoteRec + 8), 0u);

    at += kRemoteRec + kLunRec;  // the virtual port
    EXPECT_EQ(U32(b, at + 0), 0u);
    EXPECT_EQ(U32(b, at + 4), 1u);
    EXPECT_EQ(Text(b, at + 8, 256), name);
    EXPECT_EQ(U32(b, at + 264), 1u);  // physical port index
    EXPECT_EQ(U32(b, at + 268), 0u);
    EXPECT_EQ(b[at + 280], 0x28);
    EXPECT_EQ(U32(b, at + 1236), 1u);
    EXPECT_EQ(U32(b, at + 1240), 0u);
    // Inherited from the physical port.
    EXPECT_EQ(U32(b, at + 884), U32(b, port1 + 888));
    EXPECT_EQ(U32(b, at + 884), 19u);  // speed 16
    EXPECT_EQ(U32(b, at + 888), 2048u);
    EXPECT_TRUE(std::equal(b.begin() + at + 892, b.begin() + at + 900, b.begin() + port1 + 896));
    EXPECT_EQ(b[at + 939], 55);
    EXPECT_EQ(Text(b, at + 624, 256), Text(b, port1 + 628, 256));
    EXPECT_NE(Text(b, at + 624, 256), "");

    at += kRemoteRec;  // remote port of the virtual port, then its LUNs
    EXPECT_EQ(U32(b, at + 0), 0u);
    EXPECT_EQ(U32(b, at + 4), 2u);
    EXPECT_EQ(U32(b, at + 264), 0u);  // virtual-port index
    EXPECT_EQ(U32(b, at + 268), 0u);
    EXPECT_EQ(b[at + 287], 0x21);
    EXPECT_EQ(U32(b, at + 1236), 0u);
    EXPECT_EQ(U32(b, at + 1240), 0u);
    for (uint32_t j = 0; j < 2; ++j) {
        const std::size_t l = at + kRemoteRec + j * kLunRec;
        EXPECT_EQ(U32(b, l + 0), j);
        EXPECT_EQ(U32(b, l + 4), 0u);
        EXPECT_EQ(U32(b, l + 8), 0u);
        EXPECT_EQ(Text(b, l + 532, 256), name);
        EXPECT_EQ(Text(b, l + 4 + 272, 256), "/dev/sddl" + std::to_string(j));
    }
    EXPECT_EQ(at + kRemoteRec + 2 * kLunRec, b.size());
    EXPECT_EQ(Count(s.out, "Not Present"), 0u);
}

TEST_F(Snapshots, SizeIsTheStreamLength) {
    UseDefaultFabric();
    const Snapshot s = Take();
    ASSERT_FALSE(s.null);
    EXPECT_EQ(s.size, s.bytes.size());
    EXPECT_GT(s.size, kHeader + 2 * kAdapterRec);
}

TEST_F(Snapshots, NullSizeGivesNull) {
    UseDefaultFabric();
    void* p = reinterpret_cast<void*>(1);
    CaptureOut([&] {
        MvFCoEIni ini;
        p = ini.GetFCoEAll(nullptr, nullptr);
    });
    EXPECT_EQ(p, nullptr);
}

// ---- Edge cases ----

TEST_F(Snapshots, NoAdaptersGivesNullAndSizeZero) {
    UseFabric(R"({"adapters":[]})");
    const Snapshot s = Take();
    EXPECT_TRUE(s.null);
    EXPECT_EQ(s.size, 0u);
}

TEST_F(Snapshots, AdapterWithoutPortsIsItsRecordAlone) {
    UseFabric(Fabric(Adapter(2, "", "")));
    const Snapshot s = Take();
    ExpectMatchesReference(s);
    ASSERT_EQ(s.bytes.size(), kHeader + kAdapterRec);
    EXPECT_EQ(U32(s.bytes, kHeader + 4), 0u);
    EXPECT_EQ(Text(s.bytes, kHeader + 104, 256), "/dev/tuskstor2");
}

TEST_F(Snapshots, PortZeroFailingGivesTheAdapterRecordWithNoPorts) {
    UseFabric(Fabric(Adapter(3, std::string(kPort0) + "," + kPort1,
                             Local(0, 0x2100000000000300, 30, Target(0x5000000000000301, 1, "a")) + "," +
                                 Local(1, 0x2100000000000301, 31, ""))));
    Reference clean;
    clean.Build();
    ASSERT_EQ(clean.recs.front().kind, 'A');
    // Nothing before port 0's standard query reads the local-node chain.
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, -5, 0), 0);
    const Snapshot s = Take();
    ASSERT_FALSE(s.null);
    Bytes adapter = clean.recs.front().b;
    PutU32(adapter, 4, 0);
    EXPECT_TRUE(s.bytes == Join({{'A', adapter}}, 1));
    EXPECT_EQ(s.size, kHeader + kAdapterRec);
}

TEST_F(Snapshots, LaterPortFailingAppendsTheAdapterRecordAgain) {
    const std::string lnodes = Local(0, 0x2100000000000300, 30, Target(0x5000000000000301, 1, "a")) + "," +
                               Local(1, 0x2100000000000301, 31, "");
    // With one port in the table, the snapshot's local-node queries are
    // those of port 0; with two, port 1's first query is the next one.
    UseFabric(Fabric(Adapter(3, kPort0, lnodes)));
    const Snapshot one = Take();
    const uint64_t port0_calls = testenv::Calls("tusk_get_lnode_info");
    ASSERT_GT(port0_calls, 0u);

    UseFabric(Fabric(Adapter(3, std::string(kPort0) + "," + kPort1, lnodes)));
    Reference clean;
    clean.Build();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", static_cast<uint32_t>(port0_calls + 1), -5, 0), 0);
    const Snapshot s = Take();
    ASSERT_FALSE(s.null);

    // Expected: the clean records up to port 1's, then the adapter record
    // again with a port count of 0. Kept as it stands.
    std::vector<Rec> want;
    for (const Rec& r : clean.recs) {
        if (r.kind == 'P' && U32(r.b, 0) == 1) break;
        want.push_back(r);
    }
    Bytes again = clean.recs.front().b;
    EXPECT_EQ(U32(again, 4), 2u);
    PutU32(again, 4, 0);
    want.push_back({'A', again});
    EXPECT_TRUE(s.bytes == Join(want, 1));
    EXPECT_EQ(s.bytes.size(), kHeader + 2 * kAdapterRec + kPortRec + kRemoteRec + kLunRec);
    // The one-port stream is the two-port one without the repeated record
    // (and with its own port count).
    Bytes first = one.bytes;
    EXPECT_EQ(first.size() + kAdapterRec, s.bytes.size());
}

TEST_F(Snapshots, SkippedAdaptersAreStillCountedInTheHeader) {
    UseFabric(Fabric(Adapter(1, kPort0, Local(0, 0x2100000000000100, 10, "")) + "," +
                     Adapter(2, kPort0, Local(0, 0x2100000000000200, 20, ""))));
    Reference clean;
    const Bytes full = clean.Build();
    ASSERT_EQ(clean.recs.size(), 4u);  // adapter, port, adapter, port

    // The first adapter cannot be opened: deliberate, the header still says 2.
    ASSERT_EQ(tusksim_add_fault("open_adapter_str", 1, -1, 0), 0);
    Snapshot s = Take();
    EXPECT_TRUE(s.bytes == Join({clean.recs[2], clean.recs[3]}, 2));
    EXPECT_EQ(U32(s.bytes, 0), 2u);
    EXPECT_EQ(U32(s.bytes, kHeader), 1u);  // the record present is adapter 1's

    // Its standard attributes cannot be read: skipped, and closed.
    tusksim_clear_faults();
    ASSERT_EQ(tusksim_add_fault("tusk_get_hw_info", 1, -5, 0), 0);
    s = Take();
    EXPECT_TRUE(s.bytes == Join({clean.recs[2], clean.recs[3]}, 2));
    EXPECT_EQ(tusksim_open_handles(), open_before);

    // Its extended attributes cannot be read: skipped, and closed.
    tusksim_clear_faults();
    ASSERT_EQ(tusksim_add_fault("tusk_get_hw_info", 2, -5, 0), 0);
    s = Take();
    EXPECT_TRUE(s.bytes == Join({clean.recs[2], clean.recs[3]}, 2));
    EXPECT_EQ(tusksim_open_handles(), open_before);

    // Every adapter skipped: the header alone.
    tusksim_clear_faults();
    ASSERT_EQ(tusksim_add_fault("open_adapter_str", 1, -1, 1), 0);
    s = Take();
    ASSERT_FALSE(s.null);
    EXPECT_TRUE(s.bytes == Join({}, 2));
    EXPECT_EQ(s.size, kHeader);
}

TEST_F(Snapshots, PortWhoseExtendedAttributesFailLeavesNoRecord) {
    UseFabric(Fabric(Adapter(3, std::string(kPort0) + "," + kPort1,
                             Local(0, 0x2100000000000300, 30, Target(0x5000000000000301, 1, "a")) + "," +
                                 Local(1, 0x2100000000000301, 31, Target(0x5000000000000311, 1, "b")))));
    Reference clean;
    clean.Build();
    const uint64_t standard = CallsDuring("tusk_get_lnode_info", "/dev/tuskstor3", [](HBA_HANDLE h) {
        HBA_PORTATTRIBUTES a;
        std::memset(&a, 0, sizeof a);
        mirvak_GetAdapterPortAttributes(h, 0, &a);
    });
    ASSERT_GT(standard, 0u);
    // The extended query of port 0 fails at its first local-node read.
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", static_cast<uint32_t>(standard + 1), -5, 0), 0);
    const Snapshot s = Take();
    std::vector<Rec> want;
    want.push_back(clean.recs[0]);  // the adapter
    bool port1 = false;
    for (const Rec& r : clean.recs) {
        if (r.kind == 'P') port1 = U32(r.b, 0) == 1;
        if (port1) want.push_back(r);
    }
    ASSERT_EQ(want.size(), 4u);  // adapter, port 1, its remote port, its LUN
    EXPECT_TRUE(s.bytes == Join(want, 1));
    EXPECT_EQ(Count(s.out, "Not Present"), 0u);
}

TEST_F(Snapshots, PortWithoutStatisticsHasNoChildren) {
    // Port 0 is offline (its statistics answer 100) but has a target and a
    // virtual port; port 1 is fine.
    UseFabric(Fabric(Adapter(
        3, std::string(kPort0) + "," + kPort1,
        Local(0, 0x2100000000000300, 30, Target(0x5000000000000301, 1, "a"), R"(,"state":"OFFLINE")") + "," +
            Local(1, 0x2100000000000301, 31, "") + "," +
            Virtual(0, 0x2800000000000300, 0x2100000000000300, 32, Target(0x5000000000000321, 1, "b")))));
    const Snapshot s = Take();
    ExpectMatchesReference(s);
    EXPECT_EQ(Count(s.out, "Local Ports statistics Not Present\n"), 1u);
    ASSERT_EQ(s.bytes.size(), kHeader + kAdapterRec + 2 * kPortRec);
    const std::size_t p0 = kHeader + kAdapterRec;
    EXPECT_EQ(U32(s.bytes, p0 + 0), 0u);
    EXPECT_EQ(U32(s.bytes, p0 + 4), 0u);
    EXPECT_EQ(U32(s.bytes, p0 + 8), 0u);
    EXPECT_EQ(U32(s.bytes, p0 + 939), 1u);  // it has a virtual port, none is listed
    EXPECT_TRUE(AllZero(s.bytes, p0 + 984, p0 + kPortRec));
    EXPECT_EQ(U32(s.bytes, p0 + kPortRec), 1u);  // port 1 follows at once
    // Port 1 has no discovered ports.
    EXPECT_EQ(Count(s.out, "Target Ports Not Present\n"), 1u);
}

TEST_F(Snapshots, PortWithoutDiscoveredPortsStillListsItsVirtualPorts) {
    UseFabric(Fabric(Adapter(3, kPort0,
                             Local(0, 0x2100000000000300, 30, "") + "," +
                                 Virtual(0, 0x2800000000000300, 0x2100000000000300, 32,
                                         Target(0x5000000000000321, 1, "b")))));
    const Snapshot s = Take();
    ExpectMatchesReference(s);
    EXPECT_EQ(Count(s.out, "Target Ports Not Present\n"), 1u);
    const std::size_t p0 = kHeader + kAdapterRec;
    ASSERT_EQ(s.bytes.size(), p0 + kPortRec + 2 * kRemoteRec + kLunRec);
    EXPECT_EQ(U32(s.bytes, p0 + 4), 0u);
    EXPECT_EQ(U32(s.bytes, p0 + 8), 1u);
    EXPECT_FALSE(AllZero(s.bytes, p0 + 984, p0 + kPortRec));  // statistics present
    EXPECT_EQ(s.bytes[p0 + kPortRec + 280], 0x28);            // the virtual port
    EXPECT_EQ(U32(s.bytes, p0 + kPortRec + 4), 1u);
}

TEST_F(Snapshots, FailedRemotePortQueryStillListsTheVirtualPorts) {
    UseFabric(Fabric(Adapter(3, kPort0,
                             Local(0, 0x2100000000000300, 30, Target(0x5000000000000301, 2, "a")) + "," +
                                 Virtual(0, 0x2800000000000300, 0x2100000000000300, 32, ""))));
    Reference clean;
    clean.Build();
    const uint64_t before = CallsDuring("tusk_get_lnode_info_by_fcid", "/dev/tuskstor3", [](HBA_HANDLE h) {
        HBA_PORTATTRIBUTES a;
        std::memset(&a, 0, sizeof a);
        mirvak_GetAdapterPortAttributes(h, 0, &a);
        port_info info;
        std::memset(&info, 0, sizeof info);
        info.attributes = a;
        mirvak_GetKXAdapterPortAttributes(h, 0, &info);
        port_info key;
        std::memset(&key, 0, sizeof key);
        key.attributes.PortWWN = a.PortWWN;
        port_stats st;
        mirvak_GetKXPortStatistics(h, &key, &st);
    });
    // The remote-port query's own lookup of the port fails.
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info_by_fcid", static_cast<uint32_t>(before + 1), -2, 0), 0);
    const Snapshot s = Take();
    EXPECT_EQ(Count(s.out, "tusk_get_lnode_info_by_fcid failed"), 1u);
    EXPECT_EQ(Count(s.out, "Target Ports Not Present\n"), 1u);
    // Port record with no remote ports and its virtual-port count, then the
    // virtual port: as in the clean stream without the remote ports.
    std::vector<Rec> want;
    for (const Rec& r : clean.recs) {
        if (r.kind != 'R' && r.kind != 'L') want.push_back(r);  // all of them the physical port's
    }
    ASSERT_EQ(want.size(), 3u);  // adapter, port, virtual port (no remote ports of its own)
    PutU32(want[1].b, 4, 0);
    EXPECT_EQ(U32(want[1].b, 8), 1u);
    EXPECT_TRUE(s.bytes == Join(want, 1));
}

TEST_F(Snapshots, FlaggedPortListsRemotePortsButNoVirtualPorts) {
    UseFabric(Fabric(Adapter(3, kPort0,
                             Local(0, 0x2100000000000300, 30, Target(0x5000000000000301, 1, "a"), R"(,"flag":1)") +
                                 "," +
                                 Virtual(0, 0x2800000000000300, 0x2100000000000300, 32,
                                         Target(0x5000000000000321, 1, "b")))));
    const Snapshot s = Take();
    ExpectMatchesReference(s);
    const std::size_t p0 = kHeader + kAdapterRec;
    ASSERT_EQ(s.bytes.size(), p0 + kPortRec + kRemoteRec + kLunRec);
    EXPECT_EQ(s.bytes[p0 + 938], 1);
    EXPECT_EQ(U32(s.bytes, p0 + 939), 1u);
    EXPECT_EQ(U32(s.bytes, p0 + 4), 1u);
    EXPECT_EQ(U32(s.bytes, p0 + 8), 0u);
}

TEST_F(Snapshots, RemotePortWithoutLunsIsOneRecordWithCountZero) {
    UseFabric(Fabric(Adapter(3, kPort0,
                             Local(0, 0x2100000000000300, 30,
                                   Target(0x5000000000000301, 0, "a") + "," + Target(0x5000000000000302, 1, "b")))));
    const Snapshot s = Take();
    ExpectMatchesReference(s);
    const std::size_t r0 = kHeader + kAdapterRec + kPortRec;
    ASSERT_EQ(s.bytes.size(), r0 + 2 * kRemoteRec + kLunRec);
    EXPECT_EQ(U32(s.bytes, r0 + 4), 0u);
    EXPECT_EQ(U32(s.bytes, r0 + kRemoteRec + 0), 1u);  // the next remote port follows at once
    EXPECT_EQ(U32(s.bytes, r0 + kRemoteRec + 4), 1u);
}

TEST_F(Snapshots, RemotePortsAfterAGoneOneAndLunCountFailures) {
    // The remote-port list ends at the offline target: the third entry is
    // left zero and asked for by numbers. Port 0's local node says physical
    // port 1, so no local port of number 0 has that target: the LUN count
    // fails and the record says 0.
    UseFabric(Fabric(Adapter(3, kPort0,
                             R"({"port_num":1,"port_wwn":"2100000000000300","lnode_id":30,"rnodes":[)" +
                                 Target(0x5000000000000301, 1, "a") + "," +
                                 Target(0x5000000000000302, 1, "b", R"(,"state":"OFFLINE")") + "," +
                                 Target(0x5000000000000303, 1, "c") + "]}")));
    const Snapshot s = Take();
    ExpectMatchesReference(s);
    const std::size_t r0 = kHeader + kAdapterRec + kPortRec;
    ASSERT_GE(s.bytes.size(), r0 + 3 * kRemoteRec);
    EXPECT_EQ(U32(s.bytes, r0 - kPortRec + 4), 3u);
    const std::size_t r2 = s.bytes.size() - kRemoteRec;
    EXPECT_EQ(U32(s.bytes, r2 + 0), 2u);
    EXPECT_EQ(U32(s.bytes, r2 + 4), 0u);
    EXPECT_TRUE(AllZero(s.bytes, r2 + 272, r2 + 288));  // no WWNs: the list ended before it
    EXPECT_EQ(Count(s.out, "Total Number of LUNS: 0:0\n"), 1u);
}

TEST_F(Snapshots, VirtualPortsOfAPortThatIsDownCarryNamesAndIndexesOnly) {
    // A live state that is neither "READY" nor offline reads as offline (3).
    UseFabric(Fabric(Adapter(3, kPort0,
                             Local(0, 0x2100000000000300, 30, "", R"(,"state":"LINKWAIT")") + "," +
                                 Virtual(0, 0x2800000000000300, 0x2100000000000300, 32,
                                         Target(0x5000000000000321, 1, "b")))));
    const Snapshot s = Take();
    ExpectMatchesReference(s);
    const std::size_t p0 = kHeader + kAdapterRec;
    EXPECT_EQ(U32(s.bytes, p0 + 300), 3u);
    const std::size_t v0 = p0 + kPortRec;
    ASSERT_EQ(s.bytes.size(), v0 + 2 * kRemoteRec + kLunRec);
    const Bytes& b = s.bytes;
    EXPECT_EQ(U32(b, v0 + 0), 0u);
    EXPECT_EQ(U32(b, v0 + 4), 1u);  // its remote ports are still listed
    EXPECT_EQ(Text(b, v0 + 8, 256), "/dev/tuskstor3");
    EXPECT_EQ(U32(b, v0 + 264), 0u);
    EXPECT_EQ(U32(b, v0 + 268), 0u);
    EXPECT_EQ(Text(b, v0 + 980, 256), "/dev/tuskstor3");
    EXPECT_EQ(U32(b, v0 + 1236), 0u);
    EXPECT_EQ(U32(b, v0 + 1240), 0u);
    // Nothing else: no WWN, no inherited fields, no statistics.
    EXPECT_TRUE(AllZero(b, v0 + 8 + 15, v0 + 264));
    EXPECT_TRUE(AllZero(b, v0 + 272, v0 + 980));
    EXPECT_TRUE(AllZero(b, v0 + 980 + 15, v0 + 1236));
    EXPECT_TRUE(AllZero(b, v0 + 1244, v0 + kRemoteRec));
    EXPECT_EQ(b[v0 + kRemoteRec + 280], 0x50);  // the remote port of the virtual port
}

TEST_F(Snapshots, VirtualPortListFailureLeavesOneClearedRecord) {
    UseFabric(Fabric(Adapter(3, kPort0,
                             Local(0, 0x2100000000000300, 30, Target(0x5000000000000301, 1, "a")) + "," +
                                 Virtual(0, 0x2800000000000300, 0x2100000000000300, 32,
                                         Target(0x5000000000000321, 1, "b")) +
                                 "," + Virtual(0, 0x2800000000000301, 0x2100000000000300, 33, ""))));
    Reference clean;
    clean.Build();
    // The list is asked for once, for this port, last.
    testenv::ResetCalls();
    const Snapshot once = Take();
    const uint64_t lists = testenv::Calls("tusk_list_npiv_port");
    ASSERT_GE(lists, 1u);
    ASSERT_EQ(tusksim_add_fault("tusk_list_npiv_port", static_cast<uint32_t>(lists), -5, 0), 0);
    const Snapshot s = Take();
    std::vector<Rec> want;
    for (const Rec& r : clean.recs) {
        if (r.kind == 'V') break;
        want.push_back(r);
    }
    EXPECT_EQ(U32(want[1].b, 8), 2u);  // the port record still says 2
    // Kept as it stands: one cleared record in place of the list.
    want.push_back({'V', Bytes(kRemoteRec, 0)});
    EXPECT_TRUE(s.bytes == Join(want, 1));
    EXPECT_TRUE(AllZero(s.bytes, s.bytes.size() - kRemoteRec, s.bytes.size()));
}

TEST_F(Snapshots, VirtualPortStatisticsOrRemotePortFailures) {
    UseFabric(Fabric(Adapter(3, kPort0,
                             Local(0, 0x2100000000000300, 30, "") + "," +
                                 Virtual(0, 0x2800000000000300, 0x2100000000000300, 32,
                                         Target(0x5000000000000321, 1, "b")))));
    Reference clean;
    clean.Build();
    ASSERT_EQ(clean.recs.size(), 5u);  // adapter, port, virtual port, remote, LUN
    // The virtual port's statistics and its remote ports are its last two
    // lookups by WWPN.
    testenv::ResetCalls();
    const Snapshot once = Take();
    const uint64_t lookups = testenv::Calls("tusk_get_lnode_info_by_fcid");
    ASSERT_GE(lookups, 2u);

    // Statistics: the record goes out with count 0 and nothing under it.
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info_by_fcid", static_cast<uint32_t>(lookups - 1), -2, 0), 0);
    Snapshot s = Take();
    EXPECT_EQ(Count(s.out, "Invalid Virtual Port WWPN!"), 1u);
    Bytes vport = clean.recs[2].b;
    PutU32(vport, 4, 0);
    std::memset(&vport[980 + 264], 0, 16);   // counter0..3 not read
    std::memset(&vport[980 + 400], 0, 16);   // counter4..7 not read
    EXPECT_TRUE(s.bytes == Join({clean.recs[0], clean.recs[1], {'V', vport}}, 1));

    // Remote ports: the record goes out with count 0, statistics kept.
    tusksim_clear_faults();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info_by_fcid", static_cast<uint32_t>(lookups), -2, 0), 0);
    s = Take();
    EXPECT_EQ(Count(s.out, "Invalid LNode WWPN!"), 1u);
    vport = clean.recs[2].b;
    PutU32(vport, 4, 0);
    EXPECT_TRUE(s.bytes == Join({clean.recs[0], clean.recs[1], {'V', vport}}, 1));
}

TEST_F(Snapshots, VirtualPortWithoutRemotePortsOrLuns) {
    UseFabric(Fabric(Adapter(3, kPort0,
                             Local(0, 0x2100000000000300, 30, "") + "," +
                                 Virtual(0, 0x2800000000000300, 0x2100000000000300, 32, "") + "," +
                                 Virtual(0, 0x2800000000000301, 0x2100000000000300, 33,
                                         Target(0x5000000000000331, 0, "c")))));
    const Snapshot s = Take();
    ExpectMatchesReference(s);
    const std::size_t v0 = kHeader + kAdapterRec + kPortRec;
    ASSERT_EQ(s.bytes.size(), v0 + 3 * kRemoteRec);
    EXPECT_EQ(U32(s.bytes, v0 + 4), 0u);               // no remote ports
    EXPECT_FALSE(AllZero(s.bytes, v0 + 980 + 264, v0 + 980 + 280));  // its statistics are there
    EXPECT_EQ(U32(s.bytes, v0 + kRemoteRec + 0), 1u);  // the next virtual port
    EXPECT_EQ(U32(s.bytes, v0 + kRemoteRec + 4), 1u);
    EXPECT_EQ(U32(s.bytes, v0 + 2 * kRemoteRec + 4), 0u);  // its remote port: no LUNs
    EXPECT_EQ(U32(s.bytes, v0 + 2 * kRemoteRec + 264), 1u);
}

TEST_F(Snapshots, VirtualPortCountThatCannotBeAllocated) {
    // The port says it has 65536 virtual ports: more than a list can hold.
    UseFabric(Fabric(Adapter(3, kPort0,
                             Local(0, 0x2100000000000300, 30, Target(0x5000000000000301, 1, "a"),
                                   R"(,"word_28":65536)"))));
    const Snapshot s = Take();
    EXPECT_EQ(Count(s.out, "Allocation failed\n"), 1u);
    ASSERT_EQ(s.bytes.size(), kHeader + kAdapterRec + kPortRec + kRemoteRec + kLunRec);
    EXPECT_EQ(U32(s.bytes, kHeader + kAdapterRec + 8), 65536u);
}

// ---- Size ----

TEST_F(Snapshots, ManyChunksGiveTheSameBytesAsOneBuffer) {
    // Two ports, each with ten targets of 28 LUNs, and a virtual port with a
    // target of 28 LUNs: about 600 KiB, more than two chunks.
    std::string t0, t1;
    for (int i = 0; i < 10; ++i) {
        t0 += (i ? "," : "") + Target(0x5000000000000400 + i, 28, "p" + std::to_string(i));
        t1 += (i ? "," : "") + Target(0x5000000000000500 + i, 28, "q" + std::to_string(i));
    }
    UseFabric(Fabric(Adapter(3, std::string(kPort0) + "," + kPort1,
                             Local(0, 0x2100000000000300, 30, t0) + "," + Local(1, 0x2100000000000301, 31, t1) +
                                 "," +
                                 Virtual(1, 0x2800000000000301, 0x2100000000000301, 32,
                                         Target(0x5000000000000600, 28, "v")))));
    const Snapshot s = Take();
    ASSERT_FALSE(s.null);
    EXPECT_GT(s.size, 2u * 0x3FFFF);
    EXPECT_EQ(s.size, kHeader + kAdapterRec + 2 * kPortRec + 22 * kRemoteRec + 588 * kLunRec);
    ExpectMatchesReference(s);
    // Every LUN record in its place, across the chunk boundaries.
    std::size_t at = kHeader + kAdapterRec + kPortRec;
    for (int r = 0; r < 10; ++r) {
        EXPECT_EQ(U32(s.bytes, at), static_cast<uint32_t>(r));
        at += kRemoteRec;
        for (uint32_t j = 0; j < 28; ++j, at += kLunRec) {
            ASSERT_EQ(U32(s.bytes, at), j);
            ASSERT_EQ(U32(s.bytes, at + 8), static_cast<uint32_t>(r));
            ASSERT_EQ(Text(s.bytes, at + 532, 256), "/dev/tuskstor3");
        }
    }
}

TEST_F(Snapshots, ManyRemotePortsGrowTheQueryBuffers) {
    // 300 targets: their port_info array (291600 bytes) is more than the
    // 256 KiB the remote-port query is handed, and 300 records are more than
    // one chunk.
    std::string targets;
    for (int i = 0; i < 300; ++i) targets += (i ? "," : "") + Target(0x5000000000010000 + i, 0, "x");
    UseFabric(Fabric(Adapter(3, kPort0, Local(0, 0x2100000000000300, 30, targets))));
    const Snapshot s = Take();
    ASSERT_FALSE(s.null);
    EXPECT_EQ(s.size, kHeader + kAdapterRec + kPortRec + 300 * kRemoteRec);
    ExpectMatchesReference(s);
    EXPECT_EQ(U32(s.bytes, kHeader + kAdapterRec + 4), 300u);
    const std::size_t last = s.bytes.size() - kRemoteRec;
    EXPECT_EQ(U32(s.bytes, last), 299u);
    EXPECT_EQ(s.bytes[last + 287], static_cast<uint8_t>((0x10000 + 299) & 0xFF));
    EXPECT_EQ(U32(s.bytes, last + 1240), 299u);
}

// ---- The pause ----

TEST_F(Snapshots, PortWithManyDiscoveredPortsAndVirtualPortsPausesFiveSeconds) {
    std::string targets;
    for (int i = 0; i < 36; ++i) targets += (i ? "," : "") + Target(0x5000000000020000 + i, 0, "y");
    UseFabric(Fabric(Adapter(3, kPort0,
                             Local(0, 0x2100000000000300, 30, targets) + "," +
                                 Virtual(0, 0x2800000000000300, 0x2100000000000300, 32, ""))));
    const auto start = std::chrono::steady_clock::now();
    const Snapshot s = Take();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::seconds(5));
    ASSERT_FALSE(s.null);
    EXPECT_EQ(U32(s.bytes, kHeader + kAdapterRec + 904), 36u);
    EXPECT_EQ(s.size, kHeader + kAdapterRec + kPortRec + 37 * kRemoteRec);
}

}  // namespace
