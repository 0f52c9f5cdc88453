// The request keys an agent hands the facade (MvFCoEIni): a port_info for
// the adapter and port requests, a vport_in for the remote-port,
// virtual-port and LUN requests. Used by mirvak-hba and the tests.
#ifndef MIRVAK_FACADE_KEYS_H
#define MIRVAK_FACADE_KEYS_H

#include <cstdint>
#include <cstring>
#include <string_view>

#include "mirvak/mgmt_records.h"

namespace mv::facade {

// The adapter's name into a key's name field: cut to fit, the rest zero.
inline void put_adapter_name(char (&field)[256], std::string_view name) {
    std::memset(field, 0, sizeof field);
    std::memcpy(field, name.data(), name.size() < sizeof field - 1 ? name.size() : sizeof field - 1);
}

// A port_info key: the adapter's name, the port number and, when given,
// the port's WWPN; everything else zero.
inline port_info port_key(std::string_view adapter, uint32_t port = 0, const uint8_t* wwpn = nullptr) {
    port_info key;
    std::memset(&key, 0, sizeof key);
    put_adapter_name(key.adapter_name, adapter);
    key.port_num = port;
    if (wwpn) std::memcpy(key.attributes.PortWWN.wwn, wwpn, 8);
    return key;
}

// A vport_in key: the adapter's name, the port, virtual-port and
// remote-port numbers and, when given, the virtual (or local) port's and
// the remote port's WWPNs; everything else zero.
inline vport_in vport_key(std::string_view adapter, uint16_t port, uint16_t vport, uint16_t rport,
                          const uint8_t* vport_wwpn = nullptr, const uint8_t* rport_wwpn = nullptr) {
    vport_in key;
    std::memset(&key, 0, sizeof key);
    put_adapter_name(key.adapter_name, adapter);
    key.port_num = port;
    key.vport_index = vport;
    key.rport_index = rport;
    if (vport_wwpn) std::memcpy(key.vport_wwpn, vport_wwpn, 8);
    if (rport_wwpn) std::memcpy(key.rport_wwpn, rport_wwpn, 8);
    return key;
}

}  // namespace mv::facade

#endif
