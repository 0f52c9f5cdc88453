// The agent's questions about remote ports (the targets a local port or one
// of its virtual ports has discovered): their descriptions and their
// statistics, reached from a physical port or from a virtual port.
#include <cstring>

#include "driver/entry_lock.h"
#include "facade/request.h"
#include "facade/virtual_ports.h"
#include "mirvak/mgmt.h"
#include "mirvak/mv_fcoe_ini.h"

using mv::facade::any_null;
using mv::facade::Array;
using mv::facade::Owned;
using mv::facade::Request;
using mv::facade::VirtualPorts;

namespace {

// The adapter name at the head of a statistics record (its first 256
// bytes, which the extended functions leave alone).
void put_name(const Request& req, port_stats& stats) { req.name().put(reinterpret_cast<char*>(stats.reserved_0)); }

}  // namespace

int MvFCoEIni::GetRemotePortInfo(port_info* key, char** buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    // Both ways answer into the block *buf already points to.
    if (any_null(key, buf, size) || *buf == nullptr) return FCOE_ERR_BAD_ARGUMENT;
    Request req(key->adapter_name);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;

    if (mv::wwn_given(key->attributes.PortWWN)) {
        // The extended function lists the port's targets into *buf and sets
        // *size itself; a block too small for the answer is grown with
        // realloc and the new pointer stored in *buf.
        const HBA_UINT32 st = mirvak_GetKXDiscoveredPortAttributes_by_wwpn(req.handle(), key, buf, size, nullptr);
        if (int rc = req.step(st, FCOE_KIND_REMOTE_PORT)) return rc;
        return req.finish(FCOE_OK);
    }

    const uint32_t port = key->port_num;
    HBA_PORTATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);
    if (int rc = req.step(mirvak_GetAdapterPortAttributes(req.handle(), port, &attr), FCOE_KIND_PORT)) return rc;

    const HBA_UINT32 n = attr.NumberofDiscoveredPorts;
    Array<port_info> remotes(n);
    // The adapter is left open on this one path: agents treat the failure
    // as fatal and release everything themselves.
    if (!remotes.ok()) return req.leave_open(FCOE_ERR_NO_MEMORY);

    // One working record for all remote ports, zeroed once: the reader
    // leaves what it does not write (and ORs the class of service into what
    // is there), so a remote port's record carries what an earlier one left.
    HBA_PORTATTRIBUTES remote;
    std::memset(&remote, 0, sizeof remote);
    for (HBA_UINT32 i = 0; i < n; ++i) {
        const HBA_STATUS st = mirvak_GetDiscoveredPortAttributes(req.handle(), port, i, &remote);
        if (int rc = req.step(st, FCOE_KIND_REMOTE_PORT)) return rc;
        port_info& rec = remotes[i];
        req.name().put(rec.adapter_name);
        std::memcpy(&rec.attributes, &remote, sizeof remote);
        rec.rport_index = i;
        rec.port_num = port;
        if (int rc = req.step(mirvak_GetKXDiscoveredPortAttributes(req.handle(), port, i, &rec),
                              FCOE_KIND_REMOTE_PORT))
            return rc;
    }
    // Written into the block the agent's *buf already points to; nothing is
    // allocated for the answer on this path, unlike the other "char**"
    // requests. Agents size that block for the largest answer.
    std::memset(*buf, 0, remotes.bytes());
    mv::facade::answer(*buf, size, remotes.data(), remotes.bytes());
    return req.finish(FCOE_OK);
}

int MvFCoEIni::GetRemotePortStatistics(vport_in* key, void* buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(key, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    Request req(key->adapter_name);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;
    port_stats stats;
    std::memset(&stats, 0, sizeof stats);
    if (int rc = req.step(mirvak_GetDiscoveredPortStats(req.handle(), key, &stats), FCOE_KIND_REMOTE_PORT))
        return rc;

    put_name(req, stats);
    if (!mv::wwn_given(key->vport_wwpn)) {
        // Asked by numbers: the answer carries the key's own numbers. Asked
        // by a virtual-port WWPN, they stay as the extended function wrote
        // them.
        const uint16_t port = key->port_num;
        const uint16_t rport = key->rport_index;
        stats.port_num = port;
        stats.rport_index = rport;
    }
    mv::facade::answer(buf, size, &stats, sizeof stats);
    return req.finish(FCOE_OK);
}

int MvFCoEIni::GetRPortForVPort(vport_in* key, char** buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(key, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    port_info local;
    std::memset(&local, 0, sizeof local);
    Owned<port_info> remotes;
    unsigned int count = 0;

    Request req(key->adapter_name);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;

    if (mv::wwn_given(key->vport_wwpn)) {
        const HBA_UINT32 st =
            mirvak_GetAllRPortsForVPort(req.handle(), key->vport_wwpn, remotes.out(), &count, nullptr, false);
        // The records are stamped before the status is looked at.
        for (unsigned int i = 0; i < count; ++i) {
            req.name().put(remotes[i].adapter_name);
            remotes[i].rport_index = i;
        }
        if (int rc = req.step(st, FCOE_KIND_PORT)) return rc;
    } else {
        if (int rc = mv::facade::prepare_local_port(req, key->port_num, local, FCOE_KIND_PORT)) return rc;
        if (local.lnode_flag != 0) return req.fail(FCOE_ERR_PORT);
        const uint32_t vport_count = local.lnode_word_28;
        if (vport_count == 0) return req.fail(FCOE_ERR_NO_PORTS);
        VirtualPorts vports(vport_count);
        if (!vports.ok()) return req.fail(mv::facade::kNoVirtualPortArray);
        (void)vports.list(req.handle(), local.attributes.PortWWN.wwn);  // status not tested

        // The key's index is not compared with the count as such (agents
        // take it from an earlier listing of the virtual ports), but one
        // that names no listed virtual port has nothing to read.
        const uint16_t index = key->vport_index;
        if (!vports.has(index)) return req.fail(FCOE_ERR_VIRTUAL_PORT);
        // Status not tested: a virtual port whose remote ports cannot be
        // had is answered as one without remote ports.
        (void)mirvak_GetAllRPortsForVPort(req.handle(), vports.wwpn(index), remotes.out(), &count, nullptr, false);
        for (unsigned int i = 0; i < count; ++i) {
            req.name().put(remotes[i].adapter_name);
            remotes[i].port_num = index;
            remotes[i].rport_index = i;
        }
    }

    int result = FCOE_OK;
    if (count != 0) {
        if (!mv::facade::answer_block(buf, size, remotes.get(), std::size_t{count} * sizeof(port_info)))
            result = FCOE_ERR_NO_REMOTE_PORTS;
    } else {
        *size = 0;  // agents read the size with this answer; *buf is left alone
        result = FCOE_ERR_NO_REMOTE_PORTS;
    }
    return req.finish(result);
}

int MvFCoEIni::GetVirRemotePortStatistics(vport_in* key, void* buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(key, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    port_info local;
    std::memset(&local, 0, sizeof local);
    port_stats stats;
    std::memset(&stats, 0, sizeof stats);

    Request req(key->adapter_name);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;

    if (mv::wwn_given(key->vport_wwpn) && mv::wwn_given(key->rport_wwpn)) {
        put_name(req, stats);
        const HBA_UINT32 st = mirvak_GetRPortsStatsForVPort(req.handle(), key->vport_wwpn, &stats, key);
        if (int rc = req.step(st, FCOE_KIND_REMOTE_PORT)) return rc;
        mv::facade::answer(buf, size, &stats, sizeof stats);
        return req.finish(FCOE_OK);
    }

    if (int rc = mv::facade::prepare_local_port(req, key->port_num, local, FCOE_KIND_VIRTUAL_PORT)) return rc;
    if (local.lnode_flag != 0) return req.fail(FCOE_ERR_PORT);
    const uint32_t vport_count = local.lnode_word_28;
    if (vport_count == 0) return req.fail(FCOE_ERR_REMOTE_PORT_OFFLINE);
    const uint16_t index = key->vport_index;
    // An index past the count is answered with the adapter left open:
    // agents close it themselves after this answer.
    if (index > vport_count) return req.leave_open(FCOE_ERR_REMOTE_PORT_OFFLINE);
    // An index equal to the count passes the test above but names no
    // virtual port: answered as a virtual-port error, adapter closed.
    if (index == vport_count) return req.fail(FCOE_ERR_VIRTUAL_PORT);

    VirtualPorts vports(vport_count);
    if (!vports.ok()) return req.fail(FCOE_ERR_NO_MEMORY);
    (void)vports.list(req.handle(), local.attributes.PortWWN.wwn);  // status not tested

    put_name(req, stats);
    // The extended function names the remote port by the key alone.
    const HBA_UINT32 st = mirvak_GetRPortsStatsForVPort(req.handle(), vports.wwpn(index), &stats, key);
    if (int rc = req.step(st, FCOE_KIND_REMOTE_PORT)) return rc;
    mv::facade::answer(buf, size, &stats, sizeof stats);
    return req.finish(FCOE_OK);
}
