// Decoding the answers of the SCSI commands the library sends: standard
// INQUIRY data, the vital product data pages 0x00, 0x80 and 0x83, the
// REPORT LUNS list, READ CAPACITY(16) data and sense data. Every decoder
// reads only the bytes it is given (a short answer is decoded as far as it
// goes and marked "truncated").
#ifndef MIRVAK_VIEW_SCSI_DECODE_H
#define MIRVAK_VIEW_SCSI_DECODE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace mv::tool {

// Sense data (fixed or descriptor format): response code, sense key with
// its name, ASC/ASCQ with a name when known. Empty when the bytes hold no
// sense data (a response code other than 0x70 to 0x73).
std::optional<nlohmann::json> decode_sense(const uint8_t* data, std::size_t n);

// Standard INQUIRY data: device type, version, vendor, product, revision.
nlohmann::json decode_inquiry(const uint8_t* data, std::size_t n);

// A vital product data page: 0x00 (supported pages), 0x80 (unit serial
// number) and 0x83 (device identification) are decoded; any other page is
// given as hex.
nlohmann::json decode_vpd(const uint8_t* data, std::size_t n);

// REPORT LUNS data: the list length and each LUN (its 8 bytes and its
// number as the host numbers LUNs, two bytes a level).
nlohmann::json decode_report_luns(const uint8_t* data, std::size_t n);

// READ CAPACITY(16) data, big-endian: last LBA, block length, capacity.
nlohmann::json decode_read_capacity16(const uint8_t* data, std::size_t n);

// The decoded JSON of the decoders above as text lines.
void print_sense(std::FILE* out, const nlohmann::json& sense, int indent);
void print_inquiry(std::FILE* out, const nlohmann::json& inq, int indent);
void print_vpd(std::FILE* out, const nlohmann::json& vpd, int indent);
void print_report_luns(std::FILE* out, const nlohmann::json& luns, int indent);
void print_read_capacity(std::FILE* out, const nlohmann::json& cap, int indent);

}  // namespace mv::tool

#endif
