#include "model.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <set>
#include <string>

namespace tusksim {

using sim::Adapter;
using sim::LocalNode;
using sim::RawPatch;
using sim::RemoteNode;
using sim::Wwn;

namespace {

// Generated local-node handles look like the addresses a driver hands out:
// they use the upper 32 bits, so a caller that keeps only 32 of them loses
// its place in the chain.
constexpr uint64_t kHandleBase = 0x00007F5A00000000ull;

// Explicit cursor values are kept; every other item gets gen(k), moved on by
// one while it clashes with a value already taken or reserved.
template <class C, class Explicit, class Gen>
std::vector<C> resolve_cursors(std::size_t n, Explicit explicit_of, Gen gen, std::initializer_list<C> reserved) {
    std::set<C> used(reserved);
    for (std::size_t k = 0; k < n; ++k) {
        if (const auto v = explicit_of(k)) used.insert(*v);
    }
    std::vector<C> out(n);
    for (std::size_t k = 0; k < n; ++k) {
        if (const auto v = explicit_of(k)) {
            out[k] = *v;
            continue;
        }
        C c = gen(k);
        while (used.count(c) != 0) ++c;
        used.insert(c);
        out[k] = c;
    }
    return out;
}

bool is_live(const LocalNode& n) { return n.state != "OFFLINE" && n.state != "UNINIT"; }

bool is_zero(const Wwn& w) { return w == Wwn{}; }

Wwn wwn_at(const uint8_t (&bytes)[8]) {
    Wwn w;
    std::memcpy(w.data(), bytes, w.size());
    return w;
}

template <class Rec>
void put(Rec& rec, std::size_t offset, const void* src, std::size_t n) {
    if (n != 0 && offset <= sizeof(Rec) && n <= sizeof(Rec) - offset) {
        std::memcpy(reinterpret_cast<uint8_t*>(&rec) + offset, src, n);
    }
}

template <class Rec>
void apply(Rec& rec, const std::vector<RawPatch>& patches) {
    for (const auto& p : patches) put(rec, p.offset, p.bytes.data(), p.bytes.size());
}

// Texts keep a NUL inside their field (the record is zeroed first); a text
// without one is a job for a raw patch.
template <std::size_t N>
void put_text(char (&field)[N], const std::string& text) {
    std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}

template <std::size_t N>
void put_bytes(uint8_t (&field)[N], const std::array<uint8_t, N>& bytes) {
    std::memcpy(field, bytes.data(), N);
}

static_assert(offsetof(lnode_info, word_1437) == offsetof(lnode_info, word_1409) + 7 * 4, "lnode words");
static_assert(offsetof(lnode_info, quad_1657) == offsetof(lnode_info, quad_1633) + 3 * 8, "lnode quads");
static_assert(offsetof(rnode_info, word_1440) == offsetof(rnode_info, word_1408) + 8 * 4, "rnode words");

uint32_t fresh_lnode_id(const Adapter& a) {
    uint32_t id = 1;
    for (const auto& n : a.lnodes) {
        if (n.lnode_id != kAllLnodes) id = std::max(id, n.lnode_id + 1);
    }
    const auto taken = [&](uint32_t v) {
        return std::any_of(a.lnodes.begin(), a.lnodes.end(), [&](const LocalNode& n) { return n.lnode_id == v; });
    };
    while (id == kAllLnodes || taken(id)) ++id;
    return id;
}

// The next free FC address after the parent's (24 bits, never 0).
uint32_t fresh_fcid(const Adapter& a, uint32_t parent) {
    const auto taken = [&](uint32_t v) {
        return v == 0 ||
               std::any_of(a.lnodes.begin(), a.lnodes.end(), [&](const LocalNode& n) { return n.fcid == v; });
    };
    uint32_t fcid = (parent + 1) & 0xFFFFFF;
    while (taken(fcid)) fcid = (fcid + 1) & 0xFFFFFF;
    return fcid;
}

}  // namespace

std::vector<uint64_t> lnode_handles(const Adapter& a) {
    return resolve_cursors<uint64_t>(
        a.lnodes.size(), [&](std::size_t k) { return a.lnodes[k].lnode_handle; },
        [&](std::size_t k) { return kHandleBase + uint64_t{a.instance} * 0x100000 + (k + 1) * 0x100; }, {0});
}

std::vector<uint32_t> rnode_indexes(const std::vector<RemoteNode>& nodes) {
    return resolve_cursors<uint32_t>(
        nodes.size(), [&](std::size_t k) { return nodes[k].rnode_index; },
        [](std::size_t k) { return static_cast<uint32_t>(k); }, {kFirstCursor});
}

std::optional<RnodeChain> rnode_chain(const Adapter& a, uint32_t lnode_id) {
    RnodeChain chain;
    if (lnode_id == kAllLnodes) {
        // Every local node's remote nodes in chain order; the cursor is the
        // position in that list.
        for (const auto& n : a.lnodes) {
            for (const auto& r : n.rnodes) {
                chain.cursors.push_back(static_cast<uint32_t>(chain.nodes.size()));
                chain.nodes.push_back(&r);
            }
        }
        return chain;
    }
    const auto it = std::find_if(a.lnodes.begin(), a.lnodes.end(),
                                 [&](const LocalNode& n) { return n.lnode_id == lnode_id; });
    if (it == a.lnodes.end()) return std::nullopt;
    for (const auto& r : it->rnodes) chain.nodes.push_back(&r);
    chain.cursors = rnode_indexes(it->rnodes);
    return chain;
}

std::optional<std::size_t> find_lnode(const Adapter& a, const Wwn& wwpn, Which which) {
    std::optional<std::size_t> first;
    for (std::size_t k = 0; k < a.lnodes.size(); ++k) {
        const auto& n = a.lnodes[k];
        if (n.port_wwn != wwpn) continue;
        if ((which == Which::Physical && n.parent) || (which == Which::Virtual && !n.parent)) continue;
        if (is_live(n)) return k;
        if (!first) first = k;
    }
    return first;
}

std::vector<std::size_t> vports_of(const Adapter& a, const Wwn& physical) {
    std::vector<std::size_t> out;
    for (std::size_t k = 0; k < a.lnodes.size(); ++k) {
        if (a.lnodes[k].parent == physical) out.push_back(k);
    }
    return out;
}

uint32_t reported_vport_count(const Adapter& a, const LocalNode& n) {
    if (n.npiv_reported_count) return *n.npiv_reported_count;
    return static_cast<uint32_t>(vports_of(a, n.port_wwn).size());
}

void build_hw(const sim::Hw& h, hw_info& rec) {
    std::memset(&rec, 0, sizeof rec);
    put_text(rec.manufacturer, h.manufacturer);
    put_text(rec.model, h.model);
    put_text(rec.serial_num, h.serial_num);
    put_text(rec.hw_version, h.hw_version);
    put_text(rec.drv_version, h.drv_version);
    rec.vendor_id = h.vendor_id;
    rec.optrom_version = h.optrom_version;
    rec.fw_version = h.fw_version;
    rec.hw_byte_191 = h.byte_191;
    rec.hw_word_192 = h.word_192;
    rec.num_ports = h.num_ports ? *h.num_ports : static_cast<uint8_t>(std::min<std::size_t>(h.ports.size(), 255));

    // The later fields share bytes with the port table from its fourth entry
    // on; the table is written after them.
    hw_info_tail tail{};
    put_text(tail.hw_text_246, h.text_246);
    put_text(tail.hw_text_296, h.text_296);
    tail.hw_word_284 = h.word_284;
    tail.hw_word_288 = h.word_288;
    tail.hw_word_292 = h.word_292;
    tail.hw_word_332 = h.word_332;
    std::copy_n(h.block_336.begin(), std::min(h.block_336.size(), sizeof tail.hw_block_336), tail.hw_block_336);
    put(rec, HW_PORT_TABLE_OFFSET, &tail, sizeof tail);

    for (std::size_t p = 0; p < std::min(h.ports.size(), HW_PORT_TABLE_MAX); ++p) {
        hw_port entry{};
        entry.enabled = h.ports[p].enabled;
        entry.speed = h.ports[p].speed;
        put_bytes(entry.mac, h.ports[p].mac);
        put(rec, HW_PORT_TABLE_OFFSET + p * sizeof entry, &entry, sizeof entry);
    }
    apply(rec, h.raw);
}

void build_lnode(const Adapter& a, std::size_t k, uint64_t handle, lnode_info& rec) {
    const LocalNode& n = a.lnodes[k];
    std::memset(&rec, 0, sizeof rec);
    rec.port_num = n.port_num;
    rec.num_rnodes = n.num_rnodes ? *n.num_rnodes : static_cast<uint32_t>(n.rnodes.size());
    rec.lnode_word_5 = n.word_5;
    rec.lnode_handle = handle;
    put_bytes(rec.lnode_mac, n.mac);
    rec.fcid = n.fcid;
    rec.lnode_flag = n.flag;
    rec.lnode_word_28 = n.word_28 ? *n.word_28 : reported_vport_count(a, n);
    put_bytes(rec.port_wwn, n.port_wwn);
    put_bytes(rec.node_wwn, n.node_wwn);
    for (std::size_t i = 0; i < n.cos.size(); ++i) rec.cos[i].flags = n.cos[i];
    rec.fcf_index = n.fcf_index;
    rec.lnode_word_148 = n.word_148;
    rec.lnode_id = n.lnode_id;
    put(rec, offsetof(lnode_info, word_1409), n.words.data(), sizeof n.words);
    put(rec, offsetof(lnode_info, quad_1633), n.quads.data(), sizeof n.quads);
    put_text(rec.state, n.state);
    apply(rec, n.raw);
}

void build_closing_lnode(const Adapter& a, lnode_info& rec) {
    std::memset(&rec, 0, sizeof rec);
    apply(rec, a.closing_lnode);
}

void build_rnode(const RemoteNode& n, uint32_t index, rnode_info& rec) {
    std::memset(&rec, 0, sizeof rec);
    rec.rnode_index = index;
    rec.rnode_word_4 = n.word_4;
    rec.fcid = n.fcid;
    rec.rnode_byte_12 = n.byte_12;
    put_text(rec.role, n.role);
    put_bytes(rec.port_wwn, n.port_wwn);
    put_bytes(rec.node_wwn, n.node_wwn);
    for (std::size_t i = 0; i < n.cos.size(); ++i) rec.cos[i].flags = n.cos[i];
    put(rec, offsetof(rnode_info, word_1408), n.words.data(), sizeof n.words);
    put_text(rec.state, n.state);
    apply(rec, n.raw);
}

void build_closing_rnode(rnode_info& rec) {
    std::memset(&rec, 0, sizeof rec);
    rec.rnode_index = kFirstCursor;
}

void build_fcf(const sim::Fcf& f, fcf_info& rec) {
    std::memset(&rec, 0, sizeof rec);
    put_bytes(rec.fabric_name, f.fabric_name);
    rec.vlan_id = f.vlan;
    rec.max_frame_size = f.max_frame_size;
    rec.fcf_index = f.fcf_index;
    apply(rec, f.raw);
}

void build_closing_fcf(fcf_info& rec) {
    std::memset(&rec, 0, sizeof rec);
    rec.fcf_index = kFirstCursor;
}

int list_vports(const Adapter& a, uint8_t* buf, uint32_t size) {
    constexpr std::size_t kHead = offsetof(npiv_list, entry);
    if (size < kHead) return kBadArgument;
    Wwn physical;
    std::memcpy(physical.data(), buf + offsetof(npiv_list, phys_wwpn), physical.size());
    const auto port = find_lnode(a, physical, Which::Physical);
    if (!port) return kNotFound;

    const uint32_t count = reported_vport_count(a, a.lnodes[*port]);
    std::memcpy(buf + offsetof(npiv_list, count), &count, sizeof count);
    // Entries: the virtual port's WWPN, then (our driver's addition) its WWNN.
    const auto vports = vports_of(a, physical);
    const std::size_t room = std::min<std::size_t>(NPIV_LIST_MAX, (size - kHead) / sizeof(npiv_entry));
    for (std::size_t i = 0; i < std::min(vports.size(), room); ++i) {
        const LocalNode& v = a.lnodes[vports[i]];
        npiv_entry e{};
        put_bytes(e.wwpn, v.port_wwn);
        std::memcpy(e.rsvd_8, v.node_wwn.data(), v.node_wwn.size());
        std::memcpy(buf + kHead + i * sizeof e, &e, sizeof e);
    }
    return 0;
}

// Request: bytes 0..7 the virtual port's WWPN, 8..15 its WWNN, 16..23 the
// physical port's WWPN, 24..31 the physical port's WWNN (not checked).
int create_vport(const sim::Fabric& f, Adapter& a, const npiv_req& req) {
    const Wwn wwpn = wwn_at(req.wwn_0), physical = wwn_at(req.wwn_16);
    if (is_zero(wwpn)) return kBadArgument;
    const auto port = find_lnode(a, physical, Which::Physical);
    if (!port) return kNotFound;
    for (const auto& adapter : f.adapters) {
        for (const auto& n : adapter.lnodes) {
            if (n.port_wwn == wwpn) return kExists;
        }
    }
    if (vports_of(a, physical).size() >= a.npiv.max_vports) return kNoSpace;

    const LocalNode& parent = a.lnodes[*port];
    LocalNode v;
    v.port_num = parent.port_num;
    v.mac = parent.mac;
    v.fcf_index = parent.fcf_index;
    v.cos = parent.cos;
    v.state = "READY";
    v.port_wwn = wwpn;
    v.node_wwn = wwn_at(req.wwn_8);
    v.parent = physical;
    v.lnode_id = fresh_lnode_id(a);
    v.fcid = fresh_fcid(a, parent.fcid);
    v.rnodes = parent.npiv_template.empty() ? a.npiv_template : parent.npiv_template;
    a.lnodes.push_back(std::move(v));
    return 0;
}

int delete_vport(Adapter& a, const npiv_req& req) {
    const Wwn wwpn = wwn_at(req.wwn_0);
    if (is_zero(wwpn)) return kBadArgument;
    const auto before = a.lnodes.size();
    a.lnodes.erase(std::remove_if(a.lnodes.begin(), a.lnodes.end(),
                                  [&](const LocalNode& n) { return n.parent && n.port_wwn == wwpn; }),
                   a.lnodes.end());
    return a.lnodes.size() == before ? kNotFound : 0;
}

}  // namespace tusksim
