// Port and remote-port statistics: counters copied unchanged from the
// driver's local-node or remote-node record into a port_stats.
#include <cstdio>
#include <cstring>

#include "driver/common.h"
#include "driver/entry_lock.h"
#include "driver/port_rules.h"
#include "driver/walks.h"
#include "mgmt/local_port.h"
#include "mirvak/mgmt.h"

namespace {

// The first target of the local node whose port WWN is `wwpn`; `passed`
// counts the targets before it. remote holds the last record read.
bool find_target_by_wwpn(HBA_HANDLE handle, uint32_t lnode_id, const uint8_t (&wwpn)[8], rnode_info& remote,
                         uint32_t& passed) {
    bool found = false;
    mv::walk_rnodes(handle, lnode_id, remote, [&](rnode_info& r) {
        if (!mv::is_target(r)) return true;
        if (mv::wwn_equal(r.port_wwn, wwpn)) return !(found = true);
        ++passed;
        return true;
    });
    return found;
}

}  // namespace

HBA_UINT32 mirvak_GetKXPortStatistics(HBA_HANDLE handle, const port_info* key, port_stats* stats) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    const mv::PortKey wanted = mv::key_of(*key);
    std::memset(&stats->hba_stats, 0, sizeof stats->hba_stats);
    lnode_info node;
    switch (mv::pick_local_port(handle, wanted, node)) {
        // The list closing before the port is found answers the last driver
        // result, 0, with only hba_stats cleared; agents take it as success.
        case mv::PortPick::ChainEnd: return HBA_STATUS_OK;
        case mv::PortPick::DriverFailed: return HBA_STATUS_ERROR_ILLEGAL_INDEX;
        case mv::PortPick::Selected: break;
    }
    if (mv::lnode_not_live(node)) return MIRVAK_STATUS_PORT_OFFLINE;

    // hba_stats lies aligned for its type within the record.
    HBA_PORTSTATISTICS* const s = &stats->hba_stats;
    s->TxFrames = static_cast<HBA_INT64>(node.quad_1641);
    s->TxWords = static_cast<HBA_INT64>(node.quad_1633);
    s->RxFrames = static_cast<HBA_INT64>(node.quad_1657);
    s->RxWords = static_cast<HBA_INT64>(node.quad_1649);
    s->LIPCount = 0;
    s->NOSCount = 0;
    s->ErrorFrames = 0;
    s->DumpedFrames = 0;
    s->LinkFailureCount = 0;
    s->LossOfSyncCount = 0;
    s->LossOfSignalCount = 0;
    s->PrimitiveSeqProtocolErrCount = 0;
    s->InvalidTxWordCount = 0;
    s->InvalidCRCCount = 0;
    mv::copy_lnode_counters(node, *stats);
    return HBA_STATUS_OK;
}

HBA_UINT32 mirvak_GetKXVPortStatistics(HBA_HANDLE handle, const unsigned char* vport_wwpn, port_stats* stats) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    uint8_t wwpn[8];
    std::memcpy(wwpn, vport_wwpn, sizeof wwpn);
    lnode_info node;
    const int status = mv::lnode_by_wwpn(handle, wwpn, node);
    if (status != 0) {
        std::puts("Invalid Virtual Port WWPN!");
        return static_cast<HBA_UINT32>(status);
    }
    mv::copy_lnode_counters(node, *stats);
    // A virtual port has no frame counters of its own.
    std::memset(&stats->hba_stats, 0, sizeof stats->hba_stats);
    return HBA_STATUS_OK;
}

HBA_UINT32 mirvak_GetDiscoveredPortStats(HBA_HANDLE handle, const vport_in* key, port_stats* stats) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    lnode_info node;
    rnode_info remote;
    uint32_t number = 0;
    bool found = false;
    if (mv::both_wwns_given(*key)) {
        if (mv::lnode_by_wwpn(handle, key->vport_wwpn, node) != 0) {
            std::puts("mirvak_GetDiscoveredPortStats:: Error Fetching LNode Info");
            return HBA_STATUS_ERROR_ILLEGAL_WWN;
        }
        found = find_target_by_wwpn(handle, node.lnode_id, key->rport_wwpn, remote, number);
    } else {
        const uint32_t port_num = key->port_num;
        const uint32_t rport_index = key->rport_index;
        const mv::WalkResult walk = mv::walk_lnodes(handle, node, [&](lnode_info& n, uint64_t, uint32_t) {
            if (n.port_num != port_num) return true;
            number = 0;  // each local node's targets are numbered from 0
            mv::walk_rnodes(handle, n.lnode_id, remote, [&](rnode_info& r) {
                if (!mv::is_target(r)) return true;
                if (number == rport_index) return !(found = true);
                ++number;
                return true;
            });
            return !found;
        });
        if (walk.end == mv::WalkEnd::DriverFailed) std::printf("mirvak_GetDiscoveredPortStats:: Error Fetching LNode Info");
        // The list closing first answers the last driver result, 0, with the
        // record unfilled; agents take it as success.
        if (walk.end == mv::WalkEnd::ChainEnd) return static_cast<HBA_UINT32>(walk.status);
    }
    if (!found) {
        std::puts("mirvak_GetDiscoveredPortStats:: No RNode Info Obtained");
        return HBA_STATUS_ERROR_ILLEGAL_INDEX;
    }
    stats->rport_index = number;
    stats->port_num = node.port_num;
    mv::copy_rnode_counters(remote, *stats);
    return HBA_STATUS_OK;
}

HBA_UINT32 mirvak_GetRPortsStatsForVPort(HBA_HANDLE handle, const unsigned char*, port_stats* stats,
                                         const vport_in* key) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    lnode_info node;
    rnode_info remote;
    std::memset(&node, 0, sizeof node);
    std::memset(&remote, 0, sizeof remote);
    const uint16_t rport_index = key->rport_index;
    bool found = false;
    if (mv::both_wwns_given(*key)) {
        if (mv::lnode_by_wwpn(handle, key->vport_wwpn, node) != 0) {
            std::puts("mirvak_GetRPortsStatsForVPort:: Error Fetching LNode Info");
            return HBA_STATUS_ERROR_ILLEGAL_WWN;
        }
        uint32_t passed = 0;
        found = find_target_by_wwpn(handle, node.lnode_id, key->rport_wwpn, remote, passed);
        // Agents match this text: it names the other statistics function.
        if (!found) std::puts("mirvak_GetDiscoveredPortStats:: No RNode Info Obtained");
    } else {
        const uint32_t port_num = key->port_num;
        uint32_t number = 0;  // numbers targets across all the port's nodes: never reset
        const mv::WalkResult walk = mv::walk_lnodes(handle, node, [&](lnode_info& n, uint64_t, uint32_t) {
            if (n.port_num != port_num) return true;
            mv::walk_rnodes(handle, n.lnode_id, remote, [&](rnode_info& r) {
                if (!mv::is_target(r)) return true;
                if (number++ == rport_index) return !(found = true);
                return true;
            });
            if (found) return true;  // the walk goes on past the port found
            std::puts("mirvak_GetRPortsStatsForVPort:: No RNode Info Obtained");
            return false;
        });
        // Once the port is found, the counters are reported only when the
        // local-node list ends in a failed query; a list that closes
        // normally answers the last driver result, 0, with the record
        // unfilled. Agents rely on both as they are.
        if (walk.end == mv::WalkEnd::ChainEnd) return static_cast<HBA_UINT32>(walk.status);
        if (walk.end == mv::WalkEnd::DriverFailed) std::printf("mirvak_GetRPortsStatsForVPort:: Error Fetching LNode Info");
    }
    if (!found) return HBA_STATUS_ERROR;
    // The counters come from the last remote-node record read.
    stats->rport_index = rport_index;
    mv::copy_rnode_counters(remote, *stats);
    return HBA_STATUS_OK;
}
