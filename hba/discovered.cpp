// Discovered ports of the standard face: the n-th target behind a local
// port, and the search of a port WWN among the local ports and targets.
#include <cstring>

#include "driver/common.h"
#include "driver/entry_lock.h"
#include "driver/port_rules.h"
#include "driver/walks.h"
#include "mirvak/hba_plugin.h"

extern "C" {

HBA_STATUS mirvak_GetDiscoveredPortAttributes(HBA_HANDLE handle, HBA_UINT32 port, HBA_UINT32 target,
                                              HBA_PORTATTRIBUTES* attr) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return static_cast<HBA_STATUS>(-1);
    lnode_info node;
    rnode_info remote;
    bool answered = false;
    const mv::WalkResult walk = mv::walk_lnodes(handle, node, [&](lnode_info& local, uint64_t, uint32_t pos) {
        if (pos != port) return true;
        uint32_t counter = 0;
        mv::walk_rnodes(handle, local.lnode_id, remote, [&](rnode_info& r) {
            const std::string_view state = field_text(r.state);
            if (state == "OFFLINE" || state == "DISAPPEARED" || state == "UNINIT") {
                // A node that is gone is not counted, yet it still writes its
                // WWNs and a state into the caller's record; a later match
                // overwrites them. Callers have always seen these writes.
                attr->PortState = field_text(local.state) == "OFFLINE" ? HBA_PORTSTATE_OFFLINE : HBA_PORTSTATE_LINKDOWN;
                mv::copy_wwn(attr->NodeWWN, r.node_wwn);
                mv::copy_wwn(attr->PortWWN, r.port_wwn);
                return true;
            }
            if (!mv::is_target(r)) return true;
            if (counter != target) {
                ++counter;
                return true;
            }
            attr->PortState = mv::rnode_port_state(r);
            mv::copy_wwn(attr->NodeWWN, r.node_wwn);
            mv::copy_wwn(attr->PortWWN, r.port_wwn);
            attr->PortFcId = r.fcid;
            mv::or_class_of_service(attr->PortSupportedClassofService, r.cos);
            attr->NumberofDiscoveredPorts = local.num_rnodes;
            answered = true;
            return false;
        });
        return !answered;
    });
    if (answered) return HBA_STATUS_OK;
    // The end of the local-node list answers 0 even when nothing matched;
    // only a failed query is an error.
    return walk.end == mv::WalkEnd::DriverFailed ? HBA_STATUS_ERROR_ILLEGAL_INDEX : HBA_STATUS_OK;
}

HBA_STATUS mirvak_GetPortAttributesByWWN(HBA_HANDLE handle, HBA_WWN wwn, HBA_PORTATTRIBUTES* attr) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return static_cast<HBA_STATUS>(-1);
    // Both counters are raised before use, so the indexes handed on count
    // from 1 where the called functions count from 0, and the target
    // counter runs on over every port: a port found by WWN is answered with
    // the next port's attributes, a target with the next target's. Agents
    // depend on these offsets exactly.
    uint32_t p = 0;
    uint32_t t = 0;
    bool forwarded = false;
    HBA_STATUS result = HBA_STATUS_ERROR_ILLEGAL_INDEX;
    lnode_info node;
    rnode_info remote;
    const mv::WalkResult walk = mv::walk_lnodes(handle, node, [&](lnode_info& local, uint64_t, uint32_t) {
        ++p;
        if (mv::wwn_equal(local.port_wwn, wwn.wwn)) {
            result = mirvak_GetAdapterPortAttributes(handle, p, attr);
            forwarded = true;
            return false;
        }
        // Not tied to this node: the query names no local node.
        mv::walk_rnodes(handle, mv::kAnyLnode, remote, [&](rnode_info& r) {
            if (mv::rnode_gone(r)) return true;
            if (!mv::is_target(r)) return true;
            ++t;
            if (!mv::wwn_equal(r.port_wwn, wwn.wwn)) return true;
            result = mirvak_GetDiscoveredPortAttributes(handle, p, t, attr);
            forwarded = true;
            return false;
        });
        return !forwarded;
    });
    if (forwarded) return result;
    if (walk.end == mv::WalkEnd::DriverFailed) return static_cast<HBA_STATUS>(walk.status);
    return HBA_STATUS_ERROR_ILLEGAL_INDEX;
}

}  // extern "C"
