// Bytes as hex text, as every reader of the library's answers shows WWNs,
// MACs and raw blocks.
#ifndef MIRVAK_VIEW_HEX_TEXT_H
#define MIRVAK_VIEW_HEX_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace mv::tool {

// "20 00 00 1b" with sep ' ', "20:00:00:1b" with ':', "2000001b" with '\0'.
std::string hex_bytes(const uint8_t* data, std::size_t n, char sep = ' ');

}  // namespace mv::tool

#endif
