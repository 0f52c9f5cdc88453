#include "output.h"
#include "wwn_arg.h"

#include <cstring>
#include <string>

#include "mirvak/mgmt.h"

using nlohmann::json;

namespace {

std::string text(const char* field, std::size_t size) { return std::string(field, strnlen(field, size)); }
#define TEXT(f) text((f), sizeof(f))

const char* state_name(HBA_UINT32 s) {
    switch (s) {
        case HBA_PORTSTATE_ONLINE: return "online";
        case HBA_PORTSTATE_OFFLINE: return "offline";
        case HBA_PORTSTATE_LINKDOWN: return "link down";
        case HBA_PORTSTATE_UNKNOWN: return "unknown";
        default: return "other";
    }
}

std::string format_mac(const uint8_t (&m)[6]) {
    char buf[18];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return buf;
}

// The port's FCoE fields from the extended interface. The VLAN is looked up
// for a port the standard attributes report online, so they go in first.
json fcoe_json(HBA_HANDLE h, HBA_UINT32 index, const HBA_PORTATTRIBUTES& a) {
    port_info info;
    std::memset(&info, 0, sizeof info);
    info.attributes = a;
    const HBA_UINT32 st = mirvak_GetKXAdapterPortAttributes(h, index, &info);
    json f = {{"status", st}};
    if (st != HBA_STATUS_OK) return f;
    f["lnode_mac"] = format_mac(info.lnode_mac);
    f["port_mac"] = format_mac(info.port_mac);
    f["fcf_index"] = static_cast<uint32_t>(info.fcf_index);
    f["vlan_id"] = static_cast<unsigned>(info.vlan_id);
    f["phys_port"] = static_cast<unsigned>(info.phys_port);
    f["lnode_id"] = static_cast<uint32_t>(info.lnode_id);
    f["port_error"] = info.lnode_flag != 0;
    return f;
}

json statistics_json(HBA_HANDLE h, HBA_UINT32 index) {
    port_info key;
    std::memset(&key, 0, sizeof key);
    key.port_num = index;
    port_stats stats;
    std::memset(&stats, 0, sizeof stats);
    const HBA_UINT32 st = mirvak_GetKXPortStatistics(h, &key, &stats);
    json s = {{"status", st}};
    if (st != HBA_STATUS_OK) return s;
    s["tx_frames"] = static_cast<int64_t>(stats.hba_stats.TxFrames);
    s["tx_words"] = static_cast<int64_t>(stats.hba_stats.TxWords);
    s["rx_frames"] = static_cast<int64_t>(stats.hba_stats.RxFrames);
    s["rx_words"] = static_cast<int64_t>(stats.hba_stats.RxWords);
    const uint32_t counters[8] = {stats.counter0, stats.counter1, stats.counter2, stats.counter3,
                                  stats.counter4, stats.counter5, stats.counter6, stats.counter7};
    s["counters"] = counters;
    return s;
}

json port_json(const PluginLoader& plugin, HBA_HANDLE h, HBA_UINT32 index) {
    HBA_PORTATTRIBUTES a;
    std::memset(&a, 0, sizeof a);
    const HBA_STATUS st = plugin.port_attributes(h, index, &a);
    json p = {{"index", index}, {"status", st}};
    if (st != HBA_STATUS_OK) return p;
    p["node_wwn"] = format_wwn(a.NodeWWN);
    p["port_wwn"] = format_wwn(a.PortWWN);
    p["state"] = a.PortState;
    p["state_name"] = state_name(a.PortState);
    p["fc_id"] = a.PortFcId;
    p["classes_of_service"] = a.PortSupportedClassofService;
    p["supported_speed"] = a.PortSupportedSpeed;
    p["speed"] = a.PortSpeed;
    p["max_frame_size"] = a.PortMaxFrameSize;
    p["fabric_name"] = format_wwn(a.FabricName);
    p["discovered_ports"] = a.NumberofDiscoveredPorts;
    p["os_device_name"] = TEXT(a.OSDeviceName);
    p["symbolic_name"] = TEXT(a.PortSymbolicName);
    p["fcoe"] = fcoe_json(h, index, a);
    p["statistics"] = statistics_json(h, index);
    return p;
}

}  // namespace

std::string format_wwn(const HBA_WWN& w) { return mv::tool::wwn_text(w.wwn); }

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
        a["status"] = st;
        if (st == HBA_STATUS_OK) {
            a["manufacturer"] = TEXT(attr.Manufacturer);
            a["model"] = TEXT(attr.Model);
            a["serial_number"] = TEXT(attr.SerialNumber);
            a["hardware_version"] = TEXT(attr.HardwareVersion);
            a["driver_version"] = TEXT(attr.DriverVersion);
            a["option_rom_version"] = TEXT(attr.OptionROMVersion);
            a["firmware_version"] = TEXT(attr.FirmwareVersion);
            a["vendor_id"] = attr.VendorSpecificID;
            a["node_wwn"] = format_wwn(attr.NodeWWN);
            a["number_of_ports"] = attr.NumberOfPorts;
            json ports = json::array();
            for (HBA_UINT32 p = 0; p < attr.NumberOfPorts; ++p) ports.push_back(port_json(plugin, h, p));
            a["ports"] = ports;
        }
        plugin.close(h);
        adapters.push_back(a);
    }
    return adapters;
}

namespace {

void line(std::FILE* out, int indent, const char* label, const std::string& value) {
    std::fprintf(out, "%*s%-20s %s\n", indent, "", label, value.c_str());
}

std::string str(const json& j) { return j.is_string() ? j.get<std::string>() : j.dump(); }

}  // namespace

void print_adapters_text(std::FILE* out, const json& adapters) {
    if (adapters.empty()) std::fprintf(out, "No adapters found.\n");
    for (const json& a : adapters) {
        std::fprintf(out, "Adapter %s: %s\n", str(a["index"]).c_str(), a.value("name", std::string("?")).c_str());
        if (a.contains("error")) {
            line(out, 2, "Error:", str(a["error"]));
            continue;
        }
        if (a["status"] != 0) {
            line(out, 2, "Attributes:", "not available (status " + str(a["status"]) + ")");
            continue;
        }
        static const std::pair<const char*, const char*> kFields[] = {
            {"manufacturer", "Manufacturer:"},         {"model", "Model:"},
            {"serial_number", "Serial number:"},       {"hardware_version", "Hardware version:"},
            {"driver_version", "Driver version:"},     {"option_rom_version", "Option ROM version:"},
            {"firmware_version", "Firmware version:"}, {"node_wwn", "Node WWN:"},
            {"number_of_ports", "Ports:"},
        };
        for (const auto& [key, label] : kFields) line(out, 2, label, str(a[key]));
        char vendor[16];
        std::snprintf(vendor, sizeof vendor, "0x%04x", a["vendor_id"].get<unsigned>());
        line(out, 2, "Vendor id:", vendor);
        for (const json& p : a["ports"]) {
            std::fprintf(out, "  Port %s\n", str(p["index"]).c_str());
            if (p["status"] != 0) {
                line(out, 4, "Attributes:", "not available (status " + str(p["status"]) + ")");
                continue;
            }
            line(out, 4, "Port WWN:", str(p["port_wwn"]));
            line(out, 4, "Node WWN:", str(p["node_wwn"]));
            line(out, 4, "State:", str(p["state_name"]) + " (" + str(p["state"]) + ")");
            char fcid[16];
            std::snprintf(fcid, sizeof fcid, "0x%06x", p["fc_id"].get<unsigned>());
            line(out, 4, "FC id:", fcid);
            line(out, 4, "Speed code:", str(p["speed"]));
            line(out, 4, "Classes of service:", str(p["classes_of_service"]));
            line(out, 4, "Max frame size:", str(p["max_frame_size"]));
            line(out, 4, "Fabric name:", str(p["fabric_name"]));
            line(out, 4, "Discovered ports:", str(p["discovered_ports"]));
            line(out, 4, "OS device name:", str(p["os_device_name"]));
            const json& f = p["fcoe"];
            if (f["status"] != 0) {
                line(out, 4, "FCoE fields:", "not available (status " + str(f["status"]) + ")");
            } else {
                line(out, 4, "FCoE MAC:", str(f["lnode_mac"]));
                line(out, 4, "Port MAC:", str(f["port_mac"]));
                line(out, 4, "Physical port:", str(f["phys_port"]));
                line(out, 4, "FCF index:", str(f["fcf_index"]));
                line(out, 4, "VLAN:", str(f["vlan_id"]));
                line(out, 4, "Port error:", f["port_error"].get<bool>() ? "yes" : "no");
            }
            const json& s = p["statistics"];
            if (s["status"] != 0) {
                line(out, 4, "Statistics:", "not available (status " + str(s["status"]) + ")");
            } else {
                line(out, 4, "Tx frames / words:", str(s["tx_frames"]) + " / " + str(s["tx_words"]));
                line(out, 4, "Rx frames / words:", str(s["rx_frames"]) + " / " + str(s["rx_words"]));
                std::string counters;
                for (const json& c : s["counters"]) counters += (counters.empty() ? "" : " ") + str(c);
                line(out, 4, "Counters 0-7:", counters);
            }
        }
    }
}
