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

void inherit_from_physical(const port_info& phys, const AdapterName& name, port_info& vport) {
    vport.attributes.PortSpeed = phys.attributes.PortSpeed;
    vport.attributes.PortMaxFrameSize = phys.attributes.PortMaxFrameSize;
    vport.attributes.FabricName = phys.attributes.FabricName;
    vport.vlan_id = phys.vlan_id;
    const char* device = phys.attributes.OSDeviceName;
    const std::size_t len = strnlen(device, sizeof phys.attributes.OSDeviceName);
    if (len != 0) {
        // The characters only, without their NUL: agents read the field up
        // to the virtual port's own bytes beyond them.
        std::memcpy(vport.attributes.OSDeviceName, device, len);
    } else {
        name.put(vport.attributes.OSDeviceName);
    }
}

}  // namespace mv::facade
