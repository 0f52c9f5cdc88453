#include "tools/lun_commands.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "mirvak/fcp_mapping.h"
#include "mirvak/host_view.h"
#include "tools/codes.h"
#include "view/lun_records.h"
#include "view/records.h"
#include "view/scsi_decode.h"

using nlohmann::json;

namespace mv::tool {

namespace {

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

Wwn to_wwn(const HBA_WWN& w) {
    Wwn out;
    std::memcpy(out.data(), w.wwn, 8);
    return out;
}

HBA_WWN to_hba(const Wwn& w) {
    HBA_WWN out;
    std::memcpy(out.wwn, w.data(), 8);
    return out;
}

// The WWN as the 64-bit number the host-view helpers take, first byte
// most significant.
unsigned long wwn_number(const Wwn& w) {
    unsigned long v = 0;
    for (uint8_t b : w) v = v << 8 | b;
    return v;
}

// The LUNs the host lists behind one target of one local port.
struct HostLun {
    std::string device;
    std::string hctl;
    int lun = -1;
    uint64_t sectors = 0;
};

// The same walk of the host's sysfs as the library's own LUN lookup: as
// many records as the target has block devices.
std::vector<HostLun> host_luns(const Wwn& local, const Wwn& target) {
    const unsigned long n = getNumLuns(wwn_number(local), wwn_number(target));
    std::vector<HostLun> out;
    if (n == 0) return out;
    std::unique_ptr<lun_info, FreeDeleter> raw(static_cast<lun_info*>(std::calloc(n, sizeof(lun_info))));
    if (!raw) throw std::bad_alloc();
    getLuninfo(raw.get(), wwn_number(local), wwn_number(target), n);
    for (unsigned long i = 0; i < n; ++i) {
        const lun_info& l = raw.get()[i];
        HostLun hl;
        hl.device = field_text(l.device, sizeof l.device);
        hl.hctl = field_text(l.hctl, sizeof l.hctl);
        int host = 0, channel = 0, tgt = 0, lun = 0;
        if (std::sscanf(hl.hctl.c_str(), "%d:%d:%d:%d", &host, &channel, &tgt, &lun) == 4) hl.lun = lun;
        hl.sectors = l.size;
        out.push_back(hl);
    }
    return out;
}

struct PortView {
    uint32_t index = 0;
    HBA_PORTATTRIBUTES attr{};
};

HBA_ADAPTERATTRIBUTES adapter_attributes(HBA_HANDLE h, const std::string& name) {
    HBA_ADAPTERATTRIBUTES a;
    std::memset(&a, 0, sizeof a);
    const HBA_STATUS st = mirvak_GetAdapterAttributes(h, &a);
    if (st != HBA_STATUS_OK)
        throw RequestFailed(static_cast<int>(st), "cannot read the attributes of " + name + ": " +
                                                      describe_hba_status(st));
    return a;
}

PortView port_attributes(HBA_HANDLE h, const std::string& name, uint32_t p) {
    PortView v;
    v.index = p;
    const HBA_STATUS st = mirvak_GetAdapterPortAttributes(h, p, &v.attr);
    if (st != HBA_STATUS_OK)
        throw RequestFailed(static_cast<int>(st), "cannot read port " + std::to_string(p) + " of " + name + ": " +
                                                      describe_hba_status(st));
    return v;
}

HBA_PORTATTRIBUTES discovered(HBA_HANDLE h, const std::string& name, uint32_t p, uint32_t k) {
    HBA_PORTATTRIBUTES t;
    std::memset(&t, 0, sizeof t);
    const HBA_STATUS st = mirvak_GetDiscoveredPortAttributes(h, p, k, &t);
    if (st != HBA_STATUS_OK)
        throw RequestFailed(static_cast<int>(st), "cannot read remote port " + std::to_string(k) + " of port " +
                                                      std::to_string(p) + " of " + name + ": " +
                                                      describe_hba_status(st));
    return t;
}

// The ports of the adapter the selection names: all, the one numbered, or
// the one with the WWPN.
std::vector<PortView> selected_ports(HBA_HANDLE h, const std::string& name, const Selection& sel) {
    const HBA_ADAPTERATTRIBUTES a = adapter_attributes(h, name);
    if (sel.port && *sel.port >= a.NumberOfPorts)
        throw RequestFailed(HBA_STATUS_ERROR_ILLEGAL_INDEX, name + " has " + std::to_string(a.NumberOfPorts) +
                                                                " port" + (a.NumberOfPorts == 1 ? "" : "s") +
                                                                "; there is no port " + std::to_string(*sel.port));
    std::vector<PortView> ports;
    for (uint32_t p = 0; p < a.NumberOfPorts; ++p) {
        if (sel.port && p != *sel.port) continue;
        PortView v = port_attributes(h, name, p);
        if (sel.wwpn && to_wwn(v.attr.PortWWN) != *sel.wwpn) continue;
        ports.push_back(v);
    }
    if (sel.wwpn && ports.empty())
        throw RequestFailed(HBA_STATUS_ERROR_ILLEGAL_WWN, "no port of " + name + " has the WWPN " + wwn_text(*sel.wwpn));
    return ports;
}

// ---- FCP target mapping ----

json port_mapping(HBA_HANDLE h, const std::string& name, const PortView& port, const std::vector<PortView>& earlier,
                  bool* failed) {
    const Wwn local = to_wwn(port.attr.PortWWN);
    json j{{"port_num", port.index}, {"port_wwn", wwn_text(local)}};

    // The library picks the port whose WWN has the same last byte: a port
    // that shares it with an earlier one gets that one's mapping.
    for (const PortView& e : earlier) {
        if (e.attr.PortWWN.wwn[7] == local[7]) {
            j["note"] = "the library selects a port by the last byte of its WWN; port " + std::to_string(e.index) +
                        " has the same last byte, and its mapping is the one answered";
            break;
        }
    }

    // Room for the most LUNs any one target has (the library writes each
    // target's LUNs from the first entry on), and at least kMappingEntries;
    // and the host's full address of each device.
    std::size_t room = kMappingEntries;
    std::map<std::string, std::string> hctl_of;
    for (uint32_t k = 0; k < port.attr.NumberofDiscoveredPorts; ++k) {
        const HBA_PORTATTRIBUTES t = discovered(h, name, port.index, k);
        const Wwn target = to_wwn(t.PortWWN);
        const std::vector<HostLun> luns = host_luns(local, target);
        room = std::max<std::size_t>(room, luns.size());
        for (const HostLun& l : luns) hctl_of.emplace(l.device, l.hctl);
    }

    const std::size_t bytes = offsetof(MV_FCPTARGETMAPPINGV2, entry) + room * sizeof(MV_FCPSCSIENTRYV2);
    std::unique_ptr<unsigned char, FreeDeleter> buf(static_cast<unsigned char*>(std::calloc(bytes, 1)));
    if (!buf) throw std::bad_alloc();
    const int rc = GetFCPTargetMapping(h, buf.get(), 1, port.attr.PortWWN);
    add_hba_status(j, "status", static_cast<unsigned>(rc));
    if (rc != 0) {
        j["error"] = describe_hba_status(static_cast<unsigned>(rc));
        *failed = true;
        return j;
    }
    uint32_t reported = 0;
    std::memcpy(&reported, buf.get(), sizeof reported);
    j["number_of_entries"] = reported;
    json entries = json::array();
    const std::size_t scan = std::min<std::size_t>(reported, room);
    for (std::size_t i = 0; i < scan; ++i) {
        MV_FCPSCSIENTRYV2 e;
        std::memcpy(&e, buf.get() + offsetof(MV_FCPTARGETMAPPINGV2, entry) + i * sizeof e, sizeof e);
        if (auto entry = mapping_entry_json(e, hctl_of)) entries.push_back(std::move(*entry));
    }
    j["entries"] = entries;
    if (entries.size() < reported && !j.contains("note"))
        j["note"] = "the library counts " + std::to_string(reported) +
                    " LUNs but writes each target's LUNs from the first entry again, so " +
                    std::to_string(entries.size()) + " entries are present";
    return j;
}

}  // namespace

Outcome mapping_command(Session& s, const Selection& sel, bool* failed) {
    std::vector<std::string> names;
    if (sel.adapter.empty()) {
        names = s.adapter_names();
    } else {
        names.push_back(s.adapter_name(sel.adapter));
    }
    json adapters = json::array();
    for (const std::string& name : names) {
        json a{{"adapter_name", name}};
        OpenAdapter open(name);
        if (!open.ok()) {
            a["error"] = "cannot open the adapter";
            *failed = true;
            adapters.push_back(a);
            continue;
        }
        json ports = json::array();
        const std::vector<PortView> chosen = selected_ports(open.handle(), name, sel);
        std::vector<PortView> earlier;
        const HBA_ADAPTERATTRIBUTES attr = adapter_attributes(open.handle(), name);
        for (const PortView& p : chosen) {
            // Ports before this one, for the note on shared last WWN bytes.
            earlier.clear();
            for (uint32_t q = 0; q < p.index && q < attr.NumberOfPorts; ++q)
                earlier.push_back(port_attributes(open.handle(), name, q));
            ports.push_back(port_mapping(open.handle(), name, p, earlier, failed));
        }
        a["ports"] = ports;
        adapters.push_back(a);
    }
    Outcome o;
    o.data = json{{"adapters", adapters}};
    const json data = o.data;
    o.text = [data](std::FILE* out) { print_mapping(out, data); };
    return o;
}

// ---- SCSI commands ----

namespace {

const char* op_name(ScsiOp op) {
    switch (op) {
        case ScsiOp::Inquiry: return "INQUIRY";
        case ScsiOp::ReportLuns: return "REPORT LUNS";
        case ScsiOp::ReadCapacity: return "READ CAPACITY(16)";
    }
    return "";
}

// The local port that discovered the target, among the selected ports.
struct Route {
    PortView port;
    Wwn local{};
};

Route find_route(HBA_HANDLE h, const std::string& name, const ScsiRequest& r) {
    for (const PortView& p : selected_ports(h, name, r.sel)) {
        for (uint32_t k = 0; k < p.attr.NumberofDiscoveredPorts; ++k) {
            const HBA_PORTATTRIBUTES t = discovered(h, name, p.index, k);
            if (to_wwn(t.PortWWN) == r.target) return Route{p, to_wwn(p.attr.PortWWN)};
        }
    }
    std::string where = name;
    if (r.sel.port) where += " port " + std::to_string(*r.sel.port);
    if (r.sel.wwpn) where += " port " + wwn_text(*r.sel.wwpn);
    throw RequestFailed(HBA_STATUS_ERROR_ILLEGAL_WWN,
                        "target " + wwn_text(r.target) + " is not among the remote ports " + where + " has discovered");
}

std::string lun_list(const std::vector<HostLun>& luns) {
    std::string s;
    for (const HostLun& l : luns) s += (s.empty() ? "" : ", ") + std::to_string(l.lun);
    return s.empty() ? "none" : s;
}

std::string hex2(unsigned v) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%02x", v & 0xffu);
    return buf;
}

// Why a command failed: the library's status, and the sense data when the
// target answered with some (the library itself does not look at it).
std::string failure_text(const char* what, const std::string& device, HBA_STATUS st, const uint8_t* sense,
                         std::size_t sense_size) {
    std::string msg = std::string(what) + " to " + device;
    msg += st != HBA_STATUS_OK ? " failed: " + describe_hba_status(st) : std::string(" ended in CHECK CONDITION");
    if (const auto s = decode_sense(sense, sense_size)) {
        const std::string asc_name = (*s)["asc_name"];
        msg += "; sense key " + hex2((*s)["sense_key"]) + " " + (*s)["sense_key_name"].get<std::string>() +
               ", ASC/ASCQ " + hex2((*s)["asc"]) + "/" + hex2((*s)["ascq"]) + (asc_name.empty() ? "" : " " + asc_name) +
               " (sense data " + (*s)["hex"].get<std::string>() + ")";
    }
    return msg;
}

}  // namespace

namespace {

// The device the library will send the command to, checked to be the LUN
// the user means.
struct Addressed {
    std::string device;
    const HostLun* lun = nullptr;  // among the host's LUNs of the target
    uint64_t fcp_lun = 0;
};

// The LUN the user means: that LUN's device, or for REPORT LUNS any LUN of
// the target.
const HostLun& wanted_lun(const ScsiRequest& r, const std::vector<HostLun>& luns) {
    const bool by_lun = r.op != ScsiOp::ReportLuns;
    for (const HostLun& l : luns)
        if (!by_lun || l.lun == static_cast<int>(r.lun)) return l;
    throw RequestFailed(HBA_STATUS_ERROR_INVALID_LUN,
                        "target " + wwn_text(r.target) + " has " +
                            (by_lun ? "no LUN " + std::to_string(r.lun) + " (its LUNs: " + lun_list(luns) + ")"
                                    : std::string("no LUNs")));
}

// The device the library will send to: it looks the LUN up by the local
// port and the LUN number (INQUIRY), or takes the port's first LUN
// (REPORT LUNS, READ CAPACITY); the target is not part of its lookup.
Addressed address(HBA_HANDLE h, const ScsiRequest& r, const Route& route, const std::vector<HostLun>& luns) {
    const bool by_lun = r.op != ScsiOp::ReportLuns;
    const HostLun& wanted = wanted_lun(r, luns);
    Addressed a;
    a.fcp_lun = static_cast<uint64_t>(r.lun) << 48;
    const HBA_UINT32 first = r.op == ScsiOp::Inquiry ? 0 : 1;
    char path[256] = {};
    const int lookup = GetDeviceFromFCPLunOrPortWWN(h, first ? 0 : a.fcp_lun, 0, to_hba(route.local),
                                                    to_hba(r.target), path, first);
    if (lookup != 0)
        throw RequestFailed(lookup, "cannot find the LUN's device: " + describe_hba_status(static_cast<unsigned>(lookup)));
    path[sizeof path - 1] = '\0';
    a.device = path;
    for (const HostLun& l : luns)
        if (l.device == a.device && (!by_lun || l.lun == static_cast<int>(r.lun))) a.lun = &l;
    if (a.lun != nullptr) return a;
    std::string what = by_lun ? "LUN " + std::to_string(r.lun) + " of target " + wwn_text(r.target) + " (" +
                                    wanted.device + ")"
                              : "target " + wwn_text(r.target);
    throw RequestFailed(HBA_STATUS_ERROR_NOT_A_TARGET,
                        std::string(op_name(r.op)) + " not sent: the library addresses " +
                            (first ? "the first LUN of the local port" : "a LUN by its local port and LUN number alone") +
                            ", which here is " + (a.device.empty() ? std::string("no device at all") : a.device) +
                            " and not " + what);
}

// Throws when the library failed or the target answered with sense data.
void check_answer(const char* what, const std::string& device, HBA_STATUS st, const uint8_t* sense,
                  std::size_t sense_size) {
    if (st != HBA_STATUS_OK || decode_sense(sense, sense_size))
        throw RequestFailed(st != HBA_STATUS_OK ? static_cast<int>(st) : HBA_STATUS_SCSI_CHECK_CONDITION,
                            failure_text(what, device, st, sense, sense_size));
}

HBA_STATUS send_inquiry(HBA_HANDLE h, const HBA_WWN& port_wwn, const ScsiRequest& r, const Addressed& a, json& d) {
    // The library transfers 96 bytes whatever the buffer, and puts the
    // buffer size into the command: it is given exactly that.
    uint8_t rsp[96] = {};
    uint8_t sense[32] = {};
    const uint8_t evpd = r.page ? 1 : 0;
    const HBA_STATUS st = mirvak_SendScsiInquiry(h, port_wwn, a.fcp_lun, evpd, r.page.value_or(0), rsp, sizeof rsp,
                                                 sense, sizeof sense);
    check_answer("INQUIRY", a.device, st, sense, sizeof sense);
    if (r.page) {
        d["page"] = *r.page;
        d["vpd"] = decode_vpd(rsp, sizeof rsp);
    } else {
        d["inquiry"] = decode_inquiry(rsp, sizeof rsp);
    }
    return st;
}

HBA_STATUS send_report_luns(HBA_HANDLE h, const HBA_WWN& port_wwn, const Addressed& a, json& d) {
    std::vector<uint8_t> rsp(1024);  // the library's fixed transfer length
    uint8_t sense[32] = {};
    const HBA_STATUS st =
        mirvak_SendReportLUNs(h, port_wwn, rsp.data(), static_cast<HBA_UINT32>(rsp.size()), sense, sizeof sense);
    check_answer("REPORT LUNS", a.device, st, sense, sizeof sense);
    d["report_luns"] = decode_report_luns(rsp.data(), rsp.size());
    return st;
}

HBA_STATUS send_read_capacity(HBA_HANDLE h, const HBA_WWN& port_wwn, const Addressed& a, json& d) {
    // Filled with a pattern: the library may leave both buffers as they
    // are, and then they must not be read as an answer.
    constexpr uint8_t kUntouched = 0xa5;
    const auto untouched = [](const uint8_t* p, std::size_t n) {
        return std::all_of(p, p + n, [](uint8_t b) { return b == kUntouched; });
    };
    uint8_t rsp[32];
    uint8_t sense[32];
    std::memset(rsp, kUntouched, sizeof rsp);
    std::memset(sense, kUntouched, sizeof sense);
    const HBA_STATUS st = mirvak_SendReadCapacity(h, port_wwn, a.fcp_lun, rsp, sizeof rsp, sense, sizeof sense);
    check_answer("READ CAPACITY(16)", a.device, st, sense, untouched(sense, sizeof sense) ? 0 : sizeof sense);
    const bool returned = !untouched(rsp, sizeof rsp);
    d["data_returned"] = returned;
    if (returned) {
        d["capacity"] = decode_read_capacity16(rsp, sizeof rsp);
    } else {
        d["host_size_sectors"] = a.lun->sectors;
        d["host_size_bytes"] = a.lun->sectors * 512;
    }
    return st;
}

}  // namespace

Outcome scsi_command(Session& s, const ScsiRequest& r) {
    const std::string name = s.adapter_name(r.sel.adapter);
    OpenAdapter open(name);
    if (!open.ok())
        throw RequestFailed(FCOE_ERR_ADAPTER_OPEN, "cannot open adapter " + name + " (mirvak_OpenAdapter failed)");
    const HBA_HANDLE h = open.handle();
    const Route route = find_route(h, name, r);
    const std::vector<HostLun> luns = host_luns(route.local, r.target);
    const Addressed a = address(h, r, route, luns);

    json d{{"command", op_name(r.op)},
           {"adapter_name", name},
           {"port_num", route.port.index},
           {"port_wwn", wwn_text(route.local)},
           {"target_wwn", wwn_text(r.target)},
           {"lun", a.lun->lun},
           {"device", a.device},
           {"hctl", a.lun->hctl}};
    const HBA_WWN port_wwn = to_hba(route.local);
    HBA_STATUS st = HBA_STATUS_OK;
    switch (r.op) {
        case ScsiOp::Inquiry: st = send_inquiry(h, port_wwn, r, a, d); break;
        case ScsiOp::ReportLuns: st = send_report_luns(h, port_wwn, a, d); break;
        case ScsiOp::ReadCapacity: st = send_read_capacity(h, port_wwn, a, d); break;
    }
    add_hba_status(d, "status", st);
    Outcome o;
    o.data = d;
    o.text = [d](std::FILE* out) { print_scsi_answer(out, d); };
    return o;
}

}  // namespace mv::tool
