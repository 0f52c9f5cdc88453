// The fabric description: JSON in, JSON out, and equality.
//
// Every structure of fabric.h has one field table below (key, member,
// limits). Reading, writing and comparing all walk the same tables, so a key
// exists in the JSON exactly when a member exists in the structure, and
// parse_fabric(fabric_to_json(f)) gives f back.
#include "fabric.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <set>
#include <tuple>
#include <type_traits>

#include "mirvak/driver_records.h"

namespace sim {

using nlohmann::json;

namespace {

// ---------------------------------------------------------------------------
// Limits of one field.

enum class Kind { Plain, FileName, FileNameOrEmpty, Operation };

struct Opts {
    int64_t lo = std::numeric_limits<int64_t>::min();  // integers: smallest value
    uint64_t hi = std::numeric_limits<uint64_t>::max();  // integers: largest value
    std::size_t max_len = SIZE_MAX;  // characters of a text, bytes of a hex block, items of a list
    std::size_t record = 0;          // raw patches: size of the record they are written over
    Kind kind = Kind::Plain;
};

Opts range(int64_t lo, uint64_t hi) {
    Opts o;
    o.lo = lo;
    o.hi = hi;
    return o;
}
Opts max_len(std::size_t n) {
    Opts o;
    o.max_len = n;
    return o;
}
// A text that goes into a record field of `field` bytes, NUL included.
Opts text_field(std::size_t field) { return max_len(field - 1); }
Opts patches_of(std::size_t record) {
    Opts o;
    o.record = record;
    return o;
}
Opts kind(Kind k, std::size_t n = 255) {
    Opts o = max_len(n);
    o.kind = k;
    return o;
}

constexpr uint64_t kFcidMax = 0xFFFFFF;  // FC addresses are 24 bits

// ---------------------------------------------------------------------------
// Field tables.

template <class S, class T>
struct Field {
    const char* key;
    T S::*member;
    Opts opts;
};

template <class S, class T>
Field<S, T> field(const char* key, T S::*member, Opts opts = {}) {
    return {key, member, opts};
}

using Attr = std::pair<std::string, std::string>;

auto schema(const Attr*) {
    return std::make_tuple(field("name", &Attr::first, kind(Kind::FileName)),
                           field("value", &Attr::second, max_len(4096)));
}

auto schema(const Designator*) {
    return std::make_tuple(field("code_set", &Designator::code_set, range(0, 15)),
                           field("type", &Designator::type, range(0, 15)),
                           field("association", &Designator::association, range(0, 3)),
                           field("id", &Designator::id, max_len(255)));
}

auto schema(const Lun*) {
    return std::make_tuple(
        field("lun", &Lun::lun), field("has_vendor", &Lun::has_vendor),
        field("vendor", &Lun::vendor, max_len(255)), field("product", &Lun::product, max_len(255)),
        field("revision", &Lun::revision, max_len(255)), field("serial", &Lun::serial, max_len(255)),
        field("block", &Lun::block, kind(Kind::FileNameOrEmpty)), field("size", &Lun::size),
        field("block_dir", &Lun::block_dir), field("designators", &Lun::designators),
        field("block_link", &Lun::block_link), field("sysfs_name", &Lun::sysfs_name, max_len(255)),
        field("vendor_text", &Lun::vendor_text, max_len(4096)),
        field("size_text", &Lun::size_text, max_len(4096)),
        field("vpd83_raw", &Lun::vpd83_raw, max_len(4 + 0xFFFF)), field("sg_fail", &Lun::sg_fail),
        field("sg_version", &Lun::sg_version), field("no_device", &Lun::no_device));
}

auto schema(const RemoteNode*) {
    using R = RemoteNode;
    return std::make_tuple(
        field("rnode_index", &R::rnode_index), field("word_4", &R::word_4),
        field("fcid", &R::fcid, range(0, kFcidMax)), field("byte_12", &R::byte_12),
        field("role", &R::role, text_field(sizeof(rnode_info::role))),
        field("port_wwn", &R::port_wwn), field("node_wwn", &R::node_wwn), field("cos", &R::cos),
        field("state", &R::state, text_field(sizeof(rnode_info::state))),
        field("words", &R::words), field("raw", &R::raw, patches_of(sizeof(rnode_info))),
        field("in_sysfs", &R::in_sysfs), field("scsi_target", &R::scsi_target),
        field("sysfs_port_name", &R::sysfs_port_name, max_len(255)), field("luns", &R::luns));
}

auto schema(const LocalNode*) {
    using L = LocalNode;
    return std::make_tuple(
        field("port_num", &L::port_num), field("num_rnodes", &L::num_rnodes),
        field("word_5", &L::word_5), field("lnode_handle", &L::lnode_handle),
        field("mac", &L::mac), field("fcid", &L::fcid, range(0, kFcidMax)),
        field("flag", &L::flag), field("word_28", &L::word_28), field("port_wwn", &L::port_wwn),
        field("node_wwn", &L::node_wwn), field("cos", &L::cos), field("fcf_index", &L::fcf_index),
        field("word_148", &L::word_148), field("lnode_id", &L::lnode_id),
        field("words", &L::words), field("quads", &L::quads),
        field("state", &L::state, text_field(sizeof(lnode_info::state))),
        field("raw", &L::raw, patches_of(sizeof(lnode_info))), field("parent", &L::parent),
        field("scsi_host", &L::scsi_host, range(-1, INT_MAX)),
        field("sysfs_port_name", &L::sysfs_port_name, max_len(255)),
        field("sysfs_attrs", &L::sysfs_attrs), field("rnodes", &L::rnodes),
        field("npiv_reported_count", &L::npiv_reported_count),
        field("npiv_template", &L::npiv_template));
}

auto schema(const Fcf*) {
    return std::make_tuple(field("fcf_index", &Fcf::fcf_index),
                           field("fabric_name", &Fcf::fabric_name),
                           field("max_frame_size", &Fcf::max_frame_size), field("vlan", &Fcf::vlan),
                           field("raw", &Fcf::raw, patches_of(sizeof(fcf_info))));
}

auto schema(const HwPort*) {
    return std::make_tuple(field("enabled", &HwPort::enabled), field("speed", &HwPort::speed),
                           field("mac", &HwPort::mac));
}

auto schema(const Hw*) {
    const Opts text = text_field(sizeof(hw_info::manufacturer));  // every text field is 32 bytes
    return std::make_tuple(
        field("manufacturer", &Hw::manufacturer, text), field("model", &Hw::model, text),
        field("serial_num", &Hw::serial_num, text), field("hw_version", &Hw::hw_version, text),
        field("drv_version", &Hw::drv_version, text), field("vendor_id", &Hw::vendor_id),
        field("optrom_version", &Hw::optrom_version), field("fw_version", &Hw::fw_version),
        field("num_ports", &Hw::num_ports), field("byte_191", &Hw::byte_191),
        field("word_192", &Hw::word_192), field("word_284", &Hw::word_284),
        field("word_288", &Hw::word_288), field("word_292", &Hw::word_292),
        field("word_332", &Hw::word_332), field("text_246", &Hw::text_246, text),
        field("text_296", &Hw::text_296, text),
        field("block_336", &Hw::block_336, max_len(sizeof(hw_info_tail::hw_block_336))),
        field("ports", &Hw::ports, max_len(HW_PORT_TABLE_MAX)),
        field("raw", &Hw::raw, patches_of(sizeof(hw_info))));
}

auto schema(const NpivPolicy*) {
    using N = NpivPolicy;
    return std::make_tuple(field("create_status", &N::create_status),
                           field("delete_status", &N::delete_status),
                           field("refused_marker", &N::refused_marker),
                           field("max_vports", &N::max_vports));
}

auto schema(const Adapter*) {
    using A = Adapter;
    return std::make_tuple(field("instance", &A::instance, range(0, 31)),
                           field("probe_status", &A::probe_status), field("hw", &A::hw),
                           field("fcfs", &A::fcfs), field("lnodes", &A::lnodes),
                           field("closing_lnode", &A::closing_lnode, patches_of(sizeof(lnode_info))),
                           field("npiv", &A::npiv), field("npiv_template", &A::npiv_template));
}

auto schema(const Fault*) {
    return std::make_tuple(field("op", &Fault::op, kind(Kind::Operation)),
                           field("nth", &Fault::nth, range(1, UINT32_MAX)),
                           field("status", &Fault::status), field("every", &Fault::every),
                           field("hang", &Fault::hang, max_len(4095)));
}

auto schema(const Fabric*) {
    return std::make_tuple(field("adapters", &Fabric::adapters, max_len(32)),
                           field("faults", &Fabric::faults));
}

template <class S, class = void>
struct has_schema : std::false_type {};
template <class S>
struct has_schema<S, std::void_t<decltype(schema(static_cast<const S*>(nullptr)))>>
    : std::true_type {};

template <class S, class Fn>
void for_each_field(Fn&& fn) {
    std::apply([&](const auto&... f) { (fn(f), ...); }, schema(static_cast<const S*>(nullptr)));
}

// ---------------------------------------------------------------------------
// Hex texts: bytes of two digits each, optionally separated by one space,
// tab, newline or colon.

bool is_separator(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == ':'; }

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::vector<uint8_t>> parse_hex_bytes(const std::string& text) {
    std::vector<uint8_t> out;
    std::size_t i = 0;
    while (i < text.size()) {
        if (!out.empty() && is_separator(text[i])) ++i;  // at most one between two bytes
        if (i + 1 >= text.size()) return std::nullopt;   // a lone digit or a trailing separator
        const int hi = hex_value(text[i]), lo = hex_value(text[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<uint8_t>(hi << 4 | lo));
        i += 2;
    }
    return out;
}

const char kDigits[] = "0123456789abcdef";

std::string hex_text(const uint8_t* p, std::size_t n, const char* sep) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i) {
        if (i > 0) s += sep;
        s += kDigits[p[i] >> 4];
        s += kDigits[p[i] & 15];
    }
    return s;
}

template <std::size_t N>
std::optional<std::array<uint8_t, N>> parse_fixed_hex(std::string text) {
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text.erase(0, 2);
    const auto bytes = parse_hex_bytes(text);
    if (!bytes || bytes->size() != N) return std::nullopt;
    std::array<uint8_t, N> out{};
    std::copy(bytes->begin(), bytes->end(), out.begin());
    return out;
}

bool is_file_name(const std::string& s) {
    if (s.empty() || s == "." || s == "..") return false;
    for (char c : s) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') return false;
    }
    return true;
}

std::string join(const std::string& path, const std::string& key) {
    return path.empty() ? key : path + "." + key;
}
std::string item(const std::string& path, std::size_t i) {
    return path + "[" + std::to_string(i) + "]";
}

// ---------------------------------------------------------------------------
// JSON to structures.

class Reader {
public:
    explicit Reader(const std::string& source) : source_(source) {}

    [[noreturn]] void fail(const std::string& path, const std::string& what) const {
        throw FabricError(source_ + ": " + (path.empty() ? "" : path + ": ") + what);
    }

    template <class T>
    std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>> read(
        const json& j, const std::string& path, T& out, const Opts& o) const {
        const int64_t lo = std::max<int64_t>(o.lo, static_cast<int64_t>(std::numeric_limits<T>::min()));
        const uint64_t hi = std::min<uint64_t>(o.hi, static_cast<uint64_t>(std::numeric_limits<T>::max()));
        bool negative = false;
        uint64_t magnitude = 0;
        if (j.is_number_unsigned()) {
            magnitude = j.get<uint64_t>();
        } else if (j.is_number_integer()) {
            const int64_t v = j.get<int64_t>();
            negative = v < 0;
            magnitude = negative ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
        } else if (!j.is_string() || !parse_hex_number(j.get<std::string>(), negative, magnitude)) {
            fail(path, "expected an integer (a number or a \"0x...\" string)");
        }
        const bool fits = negative ? (lo < 0 && magnitude <= 0 - static_cast<uint64_t>(lo))
                                   : (magnitude <= hi && (lo <= 0 || magnitude >= static_cast<uint64_t>(lo)));
        if (!fits) {
            fail(path, "value " + std::string(negative ? "-" : "") + std::to_string(magnitude) +
                           " out of range " + std::to_string(lo) + ".." + std::to_string(hi));
        }
        out = negative ? static_cast<T>(0 - magnitude) : static_cast<T>(magnitude);
    }

    void read(const json& j, const std::string& path, bool& out, const Opts&) const {
        if (!j.is_boolean()) fail(path, "expected true or false");
        out = j.get<bool>();
    }

    void read(const json& j, const std::string& path, std::string& out, const Opts& o) const {
        if (!j.is_string()) fail(path, "expected a string");
        out = j.get<std::string>();
        if (out.size() > o.max_len) fail(path, "text longer than " + std::to_string(o.max_len) + " characters");
        switch (o.kind) {
        case Kind::Plain:
            break;
        case Kind::FileNameOrEmpty:
            if (out.empty()) break;
            [[fallthrough]];
        case Kind::FileName:
            if (!is_file_name(out)) fail(path, "expected a file name (letters, digits, '.', '_', '-')");
            break;
        case Kind::Operation:
            if (std::find_if(kOperationNames.begin(), kOperationNames.end(),
                             [&](const char* n) { return out == n; }) == kOperationNames.end()) {
                fail(path, "unknown operation \"" + out + "\"");
            }
            break;
        }
    }

    void read(const json& j, const std::string& path, Wwn& out, const Opts&) const {
        read_fixed_hex(j, path, out, "expected 16 hex digits");
    }

    void read(const json& j, const std::string& path, Mac& out, const Opts&) const {
        read_fixed_hex(j, path, out, "expected 12 hex digits");
    }

    void read(const json& j, const std::string& path, std::vector<uint8_t>& out, const Opts& o) const {
        const auto bytes = j.is_string() ? parse_hex_bytes(j.get<std::string>()) : std::nullopt;
        if (!bytes) fail(path, "expected hex bytes such as \"de ad be ef\"");
        if (bytes->size() > o.max_len) fail(path, "more than " + std::to_string(o.max_len) + " bytes");
        out = *bytes;
    }

    template <class T, std::size_t N>
    void read(const json& j, const std::string& path, std::array<T, N>& out, const Opts& o) const {
        if (!j.is_array()) fail(path, "expected a list");
        if (j.size() > N) fail(path, "more than " + std::to_string(N) + " items");
        out = {};
        for (std::size_t i = 0; i < j.size(); ++i) read(j[i], item(path, i), out[i], o);
    }

    template <class T>
    void read(const json& j, const std::string& path, std::optional<T>& out, const Opts& o) const {
        if (j.is_null()) {
            out.reset();
            return;
        }
        T v{};
        read(j, path, v, o);
        out = std::move(v);
    }

    template <class T>
    void read(const json& j, const std::string& path, std::vector<T>& out, const Opts& o) const {
        if (!j.is_array()) fail(path, "expected a list");
        if (j.size() > o.max_len) fail(path, "more than " + std::to_string(o.max_len) + " items");
        Opts each = o;
        each.max_len = SIZE_MAX;
        out.assign(j.size(), T{});
        for (std::size_t i = 0; i < j.size(); ++i) read(j[i], item(path, i), out[i], each);
    }

    void read(const json& j, const std::string& path, RawPatch& out, const Opts& o) const {
        expect_keys(j, path, {"offset", "hex"});
        if (!j.contains("offset") || !j.contains("hex")) fail(path, "expected \"offset\" and \"hex\"");
        read(j["offset"], join(path, "offset"), out.offset, Opts{});
        read(j["hex"], join(path, "hex"), out.bytes, Opts{});
        if (out.bytes.empty()) fail(join(path, "hex"), "expected at least one byte");
        if (out.offset >= o.record || out.bytes.size() > o.record - out.offset) {
            fail(join(path, "offset"), std::to_string(out.bytes.size()) + " bytes at offset " +
                                           std::to_string(out.offset) + " run past the " +
                                           std::to_string(o.record) + "-byte record");
        }
    }

    template <class S>
    std::enable_if_t<has_schema<S>::value> read(const json& j, const std::string& path, S& out,
                                                const Opts&) const {
        std::vector<const char*> keys;
        for_each_field<S>([&](const auto& f) { keys.push_back(f.key); });
        expect_keys(j, path, keys);
        for_each_field<S>([&](const auto& f) {
            const auto it = j.find(f.key);
            if (it != j.end()) read(*it, join(path, f.key), out.*(f.member), f.opts);
        });
        check(path, out);
    }

private:
    static bool parse_hex_number(const std::string& s, bool& negative, uint64_t& magnitude) {
        std::size_t i = 0;
        negative = !s.empty() && s[0] == '-';
        if (negative) ++i;
        if (s.size() < i + 3 || s[i] != '0' || (s[i + 1] != 'x' && s[i + 1] != 'X')) return false;
        i += 2;
        if (s.size() - i > 16) return false;
        magnitude = 0;
        for (; i < s.size(); ++i) {
            const int v = hex_value(s[i]);
            if (v < 0) return false;
            magnitude = magnitude << 4 | static_cast<uint64_t>(v);
        }
        negative = negative && magnitude != 0;
        return true;
    }

    template <std::size_t N>
    void read_fixed_hex(const json& j, const std::string& path, std::array<uint8_t, N>& out,
                        const char* what) const {
        const auto v = j.is_string() ? parse_fixed_hex<N>(j.get<std::string>()) : std::nullopt;
        if (!v) fail(path, what);
        out = *v;
    }

    void expect_keys(const json& j, const std::string& path, const std::vector<const char*>& keys) const {
        if (!j.is_object()) fail(path, "expected an object");
        for (const auto& kv : j.items()) {
            if (std::find_if(keys.begin(), keys.end(), [&](const char* k) { return kv.key() == k; }) ==
                keys.end()) {
                fail(join(path, kv.key()), "unknown key");
            }
        }
    }

    // Rules that span several fields, checked once the structure is read.
    template <class S>
    void check(const std::string&, const S&) const {}

    // No two items of a list may share a cursor or identity value.
    template <class T, class Get>
    void check_unique(const std::string& path, const char* list, const std::vector<T>& items,
                      const char* key, Get get) const {
        for (std::size_t i = 0; i < items.size(); ++i) {
            const auto vi = get(items[i]);
            if (!vi) continue;
            for (std::size_t k = 0; k < i; ++k) {
                if (get(items[k]) == vi) {
                    fail(join(item(join(path, list), i), key),
                         std::to_string(*vi) + " already used by " + item(list, k));
                }
            }
        }
    }

    void check(const std::string& path, const LocalNode& n) const {
        const auto index = [](const RemoteNode& r) { return r.rnode_index; };
        check_unique(path, "rnodes", n.rnodes, "rnode_index", index);
        check_unique(path, "npiv_template", n.npiv_template, "rnode_index", index);
    }

    void check(const std::string& path, const Adapter& a) const {
        check_unique(path, "lnodes", a.lnodes, "lnode_handle", [](const LocalNode& n) {
            return n.lnode_handle && *n.lnode_handle != 0 ? n.lnode_handle : std::nullopt;
        });
        check_unique(path, "fcfs", a.fcfs, "fcf_index",
                     [](const Fcf& f) { return std::optional<uint32_t>(f.fcf_index); });
        check_unique(path, "npiv_template", a.npiv_template, "rnode_index",
                     [](const RemoteNode& r) { return r.rnode_index; });
        for (std::size_t i = 0; i < a.lnodes.size(); ++i) {
            const auto& parent = a.lnodes[i].parent;
            if (!parent) continue;
            const bool found = std::any_of(a.lnodes.begin(), a.lnodes.end(), [&](const LocalNode& p) {
                return !p.parent && p.port_wwn == *parent;
            });
            if (!found) {
                fail(join(item(join(path, "lnodes"), i), "parent"),
                     "no physical port with WWPN " + wwn_to_hex(*parent) + " on this adapter");
            }
        }
    }

    void check(const std::string& path, const Fabric& f) const {
        check_unique(path, "adapters", f.adapters, "instance",
                     [](const Adapter& a) { return std::optional<uint32_t>(a.instance); });
    }

    std::string source_;
};

// ---------------------------------------------------------------------------
// Structures to JSON. A field that holds its default value is left out.

template <class T>
std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, json> write(const T& v) {
    if constexpr (std::is_signed_v<T>) {
        return json(static_cast<int64_t>(v));
    } else {
        return json(static_cast<uint64_t>(v));
    }
}
json write(bool v) { return json(v); }
json write(const std::string& v) { return json(v); }
json write(const Wwn& v) { return json(wwn_to_hex(v)); }
json write(const Mac& v) { return json(hex_text(v.data(), v.size(), ":")); }
json write(const std::vector<uint8_t>& v) { return json(hex_text(v.data(), v.size(), " ")); }
json write(const RawPatch& p) {
    return json{{"offset", p.offset}, {"hex", write(p.bytes)}};
}
template <class T>
json write(const std::optional<T>& v);
template <class T>
json write(const std::vector<T>& v);
template <class T, std::size_t N>
json write(const std::array<T, N>& v);
template <class S>
std::enable_if_t<has_schema<S>::value, json> write(const S& s);

template <class T>
json write(const std::optional<T>& v) {
    return v ? write(*v) : json(nullptr);
}
template <class T>
json write(const std::vector<T>& v) {
    json out = json::array();
    for (const auto& x : v) out.push_back(write(x));
    return out;
}
template <class T, std::size_t N>
json write(const std::array<T, N>& v) {
    json out = json::array();
    for (const auto& x : v) out.push_back(write(x));
    return out;
}
template <class S>
const S& defaults_of() {
    static const S defaults{};
    return defaults;
}

template <class S>
std::enable_if_t<has_schema<S>::value, json> write(const S& s) {
    json out = json::object();
    for_each_field<S>([&](const auto& f) {
        if (!(s.*(f.member) == defaults_of<S>().*(f.member))) out[f.key] = write(s.*(f.member));
    });
    return out;
}

template <class S>
bool same_fields(const S& a, const S& b) {
    bool same = true;
    for_each_field<S>([&](const auto& f) { same = same && a.*(f.member) == b.*(f.member); });
    return same;
}

// Reject a key given twice in one object (the JSON reader would keep the
// last silently) and nesting deeper than any description needs.
class StrictParse {
public:
    explicit StrictParse(const std::string& source) : source_(source) {}
    bool operator()(int depth, json::parse_event_t event, json& parsed) {
        if (depth > 32) throw FabricError(source_ + ": nested too deeply");
        switch (event) {
        case json::parse_event_t::object_start:
            keys_.emplace_back();
            break;
        case json::parse_event_t::object_end:
            keys_.pop_back();
            break;
        case json::parse_event_t::key:
            if (!keys_.back().insert(parsed.get<std::string>()).second) {
                throw FabricError(source_ + ": key \"" + parsed.get<std::string>() + "\" given twice");
            }
            break;
        default:
            break;
        }
        return true;
    }

private:
    std::string source_;
    std::vector<std::set<std::string>> keys_;
};

}  // namespace

#define MV_SIM_EQUALITY(T) \
    bool operator==(const T& a, const T& b) { return same_fields(a, b); }
MV_SIM_EQUALITY(Designator)
MV_SIM_EQUALITY(Lun)
MV_SIM_EQUALITY(RemoteNode)
MV_SIM_EQUALITY(LocalNode)
MV_SIM_EQUALITY(Fcf)
MV_SIM_EQUALITY(HwPort)
MV_SIM_EQUALITY(Hw)
MV_SIM_EQUALITY(NpivPolicy)
MV_SIM_EQUALITY(Adapter)
MV_SIM_EQUALITY(Fault)
MV_SIM_EQUALITY(Fabric)
#undef MV_SIM_EQUALITY

bool operator==(const RawPatch& a, const RawPatch& b) {
    return a.offset == b.offset && a.bytes == b.bytes;
}

Fabric parse_fabric(const json& doc, const std::string& source) {
    Fabric f;
    Reader(source).read(doc, "", f, Opts{});
    return f;
}

Fabric parse_fabric_text(const std::string& text, const std::string& source) {
    json doc;
    try {
        StrictParse strict(source);
        doc = json::parse(text, std::ref(strict), true, /*ignore_comments=*/true);
    } catch (const json::exception& e) {
        // "[json.exception.parse_error.101] parse error at line 3, ..." without its tag.
        // A number too large for any JSON number type ("1E400") is refused
        // the same way (out_of_range.406).
        std::string what = e.what();
        const auto tag_end = what.find("] ");
        if (what.rfind("[json.exception", 0) == 0 && tag_end != std::string::npos) what.erase(0, tag_end + 2);
        throw FabricError(source + ": " + what);
    }
    return parse_fabric(doc, source);
}

Fabric load_fabric_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw FabricError(path + ": cannot open: " + std::strerror(errno));
    std::string text;
    char chunk[1 << 16];
    while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
        text.append(chunk, static_cast<std::size_t>(in.gcount()));
        if (text.size() > kMaxFabricFileBytes) {
            throw FabricError(path + ": larger than " + std::to_string(kMaxFabricFileBytes) + " bytes");
        }
    }
    if (in.bad()) throw FabricError(path + ": cannot read: " + std::strerror(errno));
    return parse_fabric_text(text, path);
}

json fabric_to_json(const Fabric& f) {
    json out = write(f);
    if (!out.contains("adapters")) out["adapters"] = json::array();
    return out;
}

std::string wwn_to_hex(const Wwn& w) { return hex_text(w.data(), w.size(), ""); }

std::optional<Wwn> parse_wwn(const std::string& text) { return parse_fixed_hex<8>(text); }

}  // namespace sim
