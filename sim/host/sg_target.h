// The SCSI target behind a simulated LUN: the answer (status, data-in bytes,
// sense) to one CDB, computed from the device's index entry (sg_index.h).
// No file or descriptor work here; the redirector (sg_device.cpp) carries
// the answer into the caller's sg_io_hdr.
#ifndef MIRVAK_SIM_SG_TARGET_H
#define MIRVAK_SIM_SG_TARGET_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "sg_index.h"

namespace sim {
namespace sg {

constexpr uint8_t kStatusGood = 0x00;
constexpr uint8_t kStatusCheckCondition = 0x02;

constexpr uint8_t kSenseIllegalRequest = 0x05;
constexpr uint8_t kAscInvalidOpcode = 0x20;
constexpr uint8_t kAscInvalidFieldInCdb = 0x24;

// Standard INQUIRY data length (additional length 91).
constexpr std::size_t kStandardInquiryLength = 96;
constexpr std::size_t kReadCapacity16Length = 32;
constexpr std::size_t kFixedSenseLength = 18;

struct Reply {
    uint8_t status = kStatusGood;
    // Data-in, already cut to the command's allocation length (the caller
    // cuts it further to its transfer length).
    std::vector<uint8_t> data;
    // Fixed-format sense data; empty unless status is CHECK CONDITION.
    std::vector<uint8_t> sense;
};

// Fixed-format sense data (response code 0x70), 18 bytes.
std::array<uint8_t, kFixedSenseLength> fixed_sense(uint8_t key, uint8_t asc, uint8_t ascq = 0);

// The 8-byte LUN field of REPORT LUNS for a host LUN number, as the host's
// SCSI layer numbers LUNs (two bytes per level, first level first).
std::array<uint8_t, 8> lun_field(uint32_t lun);

// The answer of device d to the 16-byte CDB (bytes past the command's
// length zero). dxfer_len is the transfer length of the request; INQUIRY
// uses it as its allocation length when the CDB's is 0.
Reply respond(const Device& d, const uint8_t (&cdb)[16], uint32_t dxfer_len);

}  // namespace sg
}  // namespace sim

#endif
