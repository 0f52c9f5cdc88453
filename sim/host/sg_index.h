// The SCSI device index of the simulated host: what the generator writes
// (sysfs_gen.cpp) and the redirector reads (sg_device.cpp) to answer opens
// and SCSI generic ioctls of the LUNs' block device nodes.
//
// File: ROOT/sim/sg.json, one JSON object (the generator writes it on one
// line, so that large hosts stay small):
//
//   {
//     "format": 1,
//     "devices": [
//       { "path": "/dev/sdb",          // "/dev/" + the LUN's block device name
//         "generic": "/dev/sg1",       // its SCSI generic node (optional)
//         "hctl": "0:0:0:1",           // its SCSI address H:C:T:L
//         "lun": 1,                    // L
//         "vendor": "MIRVSIM", "product": "SIMDISK", "revision": "0001",
//         "serial": "SIM5000000000000001L1",   // VPD 0x80, resolved
//         "size": 2097152,             // 512-byte sectors
//         "designators": [             // VPD 0x83, resolved (never empty
//           { "code_set": 1,           //  when written by the generator)
//             "type": 3, "association": 0,
//             "id": "60 00 00 00 50 00 00 00 00 00 00 01 00 00 00 01" } ],
//         "vpd83_raw": null,           // or hex bytes: page 0x83 verbatim
//         "sg_fail": false,            // SG_IO fails with EIO
//         "sg_version": 30527,         // SG_GET_VERSION_NUM's answer
//         "no_device": false,          // open fails with ENOENT
//         "target_luns": [0, 1, 3] }   // REPORT LUNS: every LUN of its target
//     ]
//   }
//
// Beside it, ROOT/sim/bsg.json lists the remote ports' bsg nodes:
//
//   { "format": 1,
//     "rports": [ { "path": "/dev/bsg/rport-0:0-0",
//                   "online": true } ] }   // port_state Online: requests reach it
//
// Every device carries its own resolved values, so the reader needs no
// knowledge of the fabric's defaults. Header-only: the redirector is also a
// preloaded library and links nothing but the C and C++ runtimes.
#ifndef MIRVAK_SIM_SG_INDEX_H
#define MIRVAK_SIM_SG_INDEX_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace sim {
namespace sg {

// Where the index lives, relative to the simulated host's root.
constexpr const char* kIndexDir = "sim";
constexpr const char* kIndexFile = "sim/sg.json";
// Written after the index: its length and hashes of its text. A reader
// that parsed the index under this stamp need not read the index again
// while the stamp stays. A tool that writes sg.json itself removes or
// rewrites sg.stamp.
constexpr const char* kStampFile = "sim/sg.stamp";
constexpr const char* kBsgIndexFile = "sim/bsg.json";
constexpr int kIndexFormat = 1;

// What a block device's SG_GET_VERSION_NUM answers.
constexpr int32_t kDefaultVersion = 30527;

struct Designator {
    uint8_t code_set = 1;
    uint8_t type = 3;
    uint8_t association = 0;
    std::vector<uint8_t> id;
};

struct Device {
    std::string path;
    std::string generic;  // SCSI generic node answering as the same device; empty: none
    std::string hctl;
    uint32_t lun = 0;
    std::string vendor, product, revision, serial;
    uint64_t size = 0;
    std::vector<Designator> designators;
    std::optional<std::vector<uint8_t>> vpd83_raw;
    bool sg_fail = false;
    int32_t sg_version = kDefaultVersion;
    bool no_device = false;
    std::vector<uint32_t> target_luns;
};

// A remote port's block SCSI generic node (bsg_rport.h answers it).
struct RemotePort {
    std::string path;
    bool online = false;
};

inline std::string hex_bytes(const std::vector<uint8_t>& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0) s += ' ';
        s += digits[bytes[i] >> 4];
        s += digits[bytes[i] & 15];
    }
    return s;
}

// Two hex digits per byte, single spaces between bytes allowed.
inline std::vector<uint8_t> parse_hex_bytes(const std::string& s) {
    const auto value = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    std::vector<uint8_t> out;
    std::size_t i = 0;
    while (i < s.size()) {
        if (!out.empty() && s[i] == ' ') ++i;
        if (i + 1 >= s.size()) throw std::runtime_error("bad hex bytes \"" + s + "\"");
        const int hi = value(s[i]), lo = value(s[i + 1]);
        if (hi < 0 || lo < 0) throw std::runtime_error("bad hex bytes \"" + s + "\"");
        out.push_back(static_cast<uint8_t>(hi << 4 | lo));
        i += 2;
    }
    return out;
}

inline nlohmann::json index_to_json(const std::vector<Device>& devices) {
    nlohmann::json list = nlohmann::json::array();
    for (const Device& d : devices) {
        nlohmann::json des = nlohmann::json::array();
        for (const Designator& x : d.designators)
            des.push_back({{"code_set", x.code_set},
                           {"type", x.type},
                           {"association", x.association},
                           {"id", hex_bytes(x.id)}});
        list.push_back({{"path", d.path},
                        {"generic", d.generic},
                        {"hctl", d.hctl},
                        {"lun", d.lun},
                        {"vendor", d.vendor},
                        {"product", d.product},
                        {"revision", d.revision},
                        {"serial", d.serial},
                        {"size", d.size},
                        {"designators", des},
                        {"vpd83_raw", d.vpd83_raw ? nlohmann::json(hex_bytes(*d.vpd83_raw))
                                                  : nlohmann::json(nullptr)},
                        {"sg_fail", d.sg_fail},
                        {"sg_version", d.sg_version},
                        {"no_device", d.no_device},
                        {"target_luns", d.target_luns}});
    }
    return {{"format", kIndexFormat}, {"devices", list}};
}

inline nlohmann::json rports_to_json(const std::vector<RemotePort>& rports) {
    nlohmann::json ports = nlohmann::json::array();
    for (const RemotePort& r : rports) ports.push_back({{"path", r.path}, {"online", r.online}});
    return {{"format", kIndexFormat}, {"rports", ports}};
}

// Throws (nlohmann::json exceptions or std::runtime_error) on anything that
// is not an index of this format.
inline std::vector<Device> index_from_json(const nlohmann::json& doc) {
    if (doc.at("format").get<int>() != kIndexFormat) throw std::runtime_error("unknown index format");
    std::vector<Device> out;
    for (const auto& j : doc.at("devices")) {
        Device d;
        d.path = j.at("path").get<std::string>();
        d.generic = j.value("generic", std::string());
        d.hctl = j.at("hctl").get<std::string>();
        d.lun = j.at("lun").get<uint32_t>();
        d.vendor = j.at("vendor").get<std::string>();
        d.product = j.at("product").get<std::string>();
        d.revision = j.at("revision").get<std::string>();
        d.serial = j.at("serial").get<std::string>();
        d.size = j.at("size").get<uint64_t>();
        for (const auto& x : j.at("designators")) {
            Designator des;
            des.code_set = x.at("code_set").get<uint8_t>();
            des.type = x.at("type").get<uint8_t>();
            des.association = x.at("association").get<uint8_t>();
            des.id = parse_hex_bytes(x.at("id").get<std::string>());
            d.designators.push_back(std::move(des));
        }
        const auto& raw = j.at("vpd83_raw");
        if (!raw.is_null()) d.vpd83_raw = parse_hex_bytes(raw.get<std::string>());
        d.sg_fail = j.at("sg_fail").get<bool>();
        d.sg_version = j.at("sg_version").get<int32_t>();
        d.no_device = j.at("no_device").get<bool>();
        d.target_luns = j.at("target_luns").get<std::vector<uint32_t>>();
        out.push_back(std::move(d));
    }
    return out;
}

// The remote ports' nodes of sim/bsg.json. Throws like index_from_json.
inline std::vector<RemotePort> rports_from_json(const nlohmann::json& doc) {
    if (doc.at("format").get<int>() != kIndexFormat) throw std::runtime_error("unknown index format");
    std::vector<RemotePort> out;
    for (const auto& j : doc.at("rports"))
        out.push_back({j.at("path").get<std::string>(), j.at("online").get<bool>()});
    return out;
}

}  // namespace sg
}  // namespace sim

#endif
