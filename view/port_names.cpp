#include "view/port_names.h"

#include <cstdio>

#include "mirvak/hba_plugin.h"

namespace mv::tool {

const char* port_state_name(uint32_t state) {
    switch (state) {
        case HBA_PORTSTATE_UNKNOWN: return "unknown";
        case HBA_PORTSTATE_ONLINE: return "online";
        case HBA_PORTSTATE_OFFLINE: return "offline";
        case HBA_PORTSTATE_BYPASSED: return "bypassed";
        case HBA_PORTSTATE_DIAGNOSTICS: return "diagnostics";
        case HBA_PORTSTATE_LINKDOWN: return "link down";
        case HBA_PORTSTATE_ERROR: return "error";
        case HBA_PORTSTATE_LOOPBACK: return "loopback";
        default: return "other";
    }
}

std::string port_type_name(uint32_t type) {
    switch (type) {
        case HBA_PORTTYPE_UNKNOWN: return "unknown";
        case HBA_PORTTYPE_OTHER: return "other";
        case HBA_PORTTYPE_NOTPRESENT: return "not present";
        case HBA_PORTTYPE_NPORT: return "N_Port";
        case HBA_PORTTYPE_NLPORT: return "NL_Port";
        case HBA_PORTTYPE_FLPORT: return "FL_Port";
        case HBA_PORTTYPE_FPORT: return "F_Port";
        case HBA_PORTTYPE_LPORT: return "L_Port";
        case HBA_PORTTYPE_PTP: return "point to point";
        default: return "not given";
    }
}

std::string port_speed_name(uint32_t speed) {
    if (speed == 0) return "unknown";
    // Bit i stands for kGbit[i] Gbit/s (0: no speed for that bit).
    static const unsigned kGbit[] = {1, 2, 10, 4, 8, 16, 32, 20, 40, 128, 64, 256};
    constexpr uint32_t kNotNegotiated = 1u << 15;
    std::string speeds, other;
    for (unsigned bit = 0; bit < 32; ++bit) {
        const uint32_t mask = 1u << bit;
        if ((speed & mask) == 0 || mask == kNotNegotiated) continue;
        if (bit < sizeof kGbit / sizeof kGbit[0]) {
            speeds += (speeds.empty() ? "" : ", ") + std::to_string(kGbit[bit]);
        } else {
            other += (other.empty() ? "" : ", ") + std::string("bit ") + std::to_string(bit);
        }
    }
    std::string out = speeds.empty() ? "" : speeds + " Gbit/s";
    if (speed & kNotNegotiated) out += (out.empty() ? "" : ", ") + std::string("not negotiated");
    if (!other.empty()) out += (out.empty() ? "" : ", ") + other;
    return out;
}

std::string classes_of_service_name(uint32_t cos) {
    if (cos == 0) return "none";
    std::string out;
    for (unsigned bit = 0; bit < 32; ++bit) {
        if ((cos & (1u << bit)) == 0) continue;
        out += (out.empty() ? "" : ", ") + (bit == 0 ? std::string("class F") : "class " + std::to_string(bit));
    }
    return out;
}

std::string size_name(uint64_t sectors) {
    static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    // Sectors of 512 bytes are halves of a KiB.
    long double v = static_cast<long double>(sectors) / 2;
    std::size_t u = 0;
    if (sectors >= (uint64_t{1} << 21)) {  // 1 GiB and more: GiB or above
        v /= 1024 * 1024;
        u = 2;
        while (v >= 1024 && u + 1 < sizeof kUnits / sizeof kUnits[0]) {
            v /= 1024;
            ++u;
        }
    } else {
        while (v >= 1024 && u < 1) {
            v /= 1024;
            ++u;
        }
    }
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.1Lf %s", v, kUnits[u]);
    return buf;
}

}  // namespace mv::tool
