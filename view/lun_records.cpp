#include "view/lun_records.h"

#include <algorithm>
#include <cstring>

#include "view/hex_text.h"
#include "view/records.h"
#include "view/result_codes.h"
#include "view/scsi_decode.h"

using nlohmann::json;

namespace mv::tool {

namespace {

bool all_zero(const unsigned char* p, std::size_t n) {
    return std::all_of(p, p + n, [](unsigned char b) { return b == 0; });
}

// The LUID as the library leaves it: one designator at the start of the
// 256 bytes (its length in byte 3), zeros after it.
std::string luid_hex(const uint8_t (&luid)[256]) {
    if (all_zero(luid, sizeof luid)) return "";
    const std::size_t n = std::min<std::size_t>(4u + luid[3], sizeof luid);
    return hex_bytes(luid, n);
}

std::string hex64(uint64_t v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%016llx", static_cast<unsigned long long>(v));
    return buf;
}

}  // namespace

std::optional<json> mapping_entry_json(const MV_FCPSCSIENTRYV2& e, const std::map<std::string, std::string>& hctl_of) {
    if (all_zero(reinterpret_cast<const unsigned char*>(&e), sizeof e)) return std::nullopt;  // never written
    const std::string device = field_text(e.ScsiId.OSDeviceName, sizeof e.ScsiId.OSDeviceName);
    const uint32_t bus = e.ScsiId.ScsiBusNumber, target = e.ScsiId.ScsiTargetNumber, lun = e.ScsiId.ScsiOSLun;
    const auto found = hctl_of.find(device);
    // The record carries no channel; the host's view of the device has it.
    const std::string hctl = found != hctl_of.end() ? found->second
                                                    : std::to_string(bus) + ":?:" + std::to_string(target) + ":" +
                                                          std::to_string(lun);
    const uint64_t fcp_lun = e.FcpId.FcpLun;
    return json{{"device", device},
                {"hctl", hctl},
                {"scsi_bus", bus},
                {"scsi_target", target},
                {"scsi_lun", lun},
                {"fc_id", static_cast<uint32_t>(e.FcpId.FcId)},
                {"target_node_wwn", hex_bytes(e.FcpId.NodeWWN, 8, ':')},
                {"target_port_wwn", hex_bytes(e.FcpId.PortWWN, 8, ':')},
                {"fcp_lun", hex64(fcp_lun)},
                {"luid", luid_hex(e.LUID)}};
}

void print_mapping(std::FILE* out, const json& data) {
    if (data["adapters"].empty()) std::fprintf(out, "No adapters.\n");
    for (const json& a : data["adapters"]) {
        const std::string name = a["adapter_name"];
        if (a.contains("error")) {
            std::fprintf(out, "%s: %s\n", name.c_str(), a["error"].get<std::string>().c_str());
            continue;
        }
        for (const json& p : a["ports"]) {
            std::fprintf(out, "%s port %s (%s)\n", name.c_str(), value_text(p["port_num"]).c_str(),
                         p["port_wwn"].get<std::string>().c_str());
            if (p.contains("error")) {
                print_line(out, 2, "Mapping", "not available: " + p["error"].get<std::string>());
                continue;
            }
            print_line(out, 2, "Entries", value_text(p["number_of_entries"]));
            if (p.contains("note")) print_line(out, 2, "Note", p["note"].get<std::string>());
            for (const json& e : p["entries"]) {
                std::fprintf(out, "  %s\n", e["device"].get<std::string>().c_str());
                print_line(out, 4, "H:C:T:L", e["hctl"].get<std::string>());
                print_line(out, 4, "Target port WWN", e["target_port_wwn"].get<std::string>());
                print_line(out, 4, "Target node WWN", e["target_node_wwn"].get<std::string>());
                print_line(out, 4, "FCP LUN", e["fcp_lun"].get<std::string>());
                print_line(out, 4, "LUID", e["luid"].get<std::string>());
            }
        }
    }
}

void print_scsi_answer(std::FILE* out, const json& d) {
    std::fprintf(out, "%s to %s (%s), LUN %s of target %s, through %s port %s (%s)\n",
                 d["command"].get<std::string>().c_str(), d["device"].get<std::string>().c_str(),
                 d["hctl"].get<std::string>().c_str(), value_text(d["lun"]).c_str(),
                 d["target_wwn"].get<std::string>().c_str(), d["adapter_name"].get<std::string>().c_str(),
                 value_text(d["port_num"]).c_str(), d["port_wwn"].get<std::string>().c_str());
    print_line(out, 2, "Status", describe_hba_status(d["status"].get<unsigned>()));
    if (d.contains("inquiry")) print_inquiry(out, d["inquiry"], 2);
    if (d.contains("vpd")) print_vpd(out, d["vpd"], 2);
    if (d.contains("report_luns")) print_report_luns(out, d["report_luns"], 2);
    if (d.contains("capacity")) print_read_capacity(out, d["capacity"], 2);
    if (d.contains("data_returned") && !d["data_returned"].get<bool>()) {
        print_line(out, 2, "Capacity", "not returned (the library keeps the READ CAPACITY data to itself)");
        if (d.contains("host_size_bytes"))
            print_line(out, 2, "Size (host view)",
                       value_text(d["host_size_bytes"]) + " bytes (" + value_text(d["host_size_sectors"]) +
                           " sectors of 512 bytes)");
    }
}

}  // namespace mv::tool
