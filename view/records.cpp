#include "records.h"

#include <cstdint>
#include <cstring>
#include <utility>

#include "wwn_arg.h"

using nlohmann::json;

namespace mv::tool {

namespace {

#define TEXT(f) field_text((f), sizeof(f))

std::string mac_text(const uint8_t (&m)[6]) {
    char buf[18];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return buf;
}

std::string hex_text(uint64_t v, int digits) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%0*llx", digits, static_cast<unsigned long long>(v));
    return buf;
}

// The block the driver hands over for the adapter, without its trailing
// zero bytes.
std::string trimmed_hex(const uint8_t* data, std::size_t n) {
    while (n > 0 && data[n - 1] == 0) --n;
    return hex_bytes(data, n);
}

// How a field is shown in text.
enum class Show { Plain, Hex4, Hex6, Hex8 };

struct Field {
    const char* key;
    const char* label;
    Show show;
};

void print_fields(std::FILE* out, const json& obj, int indent, const Field* fields, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        const Field& f = fields[i];
        if (!obj.contains(f.key)) continue;
        const json& v = obj[f.key];
        std::string text;
        switch (f.show) {
            case Show::Plain: text = value_text(v); break;
            case Show::Hex4: text = hex_text(v.get<uint64_t>(), 4); break;
            case Show::Hex6: text = hex_text(v.get<uint64_t>(), 6); break;
            case Show::Hex8: text = hex_text(v.get<uint64_t>(), 8); break;
        }
        print_line(out, indent, f.label, text);
    }
}

template <std::size_t N>
void print_fields(std::FILE* out, const json& obj, int indent, const Field (&fields)[N]) {
    print_fields(out, obj, indent, fields, N);
}

std::string joined(const json& list) {
    std::string s;
    for (const json& v : list) s += (s.empty() ? "" : " ") + value_text(v);
    return s;
}

}  // namespace

std::string field_text(const char* field, std::size_t size) { return std::string(field, strnlen(field, size)); }

std::string value_text(const json& v) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_boolean()) return v.get<bool>() ? "yes" : "no";
    if (v.is_array()) return joined(v);
    return v.dump();
}

void print_line(std::FILE* out, int indent, const std::string& label, const std::string& value) {
    std::fprintf(out, "%*s%-20s %s\n", indent, "", (label + ":").c_str(), value.c_str());
}

json adapter_info_json(const adapter_info& a) {
    // Copied out of the packed record before use.
    const HBA_ADAPTERATTRIBUTES attr = a.attributes;
    return json{
        {"instance", a.instance},
        {"name", TEXT(a.adapter_name)},
        {"manufacturer", TEXT(attr.Manufacturer)},
        {"serial_number", TEXT(attr.SerialNumber)},
        {"model", TEXT(attr.Model)},
        {"model_description", TEXT(attr.ModelDescription)},
        {"node_wwn", wwn_text(attr.NodeWWN.wwn)},
        {"node_symbolic_name", TEXT(attr.NodeSymbolicName)},
        {"hardware_version", TEXT(attr.HardwareVersion)},
        {"driver_version", TEXT(attr.DriverVersion)},
        {"option_rom_version", TEXT(attr.OptionROMVersion)},
        {"firmware_version", TEXT(attr.FirmwareVersion)},
        {"vendor_id", attr.VendorSpecificID},
        {"number_of_ports", attr.NumberOfPorts},
        {"driver_name", TEXT(attr.DriverName)},
        {"hw_byte_191", a.hw_byte_191},
        {"hw_word_192", a.hw_word_192},
        {"hw_word_284", a.hw_word_284},
        {"hw_word_288", a.hw_word_288},
        {"hw_word_292", a.hw_word_292},
        {"hw_word_332", a.hw_word_332},
        {"hw_text_246", TEXT(a.hw_text_246)},
        {"hw_text_296", TEXT(a.hw_text_296)},
        {"hw_block_336", trimmed_hex(a.hw_block_336, sizeof a.hw_block_336)},
    };
}

json port_info_json(const port_info& p) {
    const HBA_PORTATTRIBUTES a = p.attributes;
    const uint32_t port_num = p.port_num, rport_index = p.rport_index;
    const uint32_t lnode_id = p.lnode_id, word_5 = p.lnode_word_5, fcf = p.fcf_index, word_148 = p.lnode_word_148;
    const uint32_t vports = p.lnode_word_28, rnode_index = p.rnode_index, rnode_byte_12 = p.rnode_byte_12;
    const uint16_t phys_port = p.phys_port;
    uint8_t lmac[6], pmac[6];
    std::memcpy(lmac, p.lnode_mac, sizeof lmac);
    std::memcpy(pmac, p.port_mac, sizeof pmac);
    return json{
        {"adapter", TEXT(p.adapter_name)},
        {"port_num", port_num},
        {"rport_index", rport_index},
        {"node_wwn", wwn_text(a.NodeWWN.wwn)},
        {"port_wwn", wwn_text(a.PortWWN.wwn)},
        {"fc_id", a.PortFcId},
        {"port_type", a.PortType},
        {"state", a.PortState},
        {"state_name", port_state_name(a.PortState)},
        {"classes_of_service", a.PortSupportedClassofService},
        {"symbolic_name", TEXT(a.PortSymbolicName)},
        {"os_device_name", TEXT(a.OSDeviceName)},
        {"supported_speed", a.PortSupportedSpeed},
        {"speed", a.PortSpeed},
        {"max_frame_size", a.PortMaxFrameSize},
        {"fabric_name", wwn_text(a.FabricName.wwn)},
        {"discovered_ports", a.NumberofDiscoveredPorts},
        {"lnode_id", lnode_id},
        {"lnode_word_5", word_5},
        {"lnode_mac", mac_text(lmac)},
        {"port_mac", mac_text(pmac)},
        {"phys_port", phys_port},
        {"fcf_index", fcf},
        {"lnode_word_148", word_148},
        {"port_error", p.lnode_flag != 0},
        {"vport_count", vports},
        {"vlan_id", p.vlan_id},
        {"rnode_index", rnode_index},
        {"role", TEXT(p.role)},
        {"rnode_byte_12", rnode_byte_12},
    };
}

json port_stats_json(const port_stats& s) {
    const HBA_PORTSTATISTICS h = s.hba_stats;
    const uint32_t counters[8] = {s.counter0, s.counter1, s.counter2, s.counter3,
                                  s.counter4, s.counter5, s.counter6, s.counter7};
    const uint32_t rcounters[4] = {s.rcounter0, s.rcounter1, s.rcounter2, s.rcounter3};
    return json{
        {"adapter", field_text(reinterpret_cast<const char*>(s.reserved_0), sizeof s.reserved_0)},
        {"port_num", static_cast<uint32_t>(s.port_num)},
        {"rport_index", static_cast<uint32_t>(s.rport_index)},
        {"counters", counters},
        {"rcounters", rcounters},
        {"seconds_since_last_reset", h.SecondsSinceLastReset},
        {"tx_frames", h.TxFrames},
        {"tx_words", h.TxWords},
        {"rx_frames", h.RxFrames},
        {"rx_words", h.RxWords},
        {"lip_count", h.LIPCount},
        {"nos_count", h.NOSCount},
        {"error_frames", h.ErrorFrames},
        {"dumped_frames", h.DumpedFrames},
        {"link_failure_count", h.LinkFailureCount},
        {"loss_of_sync_count", h.LossOfSyncCount},
        {"loss_of_signal_count", h.LossOfSignalCount},
        {"primitive_seq_protocol_err_count", h.PrimitiveSeqProtocolErrCount},
        {"invalid_tx_word_count", h.InvalidTxWordCount},
        {"invalid_crc_count", h.InvalidCRCCount},
    };
}

json lun_info_json(const lun_info& l) {
    // The facade puts the key's port number and remote-port index in the
    // first eight bytes, and the adapter name in the second half of the
    // device field.
    constexpr std::size_t kHalf = sizeof l.device / 2;
    const uint64_t sectors = l.size;
    return json{
        {"port_num", mv::load<uint32_t>(l.reserved_0)},
        {"rport_index", mv::load<uint32_t>(l.reserved_0 + 4)},
        {"hctl", TEXT(l.hctl)},
        {"device", field_text(l.device, kHalf)},
        {"adapter", field_text(l.device + kHalf, kHalf)},
        {"vendor", TEXT(l.vendor)},
        {"size_sectors", sectors},
        // A count of sectors the host's sysfs gives without bound; in bytes
        // only when that fits in 64 bits.
        {"size_bytes", sectors <= UINT64_MAX / 512 ? json(sectors * 512) : json(nullptr)},
    };
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
        {"hw_text_246", "Hardware text 246", Show::Plain},
        {"hw_text_296", "Hardware text 296", Show::Plain},
        {"hw_byte_191", "Hardware byte 191", Show::Plain},
        {"hw_word_192", "Hardware word 192", Show::Plain},
        {"hw_word_284", "Hardware word 284", Show::Plain},
        {"hw_word_288", "Hardware word 288", Show::Plain},
        {"hw_word_292", "Hardware word 292", Show::Plain},
        {"hw_word_332", "Hardware word 332", Show::Plain},
        {"hw_block_336", "Hardware block 336", Show::Plain},
    };
    print_fields(out, a, indent, kFields);
}

void print_port_info(std::FILE* out, const json& p, int indent, PortKind kind) {
    static const Field kCommon[] = {
        {"port_wwn", "Port WWN", Show::Plain},
        {"node_wwn", "Node WWN", Show::Plain},
        {"fc_id", "FC id", Show::Hex6},
        {"classes_of_service", "Classes of service", Show::Plain},
    };
    static const Field kLocal[] = {
        {"speed", "Speed code", Show::Plain},
        {"supported_speed", "Supported speed", Show::Plain},
        {"max_frame_size", "Max frame size", Show::Plain},
        {"fabric_name", "Fabric name", Show::Plain},
        {"discovered_ports", "Discovered ports", Show::Plain},
        {"os_device_name", "OS device name", Show::Plain},
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
        {"lnode_id", "Remote node word 4", Show::Plain},
        {"rnode_byte_12", "Remote node byte 12", Show::Plain},
    };
    print_line(out, indent, "State", p["state_name"].get<std::string>() + " (" + value_text(p["state"]) + ")");
    print_fields(out, p, indent, kCommon);
    if (kind == PortKind::Remote) {
        print_fields(out, p, indent, kRemote);
        return;
    }
    print_fields(out, p, indent, kLocal);
    if (kind == PortKind::Local) print_line(out, indent, "Virtual ports", value_text(p["vport_count"]));
    if (!p["symbolic_name"].get<std::string>().empty())
        print_line(out, indent, "Symbolic name", p["symbolic_name"].get<std::string>());
}

void print_port_stats(std::FILE* out, const json& s, int indent, PortKind kind) {
    if (kind == PortKind::Remote) {
        std::string counters;
        for (std::size_t i = 0; i < 4; ++i) counters += (i ? " " : "") + value_text(s["counters"][i]);
        print_line(out, indent, "Counters 0-3", counters);
        print_line(out, indent, "Remote counters 0-3", value_text(s["rcounters"]));
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
    const std::string sectors = value_text(l["size_sectors"]) + " sectors of 512 bytes";
    print_line(out, indent, "Size",
               l["size_bytes"].is_null() ? sectors : value_text(l["size_bytes"]) + " bytes (" + sectors + ")");
}

}  // namespace mv::tool
