// LUN information: the logical units the host sees behind one target
// remote port of a local or virtual port. The driver names the pair of
// ports; the host's SCSI view (sysfs) gives the LUNs.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <new>
#include <vector>

#include "driver/common.h"
#include "driver/entry_lock.h"
#include "driver/walks.h"
#include "host/lun_count.h"
#include "host/sysfs_view.h"
#include "mirvak/host_view.h"
#include "mirvak/instance_map.h"
#include "mirvak/mgmt.h"
#include "mgmt/lun_fill.h"

namespace {

// How the walk for the key's port and target ended.
struct LunSearch {
    bool found = false;          // some node of the port had the target
    bool driver_failed = false;  // a local-node query failed
    bool chain_end = false;      // the driver closed the local-node list
    bool no_target = false;      // a node of the port lacked the target
};

// Walk the local nodes of the key's port number; for each, find its target
// numbered key.rport_index and hand the pair of WWPNs to use(). Every node
// of the port is visited, so a later one overrides an earlier one; a node
// without the target ends the walk.
template <class Announce, class Use>
LunSearch search_luns(HBA_HANDLE handle, const vport_in& key, Announce&& announce, Use&& use) {
    LunSearch s;
    const uint16_t port_num = key.port_num;
    const uint32_t rport_index = key.rport_index;
    lnode_info node;
    rnode_info remote;
    const mv::WalkResult walk = mv::walk_lnodes(handle, node, [&](lnode_info& n, uint64_t, uint32_t) {
        if (n.port_num != port_num) return true;
        announce(n);
        uint32_t number = 0;
        bool selected = false;
        mv::walk_rnodes(handle, n.lnode_id, remote, [&](rnode_info& r) {
            if (!mv::is_target(r)) return true;
            if (number++ != rport_index) return true;
            selected = true;
            use(charArrayToLong(n.port_wwn), charArrayToLong(r.port_wwn));
            return false;
        });
        if (!selected) {
            s.no_target = true;
            return false;
        }
        s.found = true;
        return true;
    });
    s.driver_failed = walk.end == mv::WalkEnd::DriverFailed;
    s.chain_end = walk.end == mv::WalkEnd::ChainEnd;
    return s;
}

}  // namespace

HBA_UINT32 mirvak_GetKXLunInfo(HBA_HANDLE handle, const vport_in* key, lun_info* luns, int*) {
    const mv::EntryLock entry_lock;
    return mv::kx_lun_info(handle, key, luns, SIZE_MAX);
}

HBA_UINT32 mv::kx_lun_info(HBA_HANDLE handle, const vport_in* key, lun_info* luns, std::size_t capacity) {
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    // The LUNs are counted, then listed: each sysfs file read once.
    mv::host::SysfsRequest sysfs;
    if (mv::both_wwns_given(*key)) {
        // As getLuninfo(luns, local, remote): no more records than a silent
        // count finds, and no more than the caller has room for.
        const unsigned long local = charArrayToLong(key->vport_wwpn);
        const unsigned long remote = charArrayToLong(key->rport_wwpn);
        getLuninfo(luns, local, remote, std::min(mv::count_luns_quietly(local, remote), capacity));
        return HBA_STATUS_OK;
    }
    // Each node of the port that has the target fills the array again and
    // the last one wins, as agents see it, with the same lines printed in
    // the same order. An agent sizes the array with mirvak_GetKXLunCount,
    // which counts the last node's LUNs, so an earlier node with more LUNs
    // must not write past that: the walk is recorded first and replayed with
    // every fill bounded by the last node's count.
    struct Event {
        bool announce;
        unsigned long local, remote;
    };
    std::vector<Event> events;
    // Without memory to record the walk, nothing is filled and nothing is
    // replayed, as when the walk's own paths cannot be allocated; the
    // answer is still the walk's.
    bool recorded = true;
    const auto record = [&](const Event& e) {
        if (!recorded) return;
        try {
            events.push_back(e);
        } catch (const std::bad_alloc&) {
            recorded = false;
            events.clear();
        }
    };
    const LunSearch s = search_luns(
        handle, *key, [&](const lnode_info&) { record({true, 0, 0}); },
        [&](unsigned long local, unsigned long remote) { record({false, local, remote}); });
    std::size_t room = 0;
    for (const Event& e : events)
        if (!e.announce) room = mv::count_luns_quietly(e.local, e.remote);
    room = std::min(room, capacity);
    for (const Event& e : events) {
        if (e.announce)
            std::puts("Found LNode for LUN Discovery");
        else
            getLuninfo(luns, e.local, e.remote, room);
    }
    // The list closing answers the last driver result, 0, whatever was
    // found: agents take it as success.
    if (s.chain_end) return HBA_STATUS_OK;
    if (s.driver_failed) {
        std::printf("mirvak_GetKXLunInfo:: Error Fetching LNode Info");
    } else {
        std::puts("No RNode Info Found");
    }
    return s.found ? HBA_STATUS_OK : HBA_STATUS_ERROR;
}

HBA_UINT32 mirvak_GetKXLunCount(HBA_HANDLE handle, const vport_in* key, int* count) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    mv::host::SysfsRequest sysfs;  // each sysfs file read once in this call
    if (mv::both_wwns_given(*key)) {
        *count = static_cast<int>(getNumLuns(charArrayToLong(key->vport_wwpn), charArrayToLong(key->rport_wwpn)));
        return HBA_STATUS_OK;
    }
    int luns = 0;
    const LunSearch s = search_luns(
        handle, *key, [](const lnode_info& n) { std::printf("Found the LNode: %d\n", n.port_num); },
        [&](unsigned long local, unsigned long remote) { luns = static_cast<int>(getNumLuns(local, remote)); });
    if (s.driver_failed) std::printf("mirvak_GetKXLunCount:: Error Fetching LNode Info");
    if (s.no_target) std::puts("No RNode Info Obtained");
    *count = luns;
    std::printf("Total Number of LUNS: %d:%d\n", luns, s.found ? 1 : 0);
    return s.found ? HBA_STATUS_OK : HBA_STATUS_ERROR_ILLEGAL_INDEX;
}

HBA_UINT32 mirvak_GetKXVPortLunInfo_by_wwn(HBA_HANDLE, const unsigned char* local, const unsigned char* remote,
                                           lun_info** luns, unsigned int* count) {
    const mv::EntryLock entry_lock;
    mv::host::SysfsRequest sysfs;  // each sysfs file read once in this call
    unsigned int found = 0;
    getVportLuninfo(luns, charArrayToLong(local), charArrayToLong(remote), &found);
    *count = found;
    return HBA_STATUS_OK;
}

// Kept as a placeholder: the facade calls it and relies on an empty answer.
HBA_UINT32 mirvak_GetKXVPortLunInfo(HBA_HANDLE handle, HBA_UINT32, HBA_UINT32, HBA_UINT32, lun_info** luns,
                                    unsigned int* count) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    *luns = nullptr;
    *count = 0;
    return HBA_STATUS_OK;
}

// Kept as a placeholder: the facade calls it; there is nothing to refresh.
HBA_UINT32 mirvak_RefreshFCoESystem() { return HBA_STATUS_OK; }
