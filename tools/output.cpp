#include "tools/output.h"
#include "view/records.h"

#include <cstring>
#include <string>

#include "mirvak/mgmt.h"

using nlohmann::json;

using mv::tool::PortKind;

namespace {

// The port's FCoE fields from the extended interface. The VLAN is looked up
// for a port the standard attributes report online, so they go in first.
void add_fcoe(json& p, HBA_HANDLE h, HBA_UINT32 index, const HBA_PORTATTRIBUTES& a) {
    port_info info;
    std::memset(&info, 0, sizeof info);
    info.attributes = a;
    const HBA_UINT32 st = mirvak_GetKXAdapterPortAttributes(h, index, &info);
    mv::tool::add_hba_status(p, "fcoe_status", st);
    if (st != HBA_STATUS_OK) return;
    const json full = mv::tool::port_info_json(info, PortKind::Local);
    p["fcoe"] = full["fcoe"];
    p["raw"] = full["raw"];
}

void add_statistics(json& p, HBA_HANDLE h, HBA_UINT32 index) {
    port_info key;
    std::memset(&key, 0, sizeof key);
    key.port_num = index;
    port_stats stats;
    std::memset(&stats, 0, sizeof stats);
    const HBA_UINT32 st = mirvak_GetKXPortStatistics(h, &key, &stats);
    mv::tool::add_hba_status(p, "statistics_status", st);
    if (st == HBA_STATUS_OK) p["statistics"] = mv::tool::port_stats_json(stats, PortKind::Local);
}

json port_json(const PluginLoader& plugin, HBA_HANDLE h, HBA_UINT32 index) {
    HBA_PORTATTRIBUTES a;
    std::memset(&a, 0, sizeof a);
    const HBA_STATUS st = plugin.port_attributes(h, index, &a);
    json p = {{"index", index}};
    mv::tool::add_hba_status(p, "status", st);
    if (st != HBA_STATUS_OK) return p;
    p.update(mv::tool::port_attributes_json(a));
    add_fcoe(p, h, index, a);
    add_statistics(p, h, index);
    return p;
}

}  // namespace

json gather_adapters(const PluginLoader& plugin) {
    json adapters = json::array();
    const HBA_UINT32 n = plugin.adapter_count();
    for (HBA_UINT32 i = 0; i < n; ++i) {
        char name[256] = {};
        json a = {{"index", i}};
        if (plugin.adapter_name(i, name) != HBA_STATUS_OK) {
            a["error"] = "no name";
            adapters.push_back(a);
            continue;
        }
        a["name"] = name;
        const HBA_HANDLE h = plugin.open(name);
        if (h == 0xFFFFFFFFu) {
            a["error"] = "cannot open";
            adapters.push_back(a);
            continue;
        }
        HBA_ADAPTERATTRIBUTES attr;
        std::memset(&attr, 0, sizeof attr);
        const HBA_STATUS st = plugin.adapter_attributes(h, &attr);
        mv::tool::add_hba_status(a, "status", st);
        if (st == HBA_STATUS_OK) {
            a.update(mv::tool::adapter_attributes_json(attr));
            json ports = json::array();
            for (HBA_UINT32 p = 0; p < attr.NumberOfPorts; ++p) ports.push_back(port_json(plugin, h, p));
            a["ports"] = ports;
        }
        plugin.close(h);
        adapters.push_back(a);
    }
    return adapters;
}

using mv::tool::print_line;
using mv::tool::value_text;

void print_adapters_text(std::FILE* out, const json& adapters) {
    if (adapters.empty()) std::fprintf(out, "No adapters found.\n");
    for (const json& a : adapters) {
        std::fprintf(out, "Adapter %s: %s\n", value_text(a["index"]).c_str(), a.value("name", std::string("?")).c_str());
        if (a.contains("error")) {
            print_line(out, 2, "Error", value_text(a["error"]));
            continue;
        }
        if (a["status"] != 0) {
            print_line(out, 2, "Attributes", "not available (" + mv::tool::coded_text(a, "status") + ")");
            continue;
        }
        mv::tool::print_adapter_info(out, a, 2);
        for (const json& p : a["ports"]) {
            std::fprintf(out, "  Port %s\n", value_text(p["index"]).c_str());
            if (p["status"] != 0) {
                print_line(out, 4, "Attributes", "not available (" + mv::tool::coded_text(p, "status") + ")");
                continue;
            }
            mv::tool::print_port_info(out, p, 4, PortKind::Local);
            if (p["fcoe_status"] != 0)
                print_line(out, 4, "FCoE fields", "not available (" + mv::tool::coded_text(p, "fcoe_status") + ")");
            if (p["statistics_status"] != 0) {
                print_line(out, 4, "Statistics",
                           "not available (" + mv::tool::coded_text(p, "statistics_status") + ")");
            } else {
                mv::tool::print_port_stats(out, p["statistics"], 4, PortKind::Local);
            }
        }
    }
}
