#include "facade/virtual_ports.h"

#include <cstring>

#include "mirvak/mgmt.h"

namespace mv::facade {

int prepare_local_port(Request& req, uint32_t port_num, port_info& port, int kind) {
    HBA_PORTATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);
    if (int rc = req.step(mirvak_GetAdapterPortAttributes(req.handle(), port_num, &attr), kind)) return rc;
    req.name().put(port.adapter_name);
    port.port_num = port_num;
    std::memcpy(&port.attributes, &attr, sizeof attr);
    return req.step(mirvak_GetKXAdapterPortAttributes(req.handle(), port_num, &port), kind);
}

VirtualPorts::VirtualPorts(uint32_t count)
    : count_(count <= kMaxVirtualPorts ? count : 0),
      ok_(count <= kMaxVirtualPorts),
      list_(count_) {
    // The array is tested before anything is written into it.
    if (!list_.ok()) ok_ = false;
}

HBA_UINT32 VirtualPorts::list(HBA_HANDLE handle, const unsigned char* phys_wwpn) {
    return mirvak_GetAllVPortsForPort(handle, phys_wwpn, list_.data(), count_);
}

}  // namespace mv::facade
