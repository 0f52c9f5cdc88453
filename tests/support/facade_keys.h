// Request keys an agent hands the facade, and the name field the facade
// writes into a statistics record.
#ifndef MIRVAK_TESTS_FACADE_KEYS_H
#define MIRVAK_TESTS_FACADE_KEYS_H

#include <cstdint>
#include <cstring>
#include <string>

#include "facade/keys.h"
#include "mirvak/mgmt_records.h"

namespace testenv {

// A port_info key: the adapter name, the port number and, when given, the
// port's WWN.
inline port_info PortKey(const char* name, uint32_t port = 0, const uint8_t* wwn = nullptr) {
    return mv::facade::port_key(name, port, wwn);
}

// A vport_in key: the adapter name, the port, virtual-port and remote-port
// indexes and, when given, the virtual and remote WWNs.
inline vport_in VKey(const char* name, uint16_t port, uint16_t vport, uint16_t rport, const uint8_t* vwwn = nullptr,
                     const uint8_t* rwwn = nullptr) {
    return mv::facade::vport_key(name, port, vport, rport, vwwn, rwwn);
}

// The name field of a statistics record, as the facade fills it.
inline std::string StatsName(const port_stats& s) {
    const char* p = reinterpret_cast<const char*>(s.reserved_0);
    return std::string(p, strnlen(p, 256));
}

}  // namespace testenv

#endif
