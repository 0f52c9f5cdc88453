// The LUID of a LUN: the best designator of its device identification page.
#ifndef MIRVAK_HBA_LUID_H
#define MIRVAK_HBA_LUID_H

#include <cstddef>
#include <cstdint>

namespace mv {

constexpr std::size_t kLuidSize = 256;

// Picks the designator a LUID is made of from a device identification page
// (`page`, of which `length` bytes came back) and writes it to the start of
// `luid`, the rest zeroed. Higher designator types win; among equal types
// the shorter length byte; among equal lengths the lower identifier bytes.
// A chosen designator longer than 256 bytes leaves the LUID all zero.
// False, with `luid` untouched, when the answer is shorter than 6 bytes or is
// not page 0x83.
bool choose_luid(const uint8_t* page, std::size_t length, uint8_t (&luid)[kLuidSize]);

}  // namespace mv

#endif
