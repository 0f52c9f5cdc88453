// The snapshot decoder of the command-line program: hand-built streams, the
// library's own deliberate oddities (repeated and skipped adapters, the
// cleared virtual-port record), truncated and inconsistent streams, and the
// snapshot of the default fabric against its description.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "mirvak/mgmt_records.h"
#include "mirvak/mv_fcoe_ini.h"
#include "mirvak/snapshot_records.h"
#include "sim/fabric.h"
#include "sim_env.h"
#include "overview.h"
#include "snapshot_decode.h"

namespace {

using mv::tool::decode_snapshot;
using mv::tool::DecodeError;
using mv::tool::snapshot_text;
using nlohmann::json;
using Bytes = std::vector<unsigned char>;

namespace snap = mv::snapshot;

// ---- Building streams by hand ----

const char* kName = "/dev/tuskstor7";

template <class R>
void Append(Bytes& s, const R& rec) {
    const auto* b = reinterpret_cast<const unsigned char*>(&rec);
    s.insert(s.end(), b, b + sizeof rec);
}

Bytes Header(uint32_t n) {
    Bytes s(4);
    std::memcpy(s.data(), &n, 4);
    return s;
}

snap::adapter_record AdapterRec(uint32_t index, uint32_t ports, const char* name = kName) {
    adapter_info info;
    std::memset(&info, 0, sizeof info);
    info.instance = 7;
    std::strcpy(info.adapter_name, name);
    std::strcpy(info.attributes.Model, "MVF-H");
    std::strcpy(info.attributes.SerialNumber, "SN-H");
    info.attributes.NumberOfPorts = ports;
    info.hw_word_192 = 192;
    std::strcpy(info.hw_text_246, "BOOT");
    info.hw_block_336[0] = 0xab;
    info.hw_block_336[2] = 0xcd;
    snap::adapter_record rec;
    std::memset(&rec, 0, sizeof rec);
    rec.index = index;
    rec.port_count = ports;
    std::memcpy(rec.info, &info, sizeof info);
    std::memcpy(rec.info_copy, &info, sizeof info);
    return rec;
}

void SetWwn(unsigned char* w, uint64_t v) {
    for (int i = 0; i < 8; ++i) w[i] = static_cast<uint8_t>(v >> (56 - 8 * i));
}

snap::port_record PortRec(uint32_t index, uint32_t remotes, uint32_t vports, uint64_t wwpn) {
    port_info info;
    std::memset(&info, 0, sizeof info);
    std::strcpy(info.adapter_name, kName);
    info.port_num = index;
    SetWwn(info.attributes.PortWWN.wwn, wwpn);
    SetWwn(info.attributes.NodeWWN.wwn, wwpn ^ 0x0100000000000000ull);
    info.attributes.PortState = HBA_PORTSTATE_ONLINE;
    info.attributes.PortSpeed = 19;
    std::strcpy(info.attributes.OSDeviceName, "/sys/class/fc_host/host9");
    const uint8_t mac[6] = {0x0e, 0xfc, 0, 0, 0, 9};
    std::memcpy(info.lnode_mac, mac, 6);
    info.fcf_index = 5;
    info.vlan_id = 55;
    info.lnode_word_28 = vports;
    port_stats st;
    std::memset(&st, 0, sizeof st);
    st.hba_stats.TxFrames = 1000;
    st.counter0 = 1;
    st.counter7 = 8;
    snap::port_record rec;
    std::memset(&rec, 0, sizeof rec);
    rec.index = index;
    rec.remote_count = remotes;
    rec.vport_count = vports;
    std::memcpy(rec.info, &info, sizeof info);
    std::memcpy(rec.stats, &st, sizeof st);
    return rec;
}

snap::remote_record RemoteRec(uint32_t index, uint32_t children, uint64_t wwpn, uint32_t parent) {
    port_info info;
    std::memset(&info, 0, sizeof info);
    std::strcpy(info.adapter_name, kName);
    SetWwn(info.attributes.PortWWN.wwn, wwpn);
    info.attributes.PortState = HBA_PORTSTATE_ONLINE;
    info.port_num = parent;
    info.rport_index = index;
    std::strcpy(info.role, "target");
    port_stats st;
    std::memset(&st, 0, sizeof st);
    std::strcpy(reinterpret_cast<char*>(st.reserved_0), kName);
    st.port_num = parent;
    st.rport_index = index;
    st.counter0 = 100 + index;
    st.rcounter3 = 400 + index;
    snap::remote_record rec;
    std::memset(&rec, 0, sizeof rec);
    rec.index = index;
    rec.child_count = children;
    std::memcpy(rec.info, &info, sizeof info);
    std::memcpy(rec.stats, &st, sizeof st);
    return rec;
}

snap::lun_record LunRec(uint32_t index, uint32_t parent, uint32_t remote, const char* device) {
    lun_info lun;
    std::memset(&lun, 0, sizeof lun);
    mv::store<uint32_t>(lun.reserved_0, parent);
    mv::store<uint32_t>(lun.reserved_0 + 4, remote);
    lun.size = 2048 + index;
    std::strcpy(lun.hctl, ("3:0:1:" + std::to_string(index)).c_str());
    std::strcpy(lun.device, device);
    std::strcpy(lun.device + 256, kName);
    std::strcpy(lun.vendor, "KESTREL");
    snap::lun_record rec;
    rec.index = index;
    std::memcpy(rec.lun, &lun, sizeof lun);
    return rec;
}

// One adapter, one port with one remote port (2 LUNs) and one virtual port
// with one remote port (1 LUN).
Bytes Sample() {
    Bytes s = Header(1);
    Append(s, AdapterRec(0, 1));
    Append(s, PortRec(0, 1, 1, 0x2100000000000700));
    Append(s, RemoteRec(0, 2, 0x5000000000000701, 0));
    Append(s, LunRec(0, 0, 0, "/dev/sdb"));
    Append(s, LunRec(1, 0, 0, "/dev/sdc"));
    Append(s, RemoteRec(0, 1, 0x2800000000000700, 0));  // the virtual port
    Append(s, RemoteRec(0, 1, 0x5000000000000711, 0));  // its remote port
    Append(s, LunRec(0, 0, 0, "/dev/sdd"));
    return s;
}

json Decode(const Bytes& s) { return decode_snapshot(s.data(), s.size()); }

// The offset a decode of s names, or npos when it succeeds.
std::size_t ErrorOffset(const Bytes& s) {
    try {
        Decode(s);
    } catch (const DecodeError& e) {
        return e.offset;
    }
    return std::string::npos;
}

// ---- Hand-built streams ----

TEST(SnapshotDecode, WalksTheRecordsByTheirCounts) {
    const Bytes s = Sample();
    const json t = Decode(s);
    EXPECT_EQ(t["adapter_count"], 1);
    EXPECT_EQ(t["adapter_records"], 1);
    EXPECT_EQ(t["size"], s.size());
    ASSERT_EQ(t["adapters"].size(), 1u);
    const json& a = t["adapters"][0];
    EXPECT_EQ(a["offset"], 4);
    EXPECT_EQ(a["index"], 0);
    EXPECT_EQ(a["name"], kName);
    EXPECT_EQ(a["instance"], 7);
    EXPECT_EQ(a["model"], "MVF-H");
    EXPECT_EQ(a["serial_number"], "SN-H");
    EXPECT_EQ(a["repeat"], false);
    EXPECT_EQ(a["port_count"], 1);
    EXPECT_EQ(a["ports_present"], 1);
    EXPECT_EQ(a["hardware"]["word_192"], 192);
    EXPECT_EQ(a["hardware"]["text_246"], "BOOT");
    EXPECT_EQ(a["hardware"]["block_336"], "ab 00 cd");

    const json& p = a["ports"][0];
    EXPECT_EQ(p["offset"], 4 + 5368);
    EXPECT_EQ(p["port_wwn"], "21:00:00:00:00:00:07:00");
    EXPECT_EQ(p["node_wwn"], "20:00:00:00:00:00:07:00");
    EXPECT_EQ(p["state"], 2);
    EXPECT_EQ(p["state_name"], "online");
    EXPECT_EQ(p["speed"], 19);
    EXPECT_EQ(p["os_device_name"], "/sys/class/fc_host/host9");
    EXPECT_EQ(p["fcoe"]["lnode_mac"], "0e:fc:00:00:00:09");
    EXPECT_EQ(p["fcoe"]["fcf_index"], 5);
    EXPECT_EQ(p["fcoe"]["vlan_id"], 55);
    EXPECT_EQ(p["fcoe"]["vport_word"], 1);
    EXPECT_EQ(p["statistics"]["tx_frames"], 1000);
    EXPECT_EQ(p["statistics"]["counters"], json({1, 0, 0, 0, 0, 0, 0, 8}));
    EXPECT_EQ(p["virtual_ports_listed"], true);

    ASSERT_EQ(p["remote_ports"].size(), 1u);
    const json& r = p["remote_ports"][0];
    EXPECT_EQ(r["port_wwn"], "50:00:00:00:00:00:07:01");
    EXPECT_EQ(r["role"], "target");
    EXPECT_EQ(r["lun_count"], 2);
    EXPECT_EQ(r["statistics"]["counters"], json({100, 0, 0, 0}));
    EXPECT_EQ(r["statistics"]["remote_counters"], json({0, 0, 0, 400}));
    ASSERT_EQ(r["luns"].size(), 2u);
    EXPECT_EQ(r["luns"][1]["device"], "/dev/sdc");
    EXPECT_EQ(r["luns"][1]["adapter_name"], kName);
    EXPECT_EQ(r["luns"][1]["hctl"], "3:0:1:1");
    EXPECT_EQ(r["luns"][1]["vendor"], "KESTREL");
    EXPECT_EQ(r["luns"][1]["size"], 2049);
    EXPECT_EQ(r["luns"][1]["port_index"], 0);
    EXPECT_EQ(r["luns"][1]["remote_index"], 0);

    ASSERT_EQ(p["virtual_ports"].size(), 1u);
    const json& v = p["virtual_ports"][0];
    EXPECT_EQ(v["port_wwn"], "28:00:00:00:00:00:07:00");
    EXPECT_EQ(v["remote_count"], 1);
    ASSERT_EQ(v["remote_ports"].size(), 1u);
    EXPECT_EQ(v["remote_ports"][0]["port_wwn"], "50:00:00:00:00:00:07:11");
    EXPECT_EQ(v["remote_ports"][0]["luns"][0]["device"], "/dev/sdd");
}

// The layout alone: every record's place and counts as the full tree has
// them, and none of its fields.
json Layout(const json& full, bool top = true) {
    static const std::set<std::string> kLayout = {
        "offset", "index", "port_count", "ports_present", "repeat", "remote_count", "vport_count", "lun_count",
        "parent_index", "virtual_ports_listed", "ports", "remote_ports", "virtual_ports", "luns", "adapters"};
    if (full.is_array()) {
        json out = json::array();
        for (const json& e : full) out.push_back(Layout(e, false));
        return out;
    }
    json out = json::object();
    for (auto it = full.begin(); it != full.end(); ++it) {
        const bool stream = top && (it.key() == "adapter_count" || it.key() == "adapter_records" || it.key() == "size");
        if (stream || kLayout.count(it.key()) != 0)
            out[it.key()] = it.value().is_structured() ? Layout(it.value(), false) : it.value();
    }
    return out;
}

TEST(SnapshotDecode, TheLayoutAloneIsTheFullTreeWithoutTheFields) {
    const Bytes s = Sample();
    const json layout = decode_snapshot(s.data(), s.size(), mv::tool::SnapshotDetail::Layout);
    EXPECT_EQ(layout, Layout(Decode(s)));
    EXPECT_FALSE(layout["adapters"][0].contains("model"));
    EXPECT_FALSE(layout["adapters"][0]["ports"][0].contains("statistics"));
    EXPECT_EQ(layout["adapters"][0]["ports"][0]["offset"], 4 + 5368);
}

TEST(SnapshotDecode, TextShowsEveryLevelIndented) {
    const std::string text = snapshot_text(Decode(Sample()));
    EXPECT_NE(text.find("adapter_count: 1\n"), std::string::npos);
    EXPECT_NE(text.find("Adapter 0:\n  "), std::string::npos);
    EXPECT_NE(text.find("\n  name: /dev/tuskstor7\n"), std::string::npos);
    EXPECT_NE(text.find("\n  Port 0:\n    "), std::string::npos);
    EXPECT_NE(text.find("\n    port_wwn: 21:00:00:00:00:00:07:00\n"), std::string::npos);
    EXPECT_NE(text.find("\n    Remote port 0:\n      "), std::string::npos);
    EXPECT_NE(text.find("\n      LUN 1:\n        "), std::string::npos);
    EXPECT_NE(text.find("\n        device: /dev/sdc\n"), std::string::npos);
    EXPECT_NE(text.find("\n    Virtual port 0:\n"), std::string::npos);
    EXPECT_NE(text.find("\n      Remote port 0:\n        "), std::string::npos);
    EXPECT_NE(text.find("\n          device: /dev/sdd\n"), std::string::npos);
    EXPECT_NE(text.find("\n      counters: 1 0 0 0 0 0 0 8\n"), std::string::npos);
}

TEST(SnapshotDecode, TextOfNonAsciiFieldsIsEscaped) {
    Bytes s = Header(1);
    snap::adapter_record a = AdapterRec(0, 0);
    adapter_info info = mv::load<adapter_info>(a.info);
    info.attributes.Model[0] = '\xff';
    info.attributes.Model[1] = '\n';
    std::memcpy(a.info, &info, sizeof info);
    std::memcpy(a.info_copy, &info, sizeof info);
    Append(s, a);
    const json t = Decode(s);
    EXPECT_EQ(t["adapters"][0]["model"], "\\xff\\x0aF-H");
    EXPECT_NO_THROW(t.dump());
    EXPECT_NE(snapshot_text(t).find("model: \\xff\\x0aF-H\n"), std::string::npos);
}

TEST(SnapshotDecode, RepeatedAdapterRecordAfterAFailedPort) {
    // The library's stream when port 1 of 2 fails its query: the adapter,
    // port 0, then the adapter again with a port count of 0.
    Bytes s = Header(1);
    Append(s, AdapterRec(0, 2));
    Append(s, PortRec(0, 0, 0, 0x2100000000000700));
    Append(s, AdapterRec(0, 0));
    const json t = Decode(s);
    EXPECT_EQ(t["adapter_count"], 1);
    ASSERT_EQ(t["adapter_records"], 2);
    const json& first = t["adapters"][0];
    EXPECT_EQ(first["repeat"], false);
    EXPECT_EQ(first["port_count"], 2);
    EXPECT_EQ(first["ports_present"], 1);
    const json& again = t["adapters"][1];
    EXPECT_EQ(again["repeat"], true);
    EXPECT_EQ(again["index"], 0);
    EXPECT_EQ(again["port_count"], 0);
    EXPECT_EQ(again["ports"].size(), 0u);
}

TEST(SnapshotDecode, SkippedAdaptersAndPortsLeaveGaps) {
    // The header says 3 adapters; adapter 0 was skipped, adapter 1 lost its
    // port 0 to a failed query, adapter 2 has no ports.
    Bytes s = Header(3);
    Append(s, AdapterRec(1, 2, "/dev/tuskstor1"));
    snap::port_record p = PortRec(1, 0, 0, 0x2100000000000701);
    port_info info = mv::load<port_info>(p.info);
    std::strcpy(info.adapter_name, "/dev/tuskstor1");
    std::memcpy(p.info, &info, sizeof info);
    Append(s, p);
    Append(s, AdapterRec(2, 0, "/dev/tuskstor2"));
    const json t = Decode(s);
    EXPECT_EQ(t["adapter_count"], 3);
    EXPECT_EQ(t["adapter_records"], 2);
    EXPECT_EQ(t["adapters"][0]["index"], 1);
    EXPECT_EQ(t["adapters"][0]["ports_present"], 1);
    EXPECT_EQ(t["adapters"][0]["ports"][0]["index"], 1);
    EXPECT_EQ(t["adapters"][1]["index"], 2);
    EXPECT_EQ(t["adapters"][1]["repeat"], false);
    // The header alone: every adapter skipped.
    const json empty = Decode(Header(2));
    EXPECT_EQ(empty["adapter_count"], 2);
    EXPECT_EQ(empty["adapters"].size(), 0u);
}

TEST(SnapshotDecode, ClearedVirtualPortRecordStandsForAFailedList) {
    Bytes s = Header(2);
    Append(s, AdapterRec(0, 1));
    Append(s, PortRec(0, 0, 3, 0x2100000000000700));
    Append(s, snap::remote_record{});  // cleared: the list could not be had
    Append(s, AdapterRec(1, 0, "/dev/tuskstor8"));
    const json t = Decode(s);
    ASSERT_EQ(t["adapter_records"], 2);
    const json& p = t["adapters"][0]["ports"][0];
    EXPECT_EQ(p["vport_count"], 3);
    EXPECT_EQ(p["virtual_ports_listed"], false);
    EXPECT_EQ(p["virtual_ports"].size(), 0u);
    EXPECT_EQ(t["adapters"][1]["name"], "/dev/tuskstor8");
}

// ---- Truncated and inconsistent streams ----

// Where each record of a decoded tree starts, with its size.
void RecordStarts(const json& node, std::vector<std::pair<std::size_t, std::size_t>>& out, std::size_t size) {
    if (node.is_object()) {
        if (node.contains("offset")) out.emplace_back(node["offset"].get<std::size_t>(), size);
        for (const char* key : {"adapters", "ports", "remote_ports", "virtual_ports", "luns"}) {
            if (!node.contains(key)) continue;
            const std::string k = key;
            const std::size_t child = k == "adapters" ? 5368 : k == "ports" ? 1416 : k == "luns" ? 1044 : 1412;
            for (const json& c : node[key]) RecordStarts(c, out, child);
        }
    }
}

// Cut the stream at every record boundary and at points inside every
// record: a cut inside a record is named by that record's start; a cut at a
// boundary is named by itself, unless it falls between two adapters (the
// header counts adapters reported, so fewer records may follow legitimately).
void ExpectEveryCutIsNamed(const Bytes& s) {
    const json full = Decode(s);
    std::vector<std::pair<std::size_t, std::size_t>> recs;
    RecordStarts(full, recs, 0);
    std::sort(recs.begin(), recs.end());
    std::set<std::size_t> adapter_starts;
    for (const json& a : full["adapters"]) adapter_starts.insert(a["offset"].get<std::size_t>());
    for (std::size_t cut = 0; cut < 4; ++cut) EXPECT_EQ(ErrorOffset(Bytes(s.begin(), s.begin() + cut)), 0u) << cut;
    for (const auto& [start, size] : recs) {
        ASSERT_LE(start + size, s.size());
        const Bytes at_start(s.begin(), s.begin() + static_cast<long>(start));
        if (adapter_starts.count(start)) {
            const json t = Decode(at_start);
            EXPECT_LT(t["adapters"].size(), full["adapters"].size());
        } else {
            EXPECT_EQ(ErrorOffset(at_start), start) << "cut at the boundary " << start;
        }
        for (std::size_t inside : {std::size_t{1}, std::size_t{4}, size / 2, size - 1}) {
            const Bytes cut(s.begin(), s.begin() + static_cast<long>(start + inside));
            EXPECT_EQ(ErrorOffset(cut), start) << "cut at " << start << "+" << inside;
        }
    }
}

TEST(SnapshotDecode, EveryTruncationOfAHandBuiltStream) {
    Bytes s = Sample();
    Append(s, AdapterRec(1, 1, "/dev/tuskstor8"));
    snap::port_record p = PortRec(0, 0, 0, 0x2100000000000800);
    port_info info = mv::load<port_info>(p.info);
    std::strcpy(info.adapter_name, "/dev/tuskstor8");
    std::memcpy(p.info, &info, sizeof info);
    Append(s, p);
    ExpectEveryCutIsNamed(s);
}

TEST(SnapshotDecode, NotAWholeNumberOfRecords) {
    Bytes s = Sample();
    const std::size_t end = s.size();
    s.insert(s.end(), 7, 0x11);
    try {
        Decode(s);
        FAIL() << "no error";
    } catch (const DecodeError& e) {
        EXPECT_EQ(e.offset, end);
        EXPECT_NE(std::string(e.what()).find(std::to_string(end)), std::string::npos) << e.what();
    }
}

TEST(SnapshotDecode, CountsPointingPastTheEnd) {
    Bytes s = Header(1);
    Append(s, AdapterRec(0, 1));
    Append(s, PortRec(0, 0xFFFFFFFFu, 0, 0x2100000000000700));
    Append(s, RemoteRec(0, 0, 0x5000000000000701, 0));
    EXPECT_EQ(ErrorOffset(s), s.size());
    // A LUN count far beyond the bytes.
    s = Header(1);
    Append(s, AdapterRec(0, 1));
    Append(s, PortRec(0, 1, 0, 0x2100000000000700));
    Append(s, RemoteRec(0, 1000000, 0x5000000000000701, 0));
    Append(s, LunRec(0, 0, 0, "/dev/sdb"));
    EXPECT_EQ(ErrorOffset(s), s.size());
}

TEST(SnapshotDecode, InconsistentRecords) {
    // A LUN record out of order.
    Bytes s = Header(1);
    Append(s, AdapterRec(0, 1));
    Append(s, PortRec(0, 1, 0, 0x2100000000000700));
    Append(s, RemoteRec(0, 2, 0x5000000000000701, 0));
    Append(s, LunRec(0, 0, 0, "/dev/sdb"));
    const std::size_t second = s.size();
    Append(s, LunRec(5, 0, 0, "/dev/sdc"));
    EXPECT_EQ(ErrorOffset(s), second);

    // A port record of another adapter where this adapter's port belongs.
    s = Header(1);
    Append(s, AdapterRec(0, 1, "/dev/tuskstor1"));
    Append(s, PortRec(0, 0, 0, 0x2100000000000700));
    EXPECT_EQ(ErrorOffset(s), 4u + 5368);

    // A port index past the adapter's count.
    s = Header(1);
    Append(s, AdapterRec(0, 1));
    Append(s, PortRec(3, 0, 0, 0x2100000000000700));
    EXPECT_EQ(ErrorOffset(s), 4u + 5368);

    // An adapter record whose two copies differ.
    s = Header(1);
    snap::adapter_record a = AdapterRec(0, 0);
    a.info_copy[200] ^= 1;
    Append(s, a);
    EXPECT_EQ(ErrorOffset(s), 4u);

    // Records where an adapter record must stand.
    s = Header(1);
    for (int i = 0; i < 5; ++i) Append(s, RemoteRec(0, 0, 0x5000000000000701, 0));
    EXPECT_EQ(ErrorOffset(s), 4u);
}

TEST(SnapshotDecode, NullAndEmpty) {
    EXPECT_THROW(decode_snapshot(nullptr, 10), DecodeError);
    try {
        decode_snapshot(nullptr, 0);
        FAIL() << "no error";
    } catch (const DecodeError& e) {
        EXPECT_EQ(e.offset, 0u);
    }
}

TEST(SnapshotDecode, GarbageNeverCrashes) {
    std::mt19937 rng(12345);
    const Bytes sample = Sample();
    for (int round = 0; round < 3000; ++round) {
        Bytes s;
        if (round % 2 == 0) {
            // A real stream with a few bytes changed and cut somewhere.
            s = sample;
            for (int k = 0; k < 4; ++k) s[rng() % s.size()] = static_cast<unsigned char>(rng());
            s.resize(rng() % (s.size() + 1));
        } else {
            s.resize(rng() % 12000);
            for (auto& b : s) b = static_cast<unsigned char>(rng() % 4 == 0 ? rng() : 0);
        }
        try {
            const json t = Decode(s);
            (void)t.dump();
            (void)snapshot_text(t);
            (void)mv::tool::overview_text(t);
            (void)mv::tool::topology_dot(t);
        } catch (const DecodeError& e) {
            EXPECT_LE(e.offset, s.size());
        }
    }
}

// ---- The default fabric ----

std::string Colons(const std::string& hex) {
    std::string out;
    for (std::size_t i = 0; i < hex.size(); i += 2) out += (i ? ":" : "") + hex.substr(i, 2);
    return out;
}
std::string WwnOf(const json& v) { return Colons(v.get<std::string>()); }
uint64_t Num(const json& v) {
    return v.is_string() ? std::stoull(v.get<std::string>(), nullptr, 0) : v.get<uint64_t>();
}
bool Live(const json& node, const char* dflt = "READY") {
    const std::string state = node.value("state", dflt);
    return state != "OFFLINE" && state != "UNINIT" && state != "DISAPPEARED";
}
std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

class DefaultSnapshot : public testenv::SimTest {
protected:
    json fabric_;
    json tree_;
    Bytes stream_;

    void SetUp() override {
        testenv::SimTest::SetUp();
        UseDefaultFabric();
        fabric_ = json::parse(sim::default_fabric_text(), nullptr, true, true);
        unsigned int size = 0;
        void* p = nullptr;
        testenv::CaptureOut([&] {
            MvFCoEIni ini;
            p = ini.GetFCoEAll(nullptr, &size);
        });
        ASSERT_NE(p, nullptr);
        const auto* b = static_cast<const unsigned char*>(p);
        stream_.assign(b, b + size);
        std::free(p);
        tree_ = Decode(stream_);
    }

    // The fabric's local node with this WWPN: the live entry when the
    // driver lists a stale one beside it.
    const json& Lnode(const json& adapter, const std::string& wwn) {
        const json* first = nullptr;
        for (const json& n : adapter["lnodes"]) {
            if (WwnOf(n["port_wwn"]) != wwn) continue;
            if (Live(n)) return n;
            if (first == nullptr) first = &n;
        }
        if (first == nullptr) ADD_FAILURE() << "no local node " << wwn;
        static const json none = json::object();
        return first ? *first : none;
    }

    void ExpectLocalPort(const json& got, const json& adapter, const json& node, bool with_stats, bool vport) {
        SCOPED_TRACE(got["port_wwn"].get<std::string>());
        EXPECT_EQ(got["node_wwn"], WwnOf(node["node_wwn"]));
        EXPECT_EQ(got["fc_id"], Num(node["fcid"]));
        const std::string state = node.value("state", "READY");
        EXPECT_EQ(got["state"], state == "READY" ? 2 : state == "UNINIT" ? 6 : 3);
        const json& f = got["fcoe"];
        EXPECT_EQ(f["lnode_mac"], node["mac"]);
        EXPECT_EQ(f["fcf_index"], node["fcf_index"]);
        EXPECT_EQ(f["lnode_id"], node["lnode_id"]);
        EXPECT_EQ(got["raw"]["word_5"], node["word_5"]);
        EXPECT_EQ(got["raw"]["word_148"], node["word_148"]);
        EXPECT_FALSE(f.contains("word_5"));
        EXPECT_EQ(f["flag"], node.value("flag", 0));
        EXPECT_EQ(f["phys_port"], node["port_num"]);
        const json& hw_ports = adapter["hw"]["ports"];
        const std::size_t phys = node["port_num"].get<std::size_t>();
        if (phys < hw_ports.size()) {
            EXPECT_EQ(f["port_mac"], hw_ports[phys]["mac"]);
        }
        // The VLAN of the port's FCF, for a port that is ready (a virtual
        // port shows its physical port's).
        int vlan = 0;
        for (const json& fcf : adapter["fcfs"]) {
            if (fcf["fcf_index"] == node["fcf_index"]) vlan = fcf["vlan"].get<int>();
        }
        if (!vport && state != "READY") vlan = 0;
        EXPECT_EQ(f["vlan_id"], vlan);

        const json& s = got["statistics"];
        if (!with_stats) {
            EXPECT_EQ(s["counters"], json({0, 0, 0, 0, 0, 0, 0, 0}));
            return;
        }
        const json& w = node["words"];  // 1409, 1413, ..., 1437
        EXPECT_EQ(s["counters"], json({w[2], w[3], w[5], w[6], w[0], w[1], w[4], w[7]}));
        const json& q = node["quads"];  // 1633, 1641, 1649, 1657
        EXPECT_EQ(s["tx_frames"], vport ? json(0) : q[1]);
        EXPECT_EQ(s["tx_words"], vport ? json(0) : q[0]);
        EXPECT_EQ(s["rx_frames"], vport ? json(0) : q[3]);
        EXPECT_EQ(s["rx_words"], vport ? json(0) : q[2]);
    }

    // A remote port against the fabric's remote node, and its LUNs.
    void ExpectRemotePort(const json& got, const json& node, bool of_vport, uint32_t parent, uint32_t remote) {
        const std::string wwn = got["port_wwn"];
        SCOPED_TRACE(wwn);
        const json* rn = nullptr;
        for (const json& r : node["rnodes"]) {
            if (WwnOf(r["port_wwn"]) == wwn) rn = &r;
        }
        ASSERT_NE(rn, nullptr);
        EXPECT_EQ(got["node_wwn"], WwnOf((*rn)["node_wwn"]));
        EXPECT_EQ(got["parent_index"], parent);
        if (Live(*rn)) {
            EXPECT_EQ(got["role"], Lower((*rn)["role"]));
            EXPECT_EQ(got["fc_id"], Num((*rn)["fcid"]));
            EXPECT_EQ(got["state"], 2);
            const json& w = (*rn)["words"];  // 1408, 1412, ..., 1440
            // The list of a virtual port's remote ports leaves counter1 0.
            EXPECT_EQ(got["statistics"]["counters"], json({w[4], of_vport ? json(0) : w[6], w[7], w[8]}));
            EXPECT_EQ(got["statistics"]["remote_counters"], json({w[0], w[1], w[2], w[3]}));
            if (!of_vport) {
                EXPECT_EQ(got["raw"]["word_4"], (*rn)["word_4"]);
                EXPECT_EQ(got["raw"]["byte_12"], (*rn)["byte_12"]);
            }
        } else {
            EXPECT_EQ(got["state"], 3);  // the list ends at it
        }
        ExpectLuns(got, *rn, !of_vport, parent, remote);
    }

    void ExpectLuns(const json& got, const json& rn, bool sizes, uint32_t parent, uint32_t remote) {
        // Every LUN with a vendor file and a block device, in the order the
        // host lists them.
        std::set<std::string> want, seen;
        for (const json& l : rn.value("luns", json::array())) {
            if (l.value("has_vendor", true) && l.contains("block")) want.insert("/dev/" + l["block"].get<std::string>());
        }
        EXPECT_EQ(got["lun_count"], want.size());
        for (const json& l : got["luns"]) {
            const std::string device = l["device"];
            seen.insert(device);
            const json* fl = nullptr;
            for (const json& f : rn["luns"]) {
                if ("/dev/" + f["block"].get<std::string>() == device) fl = &f;
            }
            ASSERT_NE(fl, nullptr) << device;
            EXPECT_EQ(l["vendor"], (*fl)["vendor"]);
            const std::string hctl = l["hctl"];
            EXPECT_EQ(hctl.substr(hctl.rfind(':') + 1), std::to_string((*fl)["lun"].get<int>()));
            // The LUNs of a virtual port's remote ports carry what the host's
            // newer size file gives, which this fabric does not publish.
            if (sizes) {
                EXPECT_EQ(l["size"], (*fl)["size"]);
            }
            EXPECT_EQ(l["port_index"], parent);
            EXPECT_EQ(l["remote_index"], remote);
        }
        EXPECT_EQ(seen, want);
    }
};

TEST_F(DefaultSnapshot, DecodesToWhatTheFabricDescribes) {
    // The outline: adapters, ports, remote ports and virtual ports by WWN.
    // Instance 1's port 1 counts no discovered ports (its chain position is
    // the stale entry), so only its virtual ports follow it; the remote-port
    // list of instance 1's port 0 ends at its offline target and leaves the
    // third entry without WWNs. Instance 4's ports 1 and 2 have no
    // statistics (offline, not initialised) and so nothing below them.
    const json outline = json::parse(R"([
      {"name": "/dev/tuskstor1", "ports": [
        {"wwn": "2100001b9ea10000", "remotes": ["500a098000a10001", "500a098000a10002", "0000000000000000"],
         "vports": []},
        {"wwn": "2100001b9ea10001", "remotes": [],
         "vports": [{"wwn": "2801001b9ea10001", "remotes": ["5006016000a10201"]},
                    {"wwn": "2802001b9ea10001", "remotes": ["5006016000a10301", "5006016000a10302"]}]}]},
      {"name": "/dev/tuskstor4", "ports": [
        {"wwn": "2100001b9eb40000", "remotes": ["500b340000b40001", "500b340000b40002"],
         "vports": [{"wwn": "2801001b9eb40000", "remotes": ["500b340000b40201"]},
                    {"wwn": "2802001b9eb40000", "remotes": []}]},
        {"wwn": "2100001b9eb40001", "remotes": [], "vports": []},
        {"wwn": "2100001b9eb40002", "remotes": [], "vports": []}]}])");
    auto wwns = [](const json& list) {
        json out = json::array();
        for (const json& r : list) {
            std::string w = r["port_wwn"];
            w.erase(std::remove(w.begin(), w.end(), ':'), w.end());
            out.push_back(w);
        }
        return out;
    };
    json got = json::array();
    for (const json& a : tree_["adapters"]) {
        json ports = json::array();
        for (const json& p : a["ports"]) {
            json vports = json::array();
            for (const json& v : p["virtual_ports"]) {
                vports.push_back({{"wwn", wwns(json::array({v}))[0]}, {"remotes", wwns(v["remote_ports"])}});
            }
            ports.push_back({{"wwn", wwns(json::array({p}))[0]}, {"remotes", wwns(p["remote_ports"])}, {"vports", vports}});
        }
        got.push_back({{"name", a["name"]}, {"ports", ports}});
    }
    EXPECT_EQ(got, outline) << got.dump(1);
    EXPECT_EQ(tree_["adapter_count"], 2);
    EXPECT_EQ(tree_["adapter_records"], 2);
    EXPECT_EQ(tree_["size"], stream_.size());

    // Every field against the description.
    const json& fabric_adapters = fabric_["adapters"];
    ASSERT_EQ(tree_["adapters"].size(), fabric_adapters.size());
    for (std::size_t i = 0; i < fabric_adapters.size(); ++i) {
        const json& fa = fabric_adapters[i];
        const json& hw = fa["hw"];
        const json& a = tree_["adapters"][i];
        SCOPED_TRACE(a["name"].get<std::string>());
        EXPECT_EQ(a["name"], "/dev/tuskstor" + std::to_string(fa["instance"].get<int>()));
        EXPECT_EQ(a["index"], i);
        EXPECT_EQ(a["instance"], i);  // the dense index the instance map gives
        EXPECT_EQ(a["repeat"], false);
        EXPECT_EQ(a["manufacturer"], hw["manufacturer"]);
        EXPECT_EQ(a["model"], hw["model"]);
        EXPECT_EQ(a["serial_number"], hw["serial_num"]);
        EXPECT_EQ(a["hardware_version"], hw["hw_version"]);
        EXPECT_EQ(a["driver_version"], hw["drv_version"]);
        EXPECT_EQ(a["vendor_id"], Num(hw["vendor_id"]));
        EXPECT_EQ(a["option_rom_version"], std::to_string(hw["optrom_version"].get<int>()));
        const uint64_t fw = Num(hw["fw_version"]);
        EXPECT_EQ(a["firmware_version"], std::to_string((fw >> 24) & 0xF) + "." + std::to_string((fw >> 16) & 0xFF) +
                                             "." + std::to_string((fw >> 8) & 0xFF) + "." + std::to_string(fw & 0xFF));
        EXPECT_EQ(a["number_of_ports"], hw["ports"].size());
        EXPECT_EQ(a["port_count"], hw["ports"].size());
        EXPECT_EQ(a["ports_present"], hw["ports"].size());
        const json& h = a["hardware"];
        for (const char* k : {"byte_191", "word_192", "word_284", "word_288", "word_292", "word_332"}) {
            EXPECT_EQ(h[k], hw[k]) << k;
        }
        EXPECT_EQ(h["text_246"], hw["text_246"]);
        EXPECT_EQ(h["text_296"], hw["text_296"]);
        EXPECT_EQ(h["block_336"], hw["block_336"]);

        for (const json& p : a["ports"]) {
            const json& node = Lnode(fa, p["port_wwn"]);
            const bool with_stats = Live(node);
            EXPECT_EQ(p["os_device_name"].get<std::string>().rfind("/sys/class/fc_host/host", 0) == 0,
                      node.value("scsi_host", 0) >= 0);
            ExpectLocalPort(p, fa, node, with_stats, false);
            for (const json& r : p["remote_ports"]) {
                if (r["port_wwn"] == "00:00:00:00:00:00:00:00") continue;  // checked below
                ExpectRemotePort(r, node, false, p["index"].get<uint32_t>(), r["index"].get<uint32_t>());
            }
            for (const json& v : p["virtual_ports"]) {
                const json& vnode = Lnode(fa, v["port_wwn"]);
                EXPECT_EQ(WwnOf(vnode["parent"]), p["port_wwn"]);
                EXPECT_EQ(v["parent_index"], p["index"]);
                ExpectLocalPort(v, fa, vnode, true, true);
                // Inherited from the physical port.
                EXPECT_EQ(v["speed"], p["speed"]);
                EXPECT_EQ(v["max_frame_size"], p["max_frame_size"]);
                EXPECT_EQ(v["fabric_name"], p["fabric_name"]);
                EXPECT_EQ(v["os_device_name"], p["os_device_name"]);
                for (const json& r : v["remote_ports"]) {
                    ExpectRemotePort(r, vnode, true, v["index"].get<uint32_t>(), r["index"].get<uint32_t>());
                }
            }
        }
    }
    // The third remote port of instance 1's port 0, asked for by numbers:
    // the third target of the port, in state READY_PLOGI.
    const json& third = tree_["adapters"][0]["ports"][0]["remote_ports"][2];
    const json& port0 = fabric_adapters[0]["lnodes"][0];
    ExpectLuns(third, port0["rnodes"][3], true, 0, 2);
}

TEST_F(DefaultSnapshot, EveryTruncation) { ExpectEveryCutIsNamed(stream_); }

TEST_F(DefaultSnapshot, TrailingBytesThatAreNoWholeRecord) {
    Bytes b = stream_;
    b.insert(b.end(), {1, 2, 3, 4, 5});
    EXPECT_EQ(ErrorOffset(b), stream_.size());
}

TEST_F(DefaultSnapshot, ACountPointingPastTheEnd) {
    // The first port record (after the header and the adapter record) says
    // 1000 remote-port records follow: far more than the stream holds.
    Bytes b = stream_;
    const std::size_t port0 = 4 + 5368;
    const uint32_t many = 1000;
    std::memcpy(b.data() + port0 + 4, &many, 4);
    const std::size_t off = ErrorOffset(b);
    EXPECT_GT(off, port0);
    EXPECT_LE(off, b.size());
}

TEST_F(DefaultSnapshot, TextNamesEveryDevice) {
    const std::string text = snapshot_text(tree_);
    for (const char* dev : {"sdb", "sdc", "sdd", "sde", "sdf", "sdg", "sdh", "sdk", "sdl", "sdm", "sdn", "sdo", "sdp",
                            "sdq", "sdr", "sds", "sdt", "sdu", "sdw", "sdx"}) {
        EXPECT_NE(text.find(std::string("device: /dev/") + dev + "\n"), std::string::npos) << dev;
    }
    EXPECT_EQ(text.find("/dev/sdv"), std::string::npos);  // no vendor file: not listed
    EXPECT_NE(text.find("Virtual port 1:\n"), std::string::npos);
}

}  // namespace
