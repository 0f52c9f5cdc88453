#include "output.h"

#include <cstring>
#include <string>

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
    return p;
}

}  // namespace

std::string format_wwn(const HBA_WWN& w) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x", w.wwn[0], w.wwn[1], w.wwn[2],
                  w.wwn[3], w.wwn[4], w.wwn[5], w.wwn[6], w.wwn[7]);
    return buf;
}

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
        }
    }
}
