#include "view/records.h"

#include <cstdint>
#include <cstring>

#include "view/hex_text.h"
#include "view/result_codes.h"

using nlohmann::json;

namespace mv::tool {

namespace {

#define TEXT(f) field_text((f), sizeof(f))

std::string wwn(const HBA_WWN& w) { return hex_bytes(w.wwn, 8, ':'); }

template <std::size_t N>
std::string mac(const uint8_t (&m)[N]) {
    return hex_bytes(m, N, ':');
}

std::string hex_text(uint64_t v, int digits) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%0*llx", digits, static_cast<unsigned long long>(v));
    return buf;
}

// How a field is shown in text.
enum class Show { Plain, Coded, Hex4, Hex6 };

struct Field {
    const char* key;
    const char* label;
    Show show;
};

template <std::size_t N>
void print_fields(std::FILE* out, const json& obj, int indent, const Field (&fields)[N]) {
    for (const Field& f : fields) {
        if (!obj.contains(f.key)) continue;
        const json& v = obj[f.key];
        std::string text;
        switch (f.show) {
            case Show::Plain: text = value_text(v); break;
            case Show::Coded: text = coded_text(obj, f.key); break;
            case Show::Hex4: text = hex_text(v.get<uint64_t>(), 4); break;
            case Show::Hex6: text = hex_text(v.get<uint64_t>(), 6); break;
        }
        print_line(out, indent, f.label, text);
    }
}

}  // namespace

std::string field_text(const char* field, std::size_t size) {
    std::string out;
    for (std::size_t i = 0; i < size && field[i] != '\0'; ++i) {
        const auto c = static_cast<unsigned char>(field[i]);
        if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            char esc[5];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        }
    }
    return out;
}

std::string value_text(const json& v) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_boolean()) return v.get<bool>() ? "yes" : "no";
    if (v.is_array()) {
        std::string s;
        for (const json& e : v) s += (s.empty() ? "" : " ") + value_text(e);
        return s;
    }
    return v.dump();
}

std::string coded_text(const json& rec, const std::string& key) {
    const std::string number = value_text(rec[key]);
    const auto name = rec.find(key + "_name");
    return name == rec.end() ? number : name->get<std::string>() + " (" + number + ")";
}

void print_line(std::FILE* out, int indent, const std::string& label, const std::string& value) {
    std::fprintf(out, "%*s%-20s %s\n", indent, "", (label + ":").c_str(), value.c_str());
}

void add_hba_status(json& j, const std::string& key, unsigned status) {
    j[key] = status;
    const std::string name = hba_status_name(status);
    j[key + "_name"] = (name.empty() ? "" : name + ": ") + hba_status_meaning(status);
}

json adapter_attributes_json(const HBA_ADAPTERATTRIBUTES& s) {
    return {{"manufacturer", TEXT(s.Manufacturer)},
            {"serial_number", TEXT(s.SerialNumber)},
            {"model", TEXT(s.Model)},
            {"model_description", TEXT(s.ModelDescription)},
            {"node_wwn", wwn(s.NodeWWN)},
            {"node_symbolic_name", TEXT(s.NodeSymbolicName)},
            {"hardware_version", TEXT(s.HardwareVersion)},
            {"driver_version", TEXT(s.DriverVersion)},
            {"option_rom_version", TEXT(s.OptionROMVersion)},
            {"firmware_version", TEXT(s.FirmwareVersion)},
            {"vendor_id", s.VendorSpecificID},
            {"number_of_ports", s.NumberOfPorts},
            {"driver_name", TEXT(s.DriverName)}};
}

json port_attributes_json(const HBA_PORTATTRIBUTES& a) {
    return {{"node_wwn", wwn(a.NodeWWN)},
            {"port_wwn", wwn(a.PortWWN)},
            {"fc_id", a.PortFcId},
            {"type", a.PortType},
            {"type_name", port_type_name(a.PortType)},
            {"state", a.PortState},
            {"state_name", port_state_name(a.PortState)},
            {"classes_of_service", a.PortSupportedClassofService},
            {"classes_of_service_name", classes_of_service_name(a.PortSupportedClassofService)},
            {"symbolic_name", TEXT(a.PortSymbolicName)},
            {"os_device_name", TEXT(a.OSDeviceName)},
            {"supported_speed", a.PortSupportedSpeed},
            {"supported_speed_name", port_speed_name(a.PortSupportedSpeed)},
            {"speed", a.PortSpeed},
            {"speed_name", port_speed_name(a.PortSpeed)},
            {"max_frame_size", a.PortMaxFrameSize},
            {"fabric_name", wwn(a.FabricName)},
            {"discovered_ports", a.NumberofDiscoveredPorts}};
}

json adapter_info_json(const adapter_info& a) {
    const HBA_ADAPTERATTRIBUTES attr = a.attributes;  // copied out of the packed record
    // block_336 as the fabric descriptions write it: the bytes up to the
    // last non-zero one.
    std::size_t block_len = sizeof a.hw_block_336;
    while (block_len > 0 && a.hw_block_336[block_len - 1] == 0) --block_len;
    json j = adapter_attributes_json(attr);
    j["instance"] = static_cast<uint32_t>(a.instance);
    j["name"] = TEXT(a.adapter_name);
    j["hardware"] = {{"byte_191", static_cast<uint32_t>(a.hw_byte_191)},
                     {"word_192", static_cast<uint32_t>(a.hw_word_192)},
                     {"word_284", static_cast<uint32_t>(a.hw_word_284)},
                     {"word_288", static_cast<uint32_t>(a.hw_word_288)},
                     {"word_292", static_cast<uint32_t>(a.hw_word_292)},
                     {"word_332", static_cast<uint32_t>(a.hw_word_332)},
                     {"text_246", TEXT(a.hw_text_246)},
                     {"text_296", TEXT(a.hw_text_296)},
                     {"block_336", hex_bytes(a.hw_block_336, block_len, ' ')}};
    return j;
}

json port_info_json(const port_info& p, PortKind kind) {
    const HBA_PORTATTRIBUTES attr = p.attributes;  // copied out of the packed record
    json j = port_attributes_json(attr);
    j["adapter_name"] = TEXT(p.adapter_name);
    j["port_num"] = static_cast<uint32_t>(p.port_num);
    if (kind == PortKind::Remote) {
        j["rport_index"] = static_cast<uint32_t>(p.rport_index);
        j["role"] = TEXT(p.role);
        j["rnode_index"] = static_cast<uint32_t>(p.rnode_index);
        // The remote node's words the library passes on without a meaning.
        j["raw"] = {{"word_4", static_cast<uint32_t>(p.lnode_id)},
                    {"byte_12", static_cast<uint32_t>(p.rnode_byte_12)}};
        return j;
    }
    j["fcoe"] = {{"lnode_id", static_cast<uint32_t>(p.lnode_id)},
                 {"lnode_mac", mac(p.lnode_mac)},
                 {"port_mac", mac(p.port_mac)},
                 {"phys_port", static_cast<unsigned>(p.phys_port)},
                 {"fcf_index", static_cast<uint32_t>(p.fcf_index)},
                 {"port_error", p.lnode_flag != 0},
                 {"flag", static_cast<unsigned>(p.lnode_flag)},
                 {"vport_word", static_cast<uint32_t>(p.lnode_word_28)},
                 {"vlan_id", static_cast<unsigned>(p.vlan_id)}};
    // The local node's words the library passes on without a meaning.
    j["raw"] = {{"word_5", static_cast<uint32_t>(p.lnode_word_5)},
                {"word_148", static_cast<uint32_t>(p.lnode_word_148)}};
    return j;
}

json port_stats_json(const port_stats& s, PortKind kind) {
    if (kind == PortKind::Remote) {
        return {{"port_num", static_cast<uint32_t>(s.port_num)},
                {"rport_index", static_cast<uint32_t>(s.rport_index)},
                {"counters", {s.counter0, s.counter1, s.counter2, s.counter3}},
                {"remote_counters", {s.rcounter0, s.rcounter1, s.rcounter2, s.rcounter3}}};
    }
    const HBA_PORTSTATISTICS h = s.hba_stats;
    return {{"tx_frames", static_cast<int64_t>(h.TxFrames)},
            {"tx_words", static_cast<int64_t>(h.TxWords)},
            {"rx_frames", static_cast<int64_t>(h.RxFrames)},
            {"rx_words", static_cast<int64_t>(h.RxWords)},
            {"counters",
             {s.counter0, s.counter1, s.counter2, s.counter3, s.counter4, s.counter5, s.counter6, s.counter7}}};
}

json lun_info_json(const lun_info& l) {
    // The facade puts the key's port number and remote-port index in the
    // first eight bytes, and the adapter name in the second half of the
    // device field.
    constexpr std::size_t kHalf = sizeof l.device / 2;
    const uint64_t sectors = l.size;
    return {{"port_index", mv::load<uint32_t>(l.reserved_0)},
            {"remote_index", mv::load<uint32_t>(l.reserved_0 + 4)},
            {"hctl", TEXT(l.hctl)},
            {"device", field_text(l.device, kHalf)},
            {"adapter_name", field_text(l.device + kHalf, kHalf)},
            {"vendor", TEXT(l.vendor)},
            {"size", sectors},
            {"size_name", size_name(sectors)}};
}

void print_adapter_info(std::FILE* out, const json& a, int indent) {
    static const Field kFields[] = {
        {"name", "Name", Show::Plain},
        {"instance", "Instance", Show::Plain},
        {"manufacturer", "Manufacturer", Show::Plain},
        {"model", "Model", Show::Plain},
        {"model_description", "Model description", Show::Plain},
        {"serial_number", "Serial number", Show::Plain},
        {"hardware_version", "Hardware version", Show::Plain},
        {"driver_version", "Driver version", Show::Plain},
        {"option_rom_version", "Option ROM version", Show::Plain},
        {"firmware_version", "Firmware version", Show::Plain},
        {"node_wwn", "Node WWN", Show::Plain},
        {"vendor_id", "Vendor id", Show::Hex4},
        {"number_of_ports", "Ports", Show::Plain},
    };
    static const Field kHardware[] = {
        {"text_246", "Hardware text 246", Show::Plain},
        {"text_296", "Hardware text 296", Show::Plain},
        {"byte_191", "Hardware byte 191", Show::Plain},
        {"word_192", "Hardware word 192", Show::Plain},
        {"word_284", "Hardware word 284", Show::Plain},
        {"word_288", "Hardware word 288", Show::Plain},
        {"word_292", "Hardware word 292", Show::Plain},
        {"word_332", "Hardware word 332", Show::Plain},
        {"block_336", "Hardware block 336", Show::Plain},
    };
    print_fields(out, a, indent, kFields);
    if (a.contains("hardware")) print_fields(out, a["hardware"], indent, kHardware);
}

void print_port_info(std::FILE* out, const json& p, int indent, PortKind kind) {
    static const Field kCommon[] = {
        {"state", "State", Show::Coded},
        {"port_wwn", "Port WWN", Show::Plain},
        {"node_wwn", "Node WWN", Show::Plain},
        {"fc_id", "FC id", Show::Hex6},
        {"type", "Port type", Show::Coded},
        {"classes_of_service", "Classes of service", Show::Coded},
    };
    static const Field kLocal[] = {
        {"speed", "Speed", Show::Coded},
        {"supported_speed", "Supported speed", Show::Coded},
        {"max_frame_size", "Max frame size", Show::Plain},
        {"fabric_name", "Fabric name", Show::Plain},
        {"discovered_ports", "Discovered ports", Show::Plain},
        {"os_device_name", "OS device name", Show::Plain},
    };
    static const Field kFcoe[] = {
        {"lnode_mac", "FCoE MAC", Show::Plain},
        {"port_mac", "Port MAC", Show::Plain},
        {"phys_port", "Physical port", Show::Plain},
        {"fcf_index", "FCF index", Show::Plain},
        {"vlan_id", "VLAN", Show::Plain},
        {"lnode_id", "Local node id", Show::Plain},
        {"port_error", "Port error", Show::Plain},
    };
    static const Field kRemote[] = {
        {"role", "Role", Show::Plain},
        {"rnode_index", "Remote node index", Show::Plain},
    };
    static const Field kRemoteRaw[] = {
        {"word_4", "Remote node word 4", Show::Plain},
        {"byte_12", "Remote node byte 12", Show::Plain},
    };
    print_fields(out, p, indent, kCommon);
    if (kind == PortKind::Remote) {
        print_fields(out, p, indent, kRemote);
        if (p.contains("raw")) print_fields(out, p["raw"], indent, kRemoteRaw);
        return;
    }
    print_fields(out, p, indent, kLocal);
    if (p.contains("fcoe")) {
        print_fields(out, p["fcoe"], indent, kFcoe);
        if (kind == PortKind::Local) print_line(out, indent, "Virtual ports", value_text(p["fcoe"]["vport_word"]));
    }
    if (!p.value("symbolic_name", std::string()).empty())
        print_line(out, indent, "Symbolic name", p["symbolic_name"].get<std::string>());
}

void print_port_stats(std::FILE* out, const json& s, int indent, PortKind kind) {
    if (kind == PortKind::Remote) {
        print_line(out, indent, "Counters 0-3", value_text(s["counters"]));
        print_line(out, indent, "Remote counters 0-3", value_text(s["remote_counters"]));
        return;
    }
    if (kind == PortKind::Local) {
        print_line(out, indent, "Tx frames / words", value_text(s["tx_frames"]) + " / " + value_text(s["tx_words"]));
        print_line(out, indent, "Rx frames / words", value_text(s["rx_frames"]) + " / " + value_text(s["rx_words"]));
    }
    print_line(out, indent, "Counters 0-7", value_text(s["counters"]));
}

void print_lun_info(std::FILE* out, const json& l, int indent) {
    print_line(out, indent, "Device", l["device"].get<std::string>());
    print_line(out, indent, "H:C:T:L", l["hctl"].get<std::string>());
    print_line(out, indent, "Vendor", l["vendor"].get<std::string>());
    // A count of sectors the host's sysfs gives without bound; in bytes
    // only when that fits in 64 bits.
    const uint64_t sectors = l["size"].get<uint64_t>();
    const std::string in_sectors = value_text(l["size"]) + " sectors of 512 bytes";
    print_line(out, indent, "Size",
               sectors > UINT64_MAX / 512 ? in_sectors
                                          : std::to_string(sectors * 512) + " bytes (" + in_sectors + ")");
}

}  // namespace mv::tool
