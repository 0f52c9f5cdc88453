// WWNs as people type them on the command line, and as this program prints
// them.
#ifndef MIRVAK_TOOLS_WWN_ARG_H
#define MIRVAK_TOOLS_WWN_ARG_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "view/hex_text.h"  // hex_bytes: bytes as lower-case hex digits, a space between bytes

namespace mv::tool {

using Wwn = std::array<uint8_t, 8>;

// "2100001b9ea10000" or "21:00:00:1b:9e:a1:00:00" (upper or lower case).
// Empty with the reason in *why when the text is not a WWN the library can
// be asked about: anything but 16 hex digits (optionally a colon between
// every two), or a first byte of 00, which the library reads as "no WWN
// given" in every key.
std::optional<Wwn> parse_wwn(const std::string& text, std::string* why = nullptr);

// "21:00:00:1b:9e:a1:00:00"
std::string wwn_text(const uint8_t* wwn);
inline std::string wwn_text(const Wwn& w) { return wwn_text(w.data()); }

}  // namespace mv::tool

#endif
