// The library's small helpers and constants, shared by hba/, host/, mgmt/
// and facade/: the status a failed handle gets, where the host lists its
// Fibre Channel hosts, and copies of driver texts and WWNs into records.
#ifndef MIRVAK_DRIVER_COMMON_H
#define MIRVAK_DRIVER_COMMON_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "mirvak/driver_records.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/mgmt_records.h"

namespace mv {

// What an extended function answers the failed handle 0xFFFFFFFF with.
constexpr HBA_UINT32 kBadHandleStatus = 0xFFFFFFFFu;

// The host's Fibre Channel hosts, one folder each (host0, host1, ...).
constexpr const char* kFcHostDir = "/sys/class/fc_host";

// Copies a text into a field of `cap` bytes: cut to fit, NUL-terminated.
inline void copy_text(char* dst, std::size_t cap, std::string_view text) {
    const std::size_t len = text.size() < cap - 1 ? text.size() : cap - 1;
    std::memcpy(dst, text.data(), len);
    dst[len] = '\0';
}

// A driver text field (up to its NUL or the end of the field) into a
// record's text field: cut to fit, NUL-terminated.
template <std::size_t N, std::size_t M>
void copy_text(char (&dst)[N], const char (&src)[M]) {
    copy_text(dst, N, field_text(src));
}

inline void copy_wwn(HBA_WWN& dst, const uint8_t (&src)[8]) { std::memcpy(dst.wwn, src, 8); }

// A virtual-port key names its virtual port and remote port by WWPN (and
// not by position) when both WWPNs are given.
inline bool both_wwns_given(const vport_in& key) { return wwn_given(key.vport_wwpn) && wwn_given(key.rport_wwpn); }

}  // namespace mv

#endif
