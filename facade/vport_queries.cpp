// The agent's questions about virtual (NPIV) ports and the LUNs seen
// through them: the virtual ports of a physical port, a virtual port's
// statistics, the LUNs behind one remote port of a virtual port, the LUNs
// of a port; and creating and deleting a virtual port.
#include <cstddef>
#include <cstring>

#include "driver/entry_lock.h"
#include "facade/request.h"
#include "facade/virtual_ports.h"
#include "host/sysfs_view.h"
#include "mirvak/instance_map.h"
#include "mirvak/mgmt.h"
#include "mgmt/lun_fill.h"
#include "mirvak/mv_fcoe_ini.h"

using mv::facade::AdapterName;
using mv::facade::any_null;
using mv::facade::Array;
using mv::facade::Owned;
using mv::facade::Request;
using mv::facade::VirtualPorts;
using mv::facade::inherit_from_physical;

namespace {

// Offsets the facade stamps into each LUN record: the key's port number
// and remote-port index (widened to 32 bits) in the first 8 bytes, and the
// adapter name in the second half of the device field, at 528.
constexpr std::size_t kLunNameAt = 528 - offsetof(lun_info, device);

void stamp_luns(lun_info* luns, std::size_t n, const vport_in& key, const AdapterName& name) {
    const uint32_t port = key.port_num;
    const uint32_t rport = key.rport_index;
    for (std::size_t i = 0; i < n; ++i) {
        mv::store<uint32_t>(luns[i].reserved_0, port);
        mv::store<uint32_t>(luns[i].reserved_0 + 4, rport);
        name.put(luns[i].device + kLunNameAt);
    }
}

int create_or_delete(const char* adapter, HBA_UINT16 op, unsigned char* a, unsigned char* b, unsigned char* c,
                     unsigned char* d) {
    // The first two may be null (the driver request then keeps zeros
    // there); the other two are always read.
    if (any_null(adapter, c, d)) return FCOE_ERR_BAD_ARGUMENT;
    Request req(adapter);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;
    const int instance = getActualDeviceInstance_by_adapName(req.name().c_str());
    // The first two strings go to the extended function swapped: agents
    // pass them in this order and the driver request takes them so.
    const HBA_UINT32 st =
        mirvak_CreateDelNPIV(req.handle(), static_cast<HBA_UINT32>(instance), op, b, a, c, d);
    req.close();
    if (st == HBA_STATUS_OK) return FCOE_OK;
    // Only a refused create has its own code; a refused delete is a plain
    // failure.
    if (op == MIRVAK_NPIV_CREATE && st == MIRVAK_STATUS_NPIV_REFUSED) return FCOE_ERR_NPIV_REFUSED;
    return FCOE_ERR_NPIV_FAILED;
}

}  // namespace

int MvFCoEIni::GetVirPortForPort(port_info* key, char** buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(key, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    port_info local;
    std::memset(&local, 0, sizeof local);

    Request req(key->adapter_name);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;

    const bool by_wwn = mv::wwn_given(key->attributes.PortWWN);
    if (!by_wwn) {
        if (int rc = mv::facade::prepare_local_port(req, key->port_num, local, FCOE_KIND_PORT)) return rc;
    } else {
        if (int rc = req.step(mirvak_GetKXAdapterPortAttributes_by_wwpn(req.handle(), key, &local), FCOE_KIND_PORT))
            return rc;
        HBA_PORTATTRIBUTES attr;
        std::memset(&attr, 0, sizeof attr);
        const uint16_t phys_port = local.phys_port;
        if (int rc = req.step(mirvak_GetAdapterPortAttributes(req.handle(), phys_port, &attr), FCOE_KIND_PORT))
            return rc;
        std::memcpy(&local.attributes, &attr, sizeof attr);
    }
    if (local.lnode_flag != 0) return req.fail(FCOE_ERR_PORT);
    const uint32_t vport_count = local.lnode_word_28;
    if (vport_count == 0) return req.fail(FCOE_ERR_NO_PORTS);
    VirtualPorts vports(vport_count);
    if (!vports.ok()) return req.fail(mv::facade::kNoVirtualPortArray);
    const HBA_UINT32 listed =
        vports.list(req.handle(), by_wwn ? key->attributes.PortWWN.wwn : local.attributes.PortWWN.wwn);

    const uint32_t state = local.attributes.PortState;
    const bool phys_up = state != HBA_PORTSTATE_OFFLINE && state != HBA_PORTSTATE_LINKDOWN;
    for (uint32_t i = 0; i < vports.count(); ++i) {
        req.name().put(vports[i].adapter_name);
        vports[i].rport_index = i;
        if (phys_up) inherit_from_physical(local, req.name(), vports[i]);
    }
    if (!mv::facade::answer_block(buf, size, vports.data(), vports.bytes())) return req.fail(FCOE_ERR_NO_MEMORY);
    // The listing's status goes to the agent as it is, not mapped, beside
    // the answer: agents read a non-zero one as "the list may be partial".
    return req.finish(static_cast<int>(listed));
}

int MvFCoEIni::GetVirPortStatistics(vport_in* key, void* buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(key, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    port_info local;
    std::memset(&local, 0, sizeof local);
    port_stats stats;
    std::memset(&stats, 0, sizeof stats);

    Request req(key->adapter_name);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;

    if (mv::wwn_given(key->vport_wwpn)) {
        req.name().put(reinterpret_cast<char*>(stats.reserved_0));
        const HBA_UINT32 st = mirvak_GetKXVPortStatistics(req.handle(), key->vport_wwpn, &stats);
        if (int rc = req.step(st, FCOE_KIND_VIRTUAL_PORT)) return rc;
        mv::facade::answer(buf, size, &stats, sizeof stats);
        return req.finish(FCOE_OK);
    }

    if (int rc = mv::facade::prepare_local_port(req, key->port_num, local, FCOE_KIND_PORT)) return rc;
    if (local.lnode_flag != 0) return req.fail(FCOE_ERR_PORT);
    const uint32_t vport_count = local.lnode_word_28;
    if (vport_count == 0) return req.fail(FCOE_ERR_VIRTUAL_PORT);
    const uint16_t index = key->vport_index;
    // An index equal to the count names no virtual port either.
    if (index >= vport_count) return req.fail(FCOE_ERR_VIRTUAL_PORT);
    VirtualPorts vports(vport_count);
    if (!vports.ok()) return req.fail(FCOE_ERR_NO_MEMORY);
    (void)vports.list(req.handle(), local.attributes.PortWWN.wwn);  // status not tested

    req.name().put(reinterpret_cast<char*>(stats.reserved_0));
    const HBA_UINT32 st = mirvak_GetKXVPortStatistics(req.handle(), vports.wwpn(index), &stats);
    if (int rc = req.step(st, FCOE_KIND_VIRTUAL_PORT)) return rc;
    mv::facade::answer(buf, size, &stats, sizeof stats);
    return req.finish(FCOE_OK);
}

int MvFCoEIni::GetVPortLunInfo(vport_in* key, char** buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(key, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    mv::host::SysfsRequest sysfs;  // each sysfs file read once in this request
    Request req(key->adapter_name);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;
    Owned<lun_info> luns;
    unsigned int lun_count = 0;

    if (mv::wwn_given(key->vport_wwpn) && mv::wwn_given(key->rport_wwpn)) {
        const HBA_UINT32 st =
            mirvak_GetKXVPortLunInfo_by_wwn(req.handle(), key->vport_wwpn, key->rport_wwpn, luns.out(), &lun_count);
        if (st != 0) return req.fail(FCOE_ERR_LUN_INFO);
    } else {
        port_info local;
        std::memset(&local, 0, sizeof local);
        if (int rc = mv::facade::prepare_local_port(req, key->port_num, local, FCOE_KIND_PORT)) return rc;
        const uint32_t vport_count = local.lnode_word_28;
        const uint16_t index = key->vport_index;
        if (local.lnode_flag != 0 || vport_count == 0 || index > vport_count) return req.fail(FCOE_ERR_LUN_INFO);
        VirtualPorts vports(vport_count);
        if (!vports.ok()) return req.fail(mv::facade::kNoVirtualPortArray);
        (void)vports.list(req.handle(), local.attributes.PortWWN.wwn);  // status not tested

        HBA_UINT32 st = 0;
        if (vports.has(index)) {
            Owned<port_info> remotes;
            unsigned int remote_count = 0;
            (void)mirvak_GetAllRPortsForVPort(req.handle(), vports.wwpn(index), remotes.out(), &remote_count, nullptr,
                                              false);
            const uint16_t rindex = key->rport_index;
            if (rindex < remote_count) {
                st = mirvak_GetKXVPortLunInfo_by_wwn(req.handle(), vports.wwpn(index),
                                                     remotes[rindex].attributes.PortWWN.wwn, luns.out(), &lun_count);
            } else {
                st = FCOE_ERR_NO_REMOTE_PORTS;
            }
        } else {
            st = FCOE_ERR_VIRTUAL_PORT;
        }
        // Mapped as a virtual-port request: a remote-port index past the
        // remote ports (290) and a virtual-port index at the count (296)
        // both reach the agent as 296.
        if (int rc = req.step(st, FCOE_KIND_VIRTUAL_PORT)) return rc;
    }
    if (lun_count == 0) return req.fail(FCOE_ERR_NO_LUNS);
    if (luns.get() == nullptr) return req.fail(FCOE_ERR_LUN_INFO);  // a count without records
    stamp_luns(luns.get(), lun_count, *key, req.name());
    if (!mv::facade::answer_block(buf, size, luns.get(), std::size_t{lun_count} * sizeof(lun_info)))
        return req.fail(FCOE_ERR_LUN_INFO);
    return req.finish(FCOE_OK);
}

int MvFCoEIni::GetLunInfo(vport_in* key, char** buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(key, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    mv::host::SysfsRequest sysfs;  // each sysfs file read once in this request
    Request req(key->adapter_name);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;
    int count = 0;
    // The count query alone maps its failure, as a remote-port request.
    if (int rc = req.step(mirvak_GetKXLunCount(req.handle(), key, &count), FCOE_KIND_REMOTE_PORT)) return rc;
    if (count <= 0) return req.fail(FCOE_ERR_NO_LUNS);

    Array<lun_info> luns(static_cast<unsigned int>(count));
    if (!luns.ok()) return req.fail(FCOE_ERR_NO_MEMORY);
    if (mv::kx_lun_info(req.handle(), key, luns.data(), luns.count()) != 0) return req.fail(FCOE_ERR_LUN_INFO);
    stamp_luns(luns.data(), luns.count(), *key, req.name());
    if (!mv::facade::answer_block(buf, size, luns.data(), luns.bytes())) return req.fail(FCOE_ERR_NO_MEMORY);
    return req.finish(FCOE_OK);
}

int MvFCoEIni::CreateNPIV(const char* adapter, unsigned char* a, unsigned char* b, unsigned char* c,
                          unsigned char* d) {
    const mv::EntryLock entry_lock;
    return create_or_delete(adapter, MIRVAK_NPIV_CREATE, a, b, c, d);
}

int MvFCoEIni::DeleteNPIV(const char* adapter, unsigned char* a, unsigned char* b, unsigned char* c,
                          unsigned char* d) {
    const mv::EntryLock entry_lock;
    return create_or_delete(adapter, MIRVAK_NPIV_DELETE, a, b, c, d);
}
