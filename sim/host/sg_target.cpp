// The SCSI target of a simulated LUN (see sg_target.h). It answers standard
// INQUIRY, the vital product data pages 0x00, 0x80 and 0x83, REPORT LUNS
// and READ CAPACITY(16); any other command ends in CHECK CONDITION with
// ILLEGAL REQUEST sense.
#include "sg_target.h"

#include <algorithm>
#include <cstring>

namespace sim {
namespace sg {
namespace {

constexpr uint8_t kOpInquiry = 0x12;
constexpr uint8_t kOpReportLuns = 0xA0;
constexpr uint8_t kOpServiceActionIn16 = 0x9E;
constexpr uint8_t kSaReadCapacity16 = 0x10;

constexpr uint32_t kBlockLength = 512;

uint32_t be16(const uint8_t* p) { return static_cast<uint32_t>(p[0]) << 8 | p[1]; }
uint32_t be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}
void put_be16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
void put_be32(uint8_t* p, uint32_t v) {
    for (int i = 3; i >= 0; --i, v >>= 8) p[i] = static_cast<uint8_t>(v);
}
void put_be64(uint8_t* p, uint64_t v) {
    for (int i = 7; i >= 0; --i, v >>= 8) p[i] = static_cast<uint8_t>(v);
}

Reply check_condition(uint8_t asc) {
    Reply r;
    r.status = kStatusCheckCondition;
    const auto s = fixed_sense(kSenseIllegalRequest, asc);
    r.sense.assign(s.begin(), s.end());
    return r;
}

Reply good(std::vector<uint8_t> data, std::size_t allocation) {
    if (data.size() > allocation) data.resize(allocation);
    Reply r;
    r.data = std::move(data);
    return r;
}

// A text field of the standard INQUIRY data: left-aligned, blank-padded,
// cut to the field width.
void put_text(uint8_t* p, std::size_t width, const std::string& text) {
    std::memset(p, ' ', width);
    std::memcpy(p, text.data(), std::min(width, text.size()));
}

std::vector<uint8_t> standard_inquiry(const Device& d) {
    std::vector<uint8_t> v(kStandardInquiryLength, 0);
    v[0] = 0x00;  // peripheral qualifier 0, direct-access block device
    v[2] = 0x05;  // version: SPC-3
    v[3] = 0x12;  // HISUP, response data format 2
    v[4] = static_cast<uint8_t>(kStandardInquiryLength - 5);
    v[7] = 0x02;  // CMDQUE
    put_text(&v[8], 8, d.vendor);
    put_text(&v[16], 16, d.product);
    put_text(&v[32], 4, d.revision);
    return v;
}

std::vector<uint8_t> vpd_header(uint8_t page) { return {0x00, page, 0x00, 0x00}; }

// Page length (bytes 2-3) from what follows the header; the page is cut
// where the 16-bit length ends.
void finish_vpd(std::vector<uint8_t>& v) {
    if (v.size() > 4 + 0xFFFFu) v.resize(4 + 0xFFFFu);
    put_be16(&v[2], static_cast<uint32_t>(v.size() - 4));
}

std::vector<uint8_t> vpd_supported_pages() {
    std::vector<uint8_t> v = vpd_header(0x00);
    v.insert(v.end(), {0x00, 0x80, 0x83});
    finish_vpd(v);
    return v;
}

std::vector<uint8_t> vpd_serial(const Device& d) {
    std::vector<uint8_t> v = vpd_header(0x80);
    v.insert(v.end(), d.serial.begin(), d.serial.end());
    finish_vpd(v);
    return v;
}

std::vector<uint8_t> vpd_identification(const Device& d) {
    if (d.vpd83_raw) return *d.vpd83_raw;  // verbatim, whatever its lengths say
    std::vector<uint8_t> v = vpd_header(0x83);
    for (const Designator& x : d.designators) {
        const std::size_t id_len = std::min<std::size_t>(x.id.size(), 255);
        if (v.size() - 4 + 4 + id_len > 0xFFFF) break;
        v.push_back(static_cast<uint8_t>(x.code_set & 0x0F));  // protocol identifier 0
        v.push_back(static_cast<uint8_t>((x.association & 0x03) << 4 | (x.type & 0x0F)));
        v.push_back(0x00);
        v.push_back(static_cast<uint8_t>(id_len));
        v.insert(v.end(), x.id.begin(), x.id.begin() + static_cast<std::ptrdiff_t>(id_len));
    }
    finish_vpd(v);
    return v;
}

Reply inquiry(const Device& d, const uint8_t (&cdb)[16], uint32_t dxfer_len) {
    // Bits of byte 1 other than EVPD (the obsolete CMDDT among them) are
    // refused, as is a page code without EVPD.
    if ((cdb[1] & 0xFE) != 0) return check_condition(kAscInvalidFieldInCdb);
    const bool evpd = (cdb[1] & 0x01) != 0;
    const uint8_t page = cdb[2];
    // Allocation length 0 would mean "no data". The plug-in puts other bytes
    // into this field (often 0 there), so 0 is taken as the request's
    // transfer length to keep its INQUIRY useful.
    std::size_t allocation = be16(&cdb[3]);
    if (allocation == 0) allocation = dxfer_len;
    if (!evpd) {
        if (page != 0) return check_condition(kAscInvalidFieldInCdb);
        return good(standard_inquiry(d), allocation);
    }
    switch (page) {
    case 0x00:
        return good(vpd_supported_pages(), allocation);
    case 0x80:
        return good(vpd_serial(d), allocation);
    case 0x83:
        return good(vpd_identification(d), allocation);
    default:
        return check_condition(kAscInvalidFieldInCdb);
    }
}

Reply report_luns(const Device& d, const uint8_t (&cdb)[16]) {
    const uint8_t select = cdb[2];
    const uint32_t allocation = be32(&cdb[6]);
    if (allocation < 16 || select > 0x02) return check_condition(kAscInvalidFieldInCdb);
    std::vector<uint8_t> v(8, 0);
    if (select != 0x01) {  // 0x01 asks for well-known LUNs only: there are none
        for (uint32_t lun : d.target_luns) {
            const auto f = lun_field(lun);
            v.insert(v.end(), f.begin(), f.end());
        }
    }
    // The list length always counts every LUN, however little is transferred.
    put_be32(&v[0], static_cast<uint32_t>(std::min<std::size_t>(v.size() - 8, UINT32_MAX)));
    return good(std::move(v), allocation);
}

Reply read_capacity16(const Device& d, const uint8_t (&cdb)[16]) {
    if ((cdb[1] & 0x1F) != kSaReadCapacity16) return check_condition(kAscInvalidFieldInCdb);
    const uint32_t allocation = be32(&cdb[10]);
    std::vector<uint8_t> v(kReadCapacity16Length, 0);
    put_be64(&v[0], d.size == 0 ? 0 : d.size - 1);  // last logical block address
    put_be32(&v[8], kBlockLength);
    return good(std::move(v), allocation);
}

}  // namespace

std::array<uint8_t, kFixedSenseLength> fixed_sense(uint8_t key, uint8_t asc, uint8_t ascq) {
    std::array<uint8_t, kFixedSenseLength> s{};
    s[0] = 0x70;                            // current error, fixed format
    s[2] = static_cast<uint8_t>(key & 0x0F);
    s[7] = kFixedSenseLength - 8;           // additional sense length
    s[12] = asc;
    s[13] = ascq;
    return s;
}

std::array<uint8_t, 8> lun_field(uint32_t lun) {
    std::array<uint8_t, 8> f{};
    uint64_t v = lun;
    for (std::size_t i = 0; i < f.size(); i += 2, v >>= 16) {
        f[i] = static_cast<uint8_t>(v >> 8);
        f[i + 1] = static_cast<uint8_t>(v);
    }
    return f;
}

Reply respond(const Device& d, const uint8_t (&cdb)[16], uint32_t dxfer_len) {
    switch (cdb[0]) {
    case kOpInquiry:
        return inquiry(d, cdb, dxfer_len);
    case kOpReportLuns:
        return report_luns(d, cdb);
    case kOpServiceActionIn16:
        return read_capacity16(d, cdb);
    default:
        return check_condition(kAscInvalidOpcode);
    }
}

}  // namespace sg
}  // namespace sim
