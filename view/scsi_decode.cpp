#include "view/scsi_decode.h"

#include <algorithm>

#include "view/hex_text.h"
#include "view/records.h"

using nlohmann::json;

namespace mv::tool {

namespace {

uint32_t be16(const uint8_t* p) { return static_cast<uint32_t>(p[0]) << 8 | p[1]; }
uint32_t be32(const uint8_t* p) { return be16(p) << 16 | be16(p + 2); }
uint64_t be64(const uint8_t* p) { return static_cast<uint64_t>(be32(p)) << 32 | be32(p + 4); }

// Printable ASCII of a fixed field, trailing blanks and NULs dropped.
std::string ascii(const uint8_t* p, std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s += (p[i] >= 0x20 && p[i] < 0x7f) ? static_cast<char>(p[i]) : ' ';
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

std::string hex2(unsigned v) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%02x", v & 0xffu);
    return buf;
}

const char* sense_key_name(unsigned key) {
    static const char* const kNames[16] = {
        "NO SENSE",        "RECOVERED ERROR", "NOT READY",       "MEDIUM ERROR",
        "HARDWARE ERROR",  "ILLEGAL REQUEST", "UNIT ATTENTION",  "DATA PROTECT",
        "BLANK CHECK",     "VENDOR SPECIFIC", "COPY ABORTED",    "ABORTED COMMAND",
        "RESERVED",        "VOLUME OVERFLOW", "MISCOMPARE",      "COMPLETED",
    };
    return kNames[key & 0x0f];
}

const char* asc_name(unsigned asc, unsigned ascq) {
    struct Entry {
        unsigned asc, ascq;
        const char* name;
    };
    static const Entry kNames[] = {
        {0x00, 0x00, "NO ADDITIONAL SENSE INFORMATION"},
        {0x04, 0x00, "LOGICAL UNIT NOT READY"},
        {0x20, 0x00, "INVALID COMMAND OPERATION CODE"},
        {0x24, 0x00, "INVALID FIELD IN CDB"},
        {0x25, 0x00, "LOGICAL UNIT NOT SUPPORTED"},
        {0x29, 0x00, "POWER ON, RESET, OR BUS DEVICE RESET OCCURRED"},
        {0x3a, 0x00, "MEDIUM NOT PRESENT"},
    };
    for (const Entry& e : kNames)
        if (e.asc == asc && e.ascq == ascq) return e.name;
    return "";
}

const char* device_type_name(unsigned type) {
    switch (type) {
        case 0x00: return "direct access block device";
        case 0x01: return "sequential access device";
        case 0x05: return "CD/DVD device";
        case 0x07: return "optical memory device";
        case 0x08: return "media changer";
        case 0x0c: return "storage array controller";
        case 0x0d: return "enclosure services device";
        case 0x1e: return "well known logical unit";
        case 0x1f: return "unknown or no device type";
        default: return "other";
    }
}

const char* designator_type_name(unsigned type) {
    static const char* const kNames[] = {"vendor specific", "T10 vendor identification", "EUI-64", "NAA",
                                         "relative target port", "target port group", "logical unit group",
                                         "MD5 logical unit identifier", "SCSI name string",
                                         "protocol specific port identifier"};
    return type < sizeof kNames / sizeof kNames[0] ? kNames[type] : "reserved";
}

const char* association_name(unsigned a) {
    static const char* const kNames[] = {"logical unit", "target port", "target device", "reserved"};
    return kNames[a & 3];
}

// Linux's LUN number of an 8-byte LUN field: two bytes a level, the first
// level lowest.
uint64_t host_lun_number(const uint8_t* p) {
    uint64_t lun = 0;
    for (unsigned level = 0; level < 4; ++level) lun |= static_cast<uint64_t>(be16(p + 2 * level)) << (16 * level);
    return lun;
}

json designators(const uint8_t* p, std::size_t n) {
    json list = json::array();
    std::size_t at = 0;
    while (at + 4 <= n) {
        const std::size_t len = p[at + 3];
        const bool whole = at + 4 + len <= n;
        const std::size_t have = whole ? len : n - at - 4;
        const uint8_t* id = p + at + 4;
        const unsigned code_set = p[at] & 0x0f, type = p[at + 1] & 0x0f, assoc = (p[at + 1] >> 4) & 3;
        json d{{"code_set", code_set},
               {"type", type},
               {"type_name", designator_type_name(type)},
               {"association", assoc},
               {"association_name", association_name(assoc)},
               {"length", len},
               {"id_hex", hex_bytes(id, have)}};
        if (code_set == 2 || code_set == 3) d["id_text"] = ascii(id, have);
        if (!whole) d["truncated"] = true;
        list.push_back(d);
        if (!whole) break;
        at += 4 + len;
    }
    return list;
}

}  // namespace

std::optional<json> decode_sense(const uint8_t* s, std::size_t n) {
    if (n < 1) return std::nullopt;
    const unsigned code = s[0] & 0x7f;
    unsigned key = 0, asc = 0, ascq = 0;
    bool truncated = false;
    if (code == 0x70 || code == 0x71) {
        if (n >= 3) key = s[2] & 0x0f;
        if (n >= 14) {
            asc = s[12];
            ascq = s[13];
        } else {
            truncated = true;
        }
    } else if (code == 0x72 || code == 0x73) {
        if (n >= 4) {
            key = s[1] & 0x0f;
            asc = s[2];
            ascq = s[3];
        } else {
            truncated = true;
        }
    } else {
        return std::nullopt;
    }
    json j{{"response_code", code},
           {"format", code < 0x72 ? "fixed" : "descriptor"},
           {"sense_key", key},
           {"sense_key_name", sense_key_name(key)},
           {"asc", asc},
           {"ascq", ascq},
           {"asc_name", asc_name(asc, ascq)},
           {"hex", hex_bytes(s, n >= 8 ? std::min<std::size_t>(n, 8u + s[7]) : n)}};  // up to its additional length
    if (truncated) j["truncated"] = true;
    return j;
}

json decode_inquiry(const uint8_t* d, std::size_t n) {
    json j{{"length", n}};
    if (n < 1) {
        j["truncated"] = true;
        return j;
    }
    j["peripheral_qualifier"] = d[0] >> 5;
    j["device_type"] = d[0] & 0x1f;
    j["device_type_name"] = device_type_name(d[0] & 0x1f);
    if (n >= 3) j["version"] = d[2];
    if (n >= 4) j["response_data_format"] = d[3] & 0x0f;
    if (n >= 5) j["additional_length"] = d[4];
    j["vendor"] = n > 8 ? ascii(d + 8, std::min<std::size_t>(n, 16) - 8) : "";
    j["product"] = n > 16 ? ascii(d + 16, std::min<std::size_t>(n, 32) - 16) : "";
    j["revision"] = n > 32 ? ascii(d + 32, std::min<std::size_t>(n, 36) - 32) : "";
    if (n < 36) j["truncated"] = true;
    return j;
}

json decode_vpd(const uint8_t* d, std::size_t n) {
    json j;
    if (n < 4) {
        j["truncated"] = true;
        j["hex"] = hex_bytes(d, n);
        return j;
    }
    const unsigned page = d[1];
    const std::size_t length = be16(d + 2);
    const std::size_t have = std::min(length, n - 4);
    const uint8_t* body = d + 4;
    j["page"] = page;
    j["page_length"] = length;
    j["device_type"] = d[0] & 0x1f;
    if (have < length) j["truncated"] = true;
    switch (page) {
        case 0x00: {
            json pages = json::array();
            for (std::size_t i = 0; i < have; ++i) pages.push_back(body[i]);
            j["supported_pages"] = pages;
            break;
        }
        case 0x80: j["serial_number"] = ascii(body, have); break;
        case 0x83: j["designators"] = designators(body, have); break;
        default: j["hex"] = hex_bytes(body, have); break;
    }
    return j;
}

json decode_report_luns(const uint8_t* d, std::size_t n) {
    json j;
    if (n < 8) {
        j["truncated"] = true;
        j["luns"] = json::array();
        return j;
    }
    const uint32_t length = be32(d);
    const std::size_t listed = length / 8;
    const std::size_t have = std::min(listed, (n - 8) / 8);
    j["list_length"] = length;
    j["lun_count"] = listed;
    json luns = json::array();
    for (std::size_t i = 0; i < have; ++i) {
        const uint8_t* e = d + 8 + 8 * i;
        luns.push_back(json{{"lun", host_lun_number(e)}, {"hex", hex_bytes(e, 8)}});
    }
    j["luns"] = luns;
    if (have < listed) j["truncated"] = true;
    return j;
}

json decode_read_capacity16(const uint8_t* d, std::size_t n) {
    json j;
    if (n < 12) {
        j["truncated"] = true;
        return j;
    }
    const uint64_t last = be64(d);
    const uint32_t block = be32(d + 8);
    j["last_lba"] = last;
    j["block_length"] = block;
    j["blocks"] = last + 1;  // wraps to 0 for an all-ones LBA, which no device reports
    j["capacity_bytes"] = (last + 1) * block;
    return j;
}

void print_sense(std::FILE* out, const json& s, int indent) {
    print_line(out, indent, "Sense key", hex2(s["sense_key"]) + " " + s["sense_key_name"].get<std::string>());
    std::string asc = hex2(s["asc"]) + "/" + hex2(s["ascq"]);
    if (!s["asc_name"].get<std::string>().empty()) asc += " " + s["asc_name"].get<std::string>();
    print_line(out, indent, "ASC/ASCQ", asc);
    print_line(out, indent, "Sense data", s["hex"].get<std::string>());
}

void print_inquiry(std::FILE* out, const json& q, int indent) {
    if (q.contains("device_type"))
        print_line(out, indent, "Device type",
                   hex2(q["device_type"]) + " " + q["device_type_name"].get<std::string>() + ", qualifier " +
                       value_text(q["peripheral_qualifier"]));
    // An empty answer has no texts at all; they print as empty, like the
    // texts a short answer does not reach.
    print_line(out, indent, "Vendor", q.value("vendor", ""));
    print_line(out, indent, "Product", q.value("product", ""));
    print_line(out, indent, "Revision", q.value("revision", ""));
    if (q.contains("version")) print_line(out, indent, "Version", hex2(q["version"]));
    if (q.contains("truncated")) print_line(out, indent, "Note", "answer truncated");
}

void print_vpd(std::FILE* out, const json& v, int indent) {
    if (!v.contains("page")) {
        print_line(out, indent, "Page", "answer too short (" + v["hex"].get<std::string>() + ")");
        return;
    }
    print_line(out, indent, "Page", hex2(v["page"]) + ", " + value_text(v["page_length"]) + " bytes");
    if (v.contains("supported_pages")) {
        std::string pages;
        for (const json& p : v["supported_pages"]) pages += (pages.empty() ? "" : " ") + hex2(p);
        print_line(out, indent, "Supported pages", pages);
    }
    if (v.contains("serial_number")) print_line(out, indent, "Serial number", v["serial_number"].get<std::string>());
    if (v.contains("designators")) {
        std::size_t i = 0;
        for (const json& d : v["designators"]) {
            const std::string id = d.contains("id_text") ? d["id_text"].get<std::string>() : d["id_hex"].get<std::string>();
            print_line(out, indent, "Designator " + std::to_string(i++),
                       d["type_name"].get<std::string>() + " (" + d["association_name"].get<std::string>() +
                           "): " + id);
        }
    }
    if (v.contains("hex")) print_line(out, indent, "Data", v["hex"].get<std::string>());
    if (v.contains("truncated")) print_line(out, indent, "Note", "answer truncated");
}

void print_report_luns(std::FILE* out, const json& r, int indent) {
    if (!r.contains("list_length")) {
        print_line(out, indent, "LUN list", "answer too short");
        return;
    }
    print_line(out, indent, "LUN list length", value_text(r["list_length"]) + " bytes, " +
                                                   value_text(r["lun_count"]) + " LUN" +
                                                   (r["lun_count"] == 1 ? "" : "s"));
    for (const json& l : r["luns"])
        print_line(out, indent, "LUN " + value_text(l["lun"]), l["hex"].get<std::string>());
    if (r.contains("truncated")) print_line(out, indent, "Note", "list truncated to the bytes transferred");
}

void print_read_capacity(std::FILE* out, const json& c, int indent) {
    if (!c.contains("last_lba")) {
        print_line(out, indent, "Capacity", "answer too short");
        return;
    }
    print_line(out, indent, "Capacity", value_text(c["capacity_bytes"]) + " bytes (" + value_text(c["blocks"]) +
                                             " blocks, last LBA " + value_text(c["last_lba"]) + ")");
    print_line(out, indent, "Block size", value_text(c["block_length"]) + " bytes");
}

}  // namespace mv::tool
