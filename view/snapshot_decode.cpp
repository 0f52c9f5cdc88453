#include "view/snapshot_decode.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <vector>

#include "mirvak/mgmt_records.h"
#include "mirvak/snapshot_records.h"
#include "view/records.h"

namespace mv::tool {

namespace {

using nlohmann::json;
using snapshot::adapter_record;
using snapshot::lun_record;
using snapshot::port_record;
using snapshot::remote_record;

std::string at_offset(const std::string& what, std::size_t off) {
    return what + " (byte offset " + std::to_string(off) + ")";
}

#define TEXT(f) field_text((f), sizeof(f))

// The bounded view of the stream: every read is checked against the end.
class Reader {
public:
    Reader(const unsigned char* data, std::size_t size, SnapshotDetail detail)
        : data_(data), size_(size), fields_(detail == SnapshotDetail::Fields) {}

    // Whether each record's fields go into the tree (else its place only).
    bool fields() const { return fields_; }

    std::size_t pos() const { return pos_; }
    std::size_t left() const { return size_ - pos_; }
    bool at_end() const { return pos_ == size_; }

    // The next record of type R, copied out (records stand unaligned).
    template <class R>
    R take(const char* what) {
        if (left() < sizeof(R)) {
            throw DecodeError(pos_, at_offset(std::string("stream ends inside ") + what + ": " +
                                                  std::to_string(left()) + " of its " + std::to_string(sizeof(R)) +
                                                  " bytes present",
                                              pos_));
        }
        R rec;
        std::memcpy(&rec, data_ + pos_, sizeof rec);
        pos_ += sizeof rec;
        return rec;
    }

    // Whether an adapter record starts here: one fits, and its two copies
    // of the adapter description are the same bytes (no other record
    // carries such a pair).
    bool adapter_record_here() const {
        if (left() < sizeof(adapter_record)) return false;
        const unsigned char* rec = data_ + pos_;
        return std::memcmp(rec + offsetof(adapter_record, info), rec + offsetof(adapter_record, info_copy),
                           sizeof(adapter_info)) == 0;
    }

    // Whether the n bytes starting here are all zero (n must fit).
    bool zero_here(std::size_t n) const {
        for (std::size_t i = 0; i < n; ++i) {
            if (data_[pos_ + i] != 0) return false;
        }
        return true;
    }

private:
    const unsigned char* data_;
    std::size_t size_;
    bool fields_;
    std::size_t pos_ = 0;
};

template <class T, std::size_t N>
T load_area(const uint8_t (&area)[N]) {
    static_assert(sizeof(T) == N, "record area size");
    T v;
    std::memcpy(&v, area, sizeof v);
    return v;
}

void expect_index(uint32_t got, uint32_t want, const char* what, std::size_t off) {
    if (got != want) {
        throw DecodeError(off, at_offset(std::string(what) + " carries index " + std::to_string(got) + " where " +
                                             std::to_string(want) + " was expected",
                                         off));
    }
}

json lun(Reader& in, uint32_t want) {
    const std::size_t off = in.pos();
    const lun_record rec = in.take<lun_record>("a LUN record");
    expect_index(rec.index, want, "LUN record", off);
    json l = in.fields() ? lun_info_json(load_area<lun_info>(rec.lun)) : json::object();
    l["offset"] = off;
    l["index"] = rec.index;
    return l;
}

// A remote port (of a physical or a virtual port) and its LUNs.
json remote(Reader& in, uint32_t want) {
    const std::size_t off = in.pos();
    const remote_record rec = in.take<remote_record>("a remote-port record");
    expect_index(rec.index, want, "remote-port record", off);
    const port_info p = load_area<port_info>(rec.info);
    const port_stats s = load_area<port_stats>(rec.stats);
    json r = in.fields() ? port_info_json(p, PortKind::Remote) : json::object();
    r["offset"] = off;
    r["index"] = rec.index;
    r["lun_count"] = rec.child_count;
    r["parent_index"] = static_cast<uint32_t>(s.port_num);
    if (in.fields()) r["statistics"] = port_stats_json(s, PortKind::Remote);
    json luns = json::array();
    for (uint32_t j = 0; j < rec.child_count; ++j) luns.push_back(lun(in, j));
    r["luns"] = luns;
    return r;
}

// A virtual port and its remote ports.
json virtual_port(Reader& in, uint32_t want) {
    const std::size_t off = in.pos();
    const remote_record rec = in.take<remote_record>("a virtual-port record");
    expect_index(rec.index, want, "virtual-port record", off);
    const port_info p = load_area<port_info>(rec.info);
    const port_stats s = load_area<port_stats>(rec.stats);
    json v = in.fields() ? port_info_json(p, PortKind::Virtual) : json::object();
    v["offset"] = off;
    v["index"] = rec.index;
    v["remote_count"] = rec.child_count;
    v["parent_index"] = static_cast<uint32_t>(p.port_num);
    if (in.fields()) v["statistics"] = port_stats_json(s, PortKind::Virtual);
    json remotes = json::array();
    for (uint32_t k = 0; k < rec.child_count; ++k) remotes.push_back(remote(in, k));
    v["remote_ports"] = remotes;
    return v;
}

json port(Reader& in, const std::string& adapter_name, uint32_t port_count, int64_t previous) {
    const std::size_t off = in.pos();
    const port_record rec = in.take<port_record>("a port record");
    const port_info p = load_area<port_info>(rec.info);
    const port_stats s = load_area<port_stats>(rec.stats);
    // Port records of one adapter come in rising index order (a port whose
    // query failed leaves a gap) and carry the adapter's name.
    if (static_cast<int64_t>(rec.index) <= previous || rec.index >= port_count) {
        throw DecodeError(off, at_offset("port record carries index " + std::to_string(rec.index) +
                                             ", outside the adapter's " + std::to_string(port_count) +
                                             " ports or not after the previous port",
                                         off));
    }
    if (TEXT(p.adapter_name) != adapter_name) {
        throw DecodeError(off, at_offset("port record names adapter \"" + TEXT(p.adapter_name) + "\", not \"" +
                                             adapter_name + "\"",
                                         off));
    }
    json j = in.fields() ? port_info_json(p, PortKind::Local) : json::object();
    j["offset"] = off;
    j["index"] = rec.index;
    j["remote_count"] = rec.remote_count;
    j["vport_count"] = rec.vport_count;
    if (in.fields()) j["statistics"] = port_stats_json(s, PortKind::Local);
    json remotes = json::array();
    for (uint32_t r = 0; r < rec.remote_count; ++r) remotes.push_back(remote(in, r));
    j["remote_ports"] = remotes;
    json vports = json::array();
    bool listed = true;
    // A cleared record in place of the first virtual port stands for a list
    // the library could not get: nothing else follows for this port.
    if (rec.vport_count != 0 && in.left() >= sizeof(remote_record) && in.zero_here(sizeof(remote_record))) {
        (void)in.take<remote_record>("a virtual-port record");
        listed = false;
    } else {
        for (uint32_t v = 0; v < rec.vport_count; ++v) vports.push_back(virtual_port(in, v));
    }
    j["virtual_ports"] = vports;
    j["virtual_ports_listed"] = listed;
    return j;
}

json adapter(Reader& in, std::set<uint32_t>& seen) {
    const std::size_t off = in.pos();
    if (!in.adapter_record_here()) {
        if (in.left() < sizeof(adapter_record)) (void)in.take<adapter_record>("an adapter record");
        throw DecodeError(off, at_offset("no adapter record here: its two copies of the adapter description differ",
                                         off));
    }
    const adapter_record rec = in.take<adapter_record>("an adapter record");
    const adapter_info a = load_area<adapter_info>(rec.info);
    const bool repeat = !seen.insert(rec.index).second;

    json j = in.fields() ? adapter_info_json(a) : json::object();
    j["offset"] = off;
    j["index"] = rec.index;
    j["port_count"] = rec.port_count;
    j["repeat"] = repeat;

    // Port records follow until the adapter's count is reached or the next
    // adapter record begins (ports whose queries failed leave no record, and
    // an adapter whose later port failed comes again at once).
    json ports = json::array();
    const std::string name = TEXT(a.adapter_name);
    int64_t previous = -1;
    while (ports.size() < rec.port_count) {
        if (in.adapter_record_here()) break;
        if (in.at_end()) {
            throw DecodeError(in.pos(), at_offset("stream ends where a port record of adapter " +
                                                      std::to_string(rec.index) + " was expected",
                                                  in.pos()));
        }
        json p = port(in, name, rec.port_count, previous);
        previous = p["index"].get<int64_t>();
        ports.push_back(std::move(p));
    }
    j["ports_present"] = ports.size();
    j["ports"] = ports;
    return j;
}

// ---- Text ----

void line(std::ostringstream& out, int depth, const std::string& s) {
    out << std::string(static_cast<std::size_t>(depth) * 2, ' ') << s << '\n';
}

std::string scalar(const json& v) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_array()) {
        std::string s;
        for (const auto& e : v) s += (s.empty() ? "" : " ") + scalar(e);
        return s;
    }
    return v.dump();
}

// Heading of each entry of the child lists.
const char* child_title(const std::string& key) {
    if (key == "adapters") return "Adapter";
    if (key == "ports") return "Port";
    if (key == "remote_ports") return "Remote port";
    if (key == "virtual_ports") return "Virtual port";
    if (key == "luns") return "LUN";
    return nullptr;
}

void object_text(std::ostringstream& out, const json& obj, int depth) {
    // Scalars first, then nested groups (fcoe, statistics, hardware), then
    // the child lists, each in key order.
    std::vector<std::string> groups, lists;
    for (auto it = obj.begin(); it != obj.end(); ++it) {
        const json& v = it.value();
        if (v.is_object()) {
            groups.push_back(it.key());
        } else if (v.is_array() && child_title(it.key()) != nullptr) {
            lists.push_back(it.key());
        } else {
            line(out, depth, it.key() + ": " + scalar(v));
        }
    }
    for (const auto& k : groups) {
        line(out, depth, k + ":");
        object_text(out, obj[k], depth + 1);
    }
    for (const auto& k : lists) {
        for (const auto& child : obj[k]) {
            const std::string index = child.contains("index") ? " " + scalar(child["index"]) : "";
            line(out, depth, std::string(child_title(k)) + index + ":");
            object_text(out, child, depth + 1);
        }
    }
}

}  // namespace

DecodeError::DecodeError(std::size_t off, const std::string& what) : std::runtime_error(what), offset(off) {}

json decode_snapshot(const unsigned char* data, std::size_t size, SnapshotDetail detail) {
    if (data == nullptr && size != 0) throw DecodeError(0, "no stream (null data)");
    static const unsigned char kNothing[1] = {0};
    Reader in(data != nullptr ? data : kNothing, data != nullptr ? size : 0, detail);
    const uint32_t count = in.take<uint32_t>("the 4-byte header");
    json tree = {{"adapter_count", count}};
    json adapters = json::array();
    std::set<uint32_t> seen;
    // The header counts the adapters reported, not the records present:
    // records are read to the end of the stream.
    while (!in.at_end()) adapters.push_back(adapter(in, seen));
    tree["adapter_records"] = adapters.size();
    tree["adapters"] = adapters;
    tree["size"] = size;
    return tree;
}

std::string snapshot_text(const json& tree) {
    std::ostringstream out;
    if (!tree.is_object()) return tree.dump() + "\n";
    object_text(out, tree, 0);
    return out.str();
}

}  // namespace mv::tool
