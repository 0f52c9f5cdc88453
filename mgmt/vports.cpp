// Virtual (NPIV) ports: the virtual ports the driver lists for a physical
// port, and creating or deleting one.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "driver/common.h"
#include "driver/entry_lock.h"
#include "driver/port_rules.h"
#include "driver/walks.h"
#include "mgmt/local_port.h"
#include "mirvak/mgmt.h"

namespace {

// The physical port's MAC and, when the port reports a speed, its speed in
// the agents' own codes (not the standard's bit values: agents decode them
// as such). A hardware record that cannot be had leaves both.
void fill_from_hardware(HBA_HANDLE handle, uint8_t port_num, port_info& info) {
    hw_info hw;
    std::memset(&hw, 0, sizeof hw);
    if (tusk_get_hw_info(handle, &hw) != 0) return;
    const hw_port* port = mv::hw_port_entry(hw, port_num);
    if (port == nullptr) return;
    std::memcpy(info.port_mac, port->mac, sizeof info.port_mac);
    if (port->enabled != 0) info.attributes.PortSpeed = mv::port_speed_code(port->speed);
}

// One virtual port, looked up by its WWPN. The lookup's result is not
// looked at: a port the driver no longer knows is reported from a zeroed
// record (zero WWNs, offline) at its place in the list, which agents count
// on to keep the list's positions.
void fill_vport(HBA_HANDLE handle, const uint8_t (&wwpn)[8], uint32_t position, port_info& info) {
    lnode_info node;
    (void)mv::lnode_by_wwpn(handle, wwpn, node);

    mv::copy_lnode_fields(node, info);
    info.port_num = position;
    info.attributes.PortState = mv::ready_port_state(field_text(node.state));
    std::memcpy(info.attributes.NodeWWN.wwn, node.node_wwn, 8);
    std::memcpy(info.attributes.PortWWN.wwn, node.port_wwn, 8);
    info.attributes.PortFcId = node.fcid;
    // Agents read the class numbers OR'ed together, not one bit per class.
    uint32_t classes = info.attributes.PortSupportedClassofService;
    mv::or_class_of_service(classes, node.cos);
    info.attributes.PortSupportedClassofService = classes;

    port_info key;
    std::memset(&key, 0, sizeof key);
    std::memcpy(key.attributes.PortWWN.wwn, wwpn, 8);
    info.attributes.NumberofDiscoveredPorts = mirvak_GetNumTargets_by_wwpn(handle, &key);

    fill_from_hardware(handle, node.port_num, info);
}

}  // namespace

HBA_UINT32 mirvak_GetAllVPortsForPort(HBA_HANDLE handle, const unsigned char* wwpn, port_info* ports,
                                      HBA_UINT32 expected) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    auto* list = static_cast<npiv_list*>(std::malloc(sizeof(npiv_list)));
    if (list == nullptr) return HBA_STATUS_ERROR;
    std::memset(list, 0, sizeof *list);
    std::memcpy(list->phys_wwpn, wwpn, sizeof list->phys_wwpn);
    if (tusk_list_npiv_port(handle, list, sizeof *list) != 0) {
        std::free(list);
        return HBA_STATUS_ERROR;
    }
    // The caller sized its array by the count it learnt beforehand; any
    // other count, larger or smaller, is refused whole.
    const uint32_t count = list->count;
    if (count != expected) {
        std::free(list);
        return HBA_STATUS_ERROR;
    }
    // A driver may report more virtual ports than its list can hold; only
    // the entries the buffer holds are read.
    const uint32_t listed = count < NPIV_LIST_MAX ? count : static_cast<uint32_t>(NPIV_LIST_MAX);
    for (uint32_t i = 0; i < listed; ++i) {
        uint8_t vport_wwpn[8];
        std::memcpy(vport_wwpn, list->entry[i].wwpn, sizeof vport_wwpn);
        fill_vport(handle, vport_wwpn, i, ports[i]);
    }
    std::free(list);
    return HBA_STATUS_OK;
}

HBA_UINT32 mirvak_CreateDelNPIV(HBA_HANDLE handle, HBA_UINT32, HBA_UINT16 op, const unsigned char* first,
                                const unsigned char* second, const unsigned char* third,
                                const unsigned char* fourth) {
    const mv::EntryLock entry_lock;
    npiv_req req;
    std::memset(&req, 0, sizeof req);
    if (first != nullptr) std::memcpy(req.wwn_8, first, sizeof req.wwn_8);
    if (second != nullptr) std::memcpy(req.wwn_0, second, sizeof req.wwn_0);
    std::memcpy(req.wwn_16, third, sizeof req.wwn_16);
    std::memcpy(req.wwn_24, fourth, sizeof req.wwn_24);

    const int status = op == MIRVAK_NPIV_CREATE ? tusk_create_npiv_port(handle, &req) : tusk_delete_npiv_port(handle, &req);
    if (status == 0) return HBA_STATUS_OK;
    std::printf("mirvak_CreateDelNPIV:: NPIV op[%d] failed %d\n", op, status);
    const int32_t marker = req.status;
    if (marker == NPIV_REQ_REFUSED) return MIRVAK_STATUS_NPIV_REFUSED;
    return static_cast<HBA_UINT32>(status);
}
