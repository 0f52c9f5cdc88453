#include "tools/facade_commands.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "facade/keys.h"
#include "tools/codes.h"
#include "view/records.h"

using nlohmann::json;

namespace mv::tool {

namespace {

// Room the facade's fixed-buffer answers are given: it never checks the
// buffer, so it must hold the largest answer the request can have.
constexpr std::size_t kMinPortRecords = 256;
// The remote-port listing by WWPN takes its block to hold at least this
// much (and grows it with realloc beyond).
constexpr std::size_t kRemoteBlock = 256 * 1024;

// A block the facade allocates (or, for the remote-port listing, grows)
// with malloc; released here.
struct MallocBlock {
    char* p = nullptr;
    MallocBlock() = default;
    explicit MallocBlock(std::size_t n) : p(static_cast<char*>(std::calloc(n, 1))) {
        if (!p) throw std::bad_alloc();
    }
    ~MallocBlock() { std::free(p); }
    MallocBlock(const MallocBlock&) = delete;
    MallocBlock& operator=(const MallocBlock&) = delete;
};

port_info port_key(const std::string& adapter, const Selection& sel) {
    return mv::facade::port_key(adapter, sel.port.value_or(0), sel.wwpn ? sel.wwpn->data() : nullptr);
}

// The key of the remote-port, virtual-port and LUN requests. The local port
// goes into the virtual-port WWPN field whether it is virtual or physical:
// the extended functions name a remote port by that pair.
vport_in vport_key(const std::string& adapter, const Selection& sel) {
    const std::optional<Wwn>& local = sel.vport_wwpn ? sel.vport_wwpn : sel.wwpn;
    return mv::facade::vport_key(adapter, static_cast<uint16_t>(sel.port.value_or(0)),
                                 static_cast<uint16_t>(sel.vport.value_or(0)),
                                 static_cast<uint16_t>(sel.rport.value_or(0)), local ? local->data() : nullptr,
                                 sel.rport_wwpn ? sel.rport_wwpn->data() : nullptr);
}

// The records of an answer, each copied out of the byte stream.
template <class Rec>
std::vector<Rec> records(const void* data, std::size_t size, const char* method) {
    if (size % sizeof(Rec) != 0)
        throw RequestFailed(FCOE_ERR_FAILED, std::string(method) + " answered " + std::to_string(size) +
                                                 " bytes, not a whole number of " + std::to_string(sizeof(Rec)) +
                                                 "-byte records");
    std::vector<Rec> out(size / sizeof(Rec));
    if (!out.empty()) std::memcpy(static_cast<void*>(out.data()), data, size);
    return out;
}

template <class Rec, class ToJson>
json records_json(const std::vector<Rec>& recs, ToJson to_json) {
    json list = json::array();
    for (const Rec& r : recs) list.push_back(to_json(r));
    return list;
}

// The renderer of a port record of the kind given.
auto port_renderer(PortKind kind) {
    return [kind](const port_info& p) { return port_info_json(p, kind); };
}

// The port a selection names, in words: "port 1" or "port 21:00:...".
std::string port_words(const Selection& sel) {
    if (sel.wwpn) return "port " + wwn_text(*sel.wwpn);
    return "port " + std::to_string(sel.port.value_or(0));
}

std::string vport_words(const Selection& sel) {
    if (sel.vport_wwpn) return "virtual port " + wwn_text(*sel.vport_wwpn);
    return port_words(sel) + ", virtual port " + std::to_string(sel.vport.value_or(0));
}

std::string rport_words(const Selection& sel) {
    if (sel.rport_wwpn) return "remote port " + wwn_text(*sel.rport_wwpn);
    return "remote port " + std::to_string(sel.rport.value_or(0));
}

// A list of records printed one after the other under a title each.
Outcome list_outcome(json data, const char* key, std::function<std::string(std::size_t)> title,
                     std::function<void(std::FILE*, const json&)> print, const char* none) {
    Outcome o;
    o.data = std::move(data);
    const json list = o.data[key];
    o.text = [list, title, print, none](std::FILE* out) {
        if (list.empty()) std::fprintf(out, "%s\n", none);
        for (std::size_t i = 0; i < list.size(); ++i) {
            std::fprintf(out, "%s\n", title(i).c_str());
            print(out, list[i]);
        }
    };
    return o;
}

Outcome one_outcome(json data, const char* key, const std::string& title,
                    std::function<void(std::FILE*, const json&)> print) {
    Outcome o;
    o.data = std::move(data);
    const json rec = o.data[key];
    o.text = [rec, title, print](std::FILE* out) {
        std::fprintf(out, "%s\n", title.c_str());
        print(out, rec);
    };
    return o;
}

// NumberOfPorts of the adapter as the standard face reports it; 0 when it
// cannot be read (the request itself then says why).
uint32_t number_of_ports(const std::string& adapter) {
    OpenAdapter a(adapter);
    if (!a.ok()) return 0;
    HBA_ADAPTERATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);
    if (mirvak_GetAdapterAttributes(a.handle(), &attr) != HBA_STATUS_OK) return 0;
    return attr.NumberOfPorts;
}

std::vector<unsigned char> port_buffer(const std::string& adapter) {
    const std::size_t n = std::max<std::size_t>(number_of_ports(adapter), kMinPortRecords);
    return std::vector<unsigned char>(n * sizeof(port_info));
}

auto local_port_printer(PortKind kind) {
    return [kind](std::FILE* out, const json& p) { print_port_info(out, p, 2, kind); };
}

// One statistics record asked with a port or remote-port key, as data and
// as text.
template <class Key>
Outcome stats_outcome(Session& s, const std::string& name, Key key, int (MvFCoEIni::*method)(Key*, void*, unsigned int*),
                      const char* method_name, const std::string& title, PortKind kind) {
    port_stats stats;
    std::memset(&stats, 0, sizeof stats);
    unsigned int size = 0;
    check_facade((s.facade().*method)(&key, &stats, &size), method_name);
    return one_outcome(json{{"adapter_name", name}, {"statistics", port_stats_json(stats, kind)}}, "statistics", title,
                       [kind](std::FILE* out, const json& st) { print_port_stats(out, st, 2, kind); });
}

}  // namespace

Outcome adapter_info_command(Session& s) {
    const std::size_t n = std::max<std::size_t>(s.adapter_names().size(), 1);
    std::vector<unsigned char> buf(n * sizeof(adapter_info));
    unsigned int size = 0;
    check_facade(s.facade().GetFCoEAdapters(buf.data(), &size), "GetFCoEAdapters");
    const auto recs = records<adapter_info>(buf.data(), std::min<std::size_t>(size, buf.size()), "GetFCoEAdapters");
    json list = json::array();
    for (std::size_t i = 0; i < recs.size(); ++i) {
        json a = adapter_info_json(recs[i]);
        a["index"] = i;
        list.push_back(a);
    }
    return list_outcome(
        json{{"adapters", list}}, "adapters",
        [list](std::size_t i) {
            const std::string name = list[i]["name"];
            return "Adapter " + std::to_string(i) + ": " + (name.empty() ? "(no information)" : name);
        },
        [](std::FILE* out, const json& a) {
            if (!a["name"].get<std::string>().empty()) print_adapter_info(out, a, 2);
        },
        "No adapters.");
}

Outcome adapter_stats_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    adapter_info rec;
    std::memset(&rec, 0, sizeof rec);
    unsigned int size = 0;
    check_facade(s.facade().GetFCoEAdapterStats(name.c_str(), &rec, &size), "GetFCoEAdapterStats");
    return one_outcome(json{{"adapter", adapter_info_json(rec)}}, "adapter", "Adapter " + name,
                       [](std::FILE* out, const json& a) { print_adapter_info(out, a, 2); });
}

Outcome ports_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    port_info key = port_key(name, Selection{});
    std::vector<unsigned char> buf = port_buffer(name);
    unsigned int size = 0;
    check_facade(s.facade().GetAllPortsInfo(&key, buf.data(), &size), "GetAllPortsInfo");
    const json list = records_json(records<port_info>(buf.data(), std::min<std::size_t>(size, buf.size()),
                                                      "GetAllPortsInfo"),
                                   port_renderer(PortKind::Local));
    return list_outcome(
        json{{"adapter_name", name}, {"ports", list}}, "ports",
        [name, list](std::size_t i) { return name + " port " + value_text(list[i]["port_num"]); },
        local_port_printer(PortKind::Local), "No ports.");
}

Outcome port_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    Selection by_wwpn;
    by_wwpn.wwpn = sel.wwpn;  // the request selects by WWPN alone; a port number is picked from all ports
    port_info key = port_key(name, by_wwpn);
    std::vector<unsigned char> buf = port_buffer(name);
    unsigned int size = 0;
    check_facade(s.facade().GetPortInfo(&key, buf.data(), &size), "GetPortInfo");
    json list = records_json(records<port_info>(buf.data(), std::min<std::size_t>(size, buf.size()), "GetPortInfo"),
                             port_renderer(PortKind::Local));
    if (sel.port) {
        json chosen = json::array();
        for (const json& p : list)
            if (p["port_num"] == *sel.port) chosen.push_back(p);
        if (chosen.empty())
            throw RequestFailed(FCOE_ERR_PORT, name + " has " + std::to_string(list.size()) + " port" +
                                                   (list.size() == 1 ? "" : "s") + "; there is no port " +
                                                   std::to_string(*sel.port));
        list = chosen;
    }
    return list_outcome(
        json{{"adapter_name", name}, {"ports", list}}, "ports",
        [name, list](std::size_t i) { return name + " port " + value_text(list[i]["port_num"]); },
        local_port_printer(PortKind::Local), "No ports.");
}

Outcome port_stats_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    return stats_outcome(s, name, port_key(name, sel), &MvFCoEIni::GetPortStatistics, "GetPortStatistics",
                         name + " " + port_words(sel) + " statistics", PortKind::Local);
}

Outcome rports_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    port_info key = port_key(name, sel);
    // Listed by port number, the answer is written into this block without
    // a bound: it is sized for every remote port the port reports.
    std::size_t room = kRemoteBlock;
    if (!sel.wwpn) {
        OpenAdapter a(name);
        HBA_PORTATTRIBUTES attr;
        std::memset(&attr, 0, sizeof attr);
        if (a.ok() && mirvak_GetAdapterPortAttributes(a.handle(), key.port_num, &attr) == HBA_STATUS_OK)
            room = std::max(room, std::size_t{attr.NumberofDiscoveredPorts} * sizeof(port_info));
    }
    MallocBlock block(room);
    unsigned int size = 0;
    check_facade(s.facade().GetRemotePortInfo(&key, &block.p, &size), "GetRemotePortInfo");
    const json list =
        records_json(records<port_info>(block.p, size, "GetRemotePortInfo"), port_renderer(PortKind::Remote));
    const std::string where = name + " " + port_words(sel);
    return list_outcome(
        json{{"adapter_name", name}, {"remote_ports", list}}, "remote_ports",
        [where](std::size_t i) { return where + ", remote port " + std::to_string(i); },
        local_port_printer(PortKind::Remote), "No remote ports.");
}

Outcome rport_stats_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    return stats_outcome(s, name, vport_key(name, sel), &MvFCoEIni::GetRemotePortStatistics, "GetRemotePortStatistics",
                         name + " " + port_words(sel) + ", " + rport_words(sel) + " statistics", PortKind::Remote);
}

Outcome vports_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    port_info key = port_key(name, sel);
    MallocBlock block;
    unsigned int size = 0;
    const int rc = s.facade().GetVirPortForPort(&key, &block.p, &size);
    check_facade(rc, "GetVirPortForPort");
    const json list = records_json(records<port_info>(block.p, block.p ? size : 0, "GetVirPortForPort"),
                                   port_renderer(PortKind::Virtual));
    const std::string where = name + " " + port_words(sel);
    return list_outcome(
        json{{"adapter_name", name}, {"virtual_ports", list}}, "virtual_ports",
        [where](std::size_t i) { return where + ", virtual port " + std::to_string(i); },
        local_port_printer(PortKind::Virtual), "No virtual ports.");
}

Outcome vport_stats_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    return stats_outcome(s, name, vport_key(name, sel), &MvFCoEIni::GetVirPortStatistics, "GetVirPortStatistics",
                         name + " " + vport_words(sel) + " statistics", PortKind::Virtual);
}

Outcome vport_rports_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    vport_in key = vport_key(name, sel);
    MallocBlock block;
    unsigned int size = 0;
    check_facade(s.facade().GetRPortForVPort(&key, &block.p, &size), "GetRPortForVPort");
    const json list =
        records_json(records<port_info>(block.p, block.p ? size : 0, "GetRPortForVPort"),
                     port_renderer(PortKind::Remote));
    const std::string where = name + " " + vport_words(sel);
    return list_outcome(
        json{{"adapter_name", name}, {"remote_ports", list}}, "remote_ports",
        [where](std::size_t i) { return where + ", remote port " + std::to_string(i); },
        local_port_printer(PortKind::Remote), "No remote ports.");
}

Outcome vport_rport_stats_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    return stats_outcome(s, name, vport_key(name, sel), &MvFCoEIni::GetVirRemotePortStatistics,
                         "GetVirRemotePortStatistics", name + " " + vport_words(sel) + ", " + rport_words(sel) + " statistics",
                         PortKind::Remote);
}

namespace {

Outcome luns_outcome(const std::string& name, const std::string& where, const char* method, const MallocBlock& block,
                     unsigned int size) {
    const json list = records_json(records<lun_info>(block.p, block.p ? size : 0, method), &lun_info_json);
    return list_outcome(
        json{{"adapter_name", name}, {"luns", list}}, "luns",
        [where, list](std::size_t i) {
            return where + ": " + list[i]["device"].get<std::string>();
        },
        [](std::FILE* out, const json& l) { print_lun_info(out, l, 2); }, "No LUNs.");
}

}  // namespace

Outcome luns_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    vport_in key = vport_key(name, sel);
    MallocBlock block;
    unsigned int size = 0;
    check_facade(s.facade().GetLunInfo(&key, &block.p, &size), "GetLunInfo");
    return luns_outcome(name, name + " " + port_words(sel) + ", " + rport_words(sel), "GetLunInfo", block, size);
}

Outcome vport_luns_command(Session& s, const Selection& sel) {
    const std::string name = s.adapter_name(sel.adapter);
    vport_in key = vport_key(name, sel);
    MallocBlock block;
    unsigned int size = 0;
    check_facade(s.facade().GetVPortLunInfo(&key, &block.p, &size), "GetVPortLunInfo");
    return luns_outcome(name, name + " " + vport_words(sel) + ", " + rport_words(sel), "GetVPortLunInfo", block,
                        size);
}

namespace {

// The physical port's WWPN and WWNN for an NPIV request: as given, or read
// from the adapter for the port number (zeros when neither is given).
std::pair<Wwn, Wwn> physical_port(const std::string& name, const NpivRequest& r) {
    Wwn wwpn{}, wwnn{};
    if (r.port_wwpn) {
        wwpn = *r.port_wwpn;
        if (r.port_wwnn) wwnn = *r.port_wwnn;
        return {wwpn, wwnn};
    }
    if (!r.sel.port) return {wwpn, wwnn};
    OpenAdapter a(name);
    if (!a.ok())
        throw RequestFailed(FCOE_ERR_ADAPTER_OPEN, "cannot read port " + std::to_string(*r.sel.port) + " of " +
                                                       name + ": " + describe_facade_code(FCOE_ERR_ADAPTER_OPEN));
    HBA_PORTATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);
    const HBA_STATUS st = mirvak_GetAdapterPortAttributes(a.handle(), *r.sel.port, &attr);
    if (st != HBA_STATUS_OK)
        throw RequestFailed(static_cast<int>(st), "cannot read port " + std::to_string(*r.sel.port) + " of " + name +
                                                      ": " + describe_hba_status(st));
    std::memcpy(wwpn.data(), attr.PortWWN.wwn, 8);
    std::memcpy(wwnn.data(), attr.NodeWWN.wwn, 8);
    return {wwpn, wwnn};
}

Outcome npiv_command(Session& s, const NpivRequest& r, bool create) {
    const std::string name = s.adapter_name(r.sel.adapter);
    auto [port_wwpn, port_wwnn] = physical_port(name, r);
    Wwn vport_wwpn = r.vport_wwpn;
    Wwn vport_wwnn = r.vport_wwnn.value_or(Wwn{});
    // The facade's four WWNs: the virtual port's WWPN and WWNN, then the
    // physical port's WWPN and WWNN.
    const int rc = create ? s.facade().CreateNPIV(name.c_str(), vport_wwpn.data(), vport_wwnn.data(),
                                                  port_wwpn.data(), port_wwnn.data())
                          : s.facade().DeleteNPIV(name.c_str(), vport_wwpn.data(), vport_wwnn.data(),
                                                  port_wwpn.data(), port_wwnn.data());
    check_facade(rc, create ? "CreateNPIV" : "DeleteNPIV");
    json data{{"adapter_name", name},
              {"operation", create ? "create" : "delete"},
              {"vport_wwpn", wwn_text(vport_wwpn)},
              {"vport_wwnn", wwn_text(vport_wwnn)},
              {"port_wwpn", wwn_text(port_wwpn)},
              {"port_wwnn", wwn_text(port_wwnn)}};
    if (r.sel.port) data["port_num"] = *r.sel.port;
    Outcome o;
    o.data = data;
    o.text = [data, create](std::FILE* out) {
        const std::string vport = value_text(data["vport_wwpn"]);
        const std::string adapter = value_text(data["adapter_name"]);
        if (!create) {
            std::fprintf(out, "Deleted virtual port %s from %s.\n", vport.c_str(), adapter.c_str());
            return;
        }
        std::string port = "port " + value_text(data["port_wwpn"]);
        if (data.contains("port_num"))
            port = "port " + value_text(data["port_num"]) + " (" + value_text(data["port_wwpn"]) + ")";
        std::fprintf(out, "Created virtual port %s (node %s) on %s of %s.\n", vport.c_str(),
                     value_text(data["vport_wwnn"]).c_str(), port.c_str(), adapter.c_str());
    };
    return o;
}

}  // namespace

Outcome npiv_create_command(Session& s, const NpivRequest& r) { return npiv_command(s, r, true); }
Outcome npiv_delete_command(Session& s, const NpivRequest& r) { return npiv_command(s, r, false); }

}  // namespace mv::tool
