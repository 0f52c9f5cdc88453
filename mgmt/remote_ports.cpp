// Remote ports: the FCoE fields of the target remote ports a local port
// sees. Only remote ports whose role is "target" are ever reported.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "driver/common.h"
#include "driver/entry_lock.h"
#include "driver/port_rules.h"
#include "driver/walks.h"
#include "mgmt/local_port.h"
#include "mirvak/mgmt.h"

namespace {

constexpr HBA_UINT32 kNoTarget = HBA_STATUS_ERROR_ILLEGAL_INDEX;
constexpr HBA_UINT32 kNoMemory = HBA_STATUS_ERROR;
// A buffer the caller hands in is taken to hold this much; an answer that
// needs more gets a grown buffer.
constexpr std::size_t kCallerBuffer = 0x40000;

bool local_uninit(const lnode_info& node) { return field_text(node.state) == "UNINIT"; }

// The driver's identifiers of a remote port and its (lower-cased) role.
void copy_rnode_ids(const rnode_info& remote, port_info& info) {
    mv::copy_text(info.role, remote.role);
    info.lnode_id = remote.rnode_word_4;
    info.rnode_index = remote.rnode_index;
    info.rnode_byte_12 = remote.rnode_byte_12;
}

// The standard attributes of a live remote port, with its index and role.
void fill_remote_attributes(const rnode_info& remote, port_info& info) {
    info.attributes.PortState = mv::rnode_port_state(remote);
    std::memcpy(info.attributes.NodeWWN.wwn, remote.node_wwn, 8);
    std::memcpy(info.attributes.PortWWN.wwn, remote.port_wwn, 8);
    info.attributes.PortFcId = remote.fcid;
    info.rnode_index = remote.rnode_index;
    mv::copy_text(info.role, remote.role);
    // Agents read the class numbers OR'ed together, not one bit per class.
    uint32_t classes = info.attributes.PortSupportedClassofService;
    mv::or_class_of_service(classes, remote.cos);
    info.attributes.PortSupportedClassofService = classes;
}

// Put `bytes` of `from` into the caller's buffer *to, first growing it with
// realloc when the answer does not fit in the size a caller's buffer is
// taken to have. False when it cannot be grown (the caller's buffer is
// then left as it was).
bool copy_out(char** to, const void* from, std::size_t bytes) {
    if (bytes >= kCallerBuffer) {
        char* grown = static_cast<char*>(std::realloc(*to, bytes));
        if (grown == nullptr) return false;
        *to = grown;
    }
    std::memset(*to, 0, bytes);
    std::memcpy(*to, from, bytes);
    return true;
}

}  // namespace

HBA_UINT32 mirvak_GetKXDiscoveredPortAttributes(HBA_HANDLE handle, HBA_UINT32 lnode, HBA_UINT32 target,
                                                port_info* info) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    lnode_info node;
    rnode_info remote;
    std::memset(&remote, 0, sizeof remote);
    uint32_t number = 0;
    bool found = false;
    const mv::WalkResult walk = mv::walk_lnodes(handle, node, [&](lnode_info& n, uint64_t, uint32_t position) {
        if (position != lnode) return true;
        const bool uninit = local_uninit(n);
        mv::walk_rnodes(handle, n.lnode_id, remote, [&](rnode_info& r) {
            // A remote port that is gone takes a number but can never be
            // chosen: the numbers match those of the standard list of
            // discovered ports, which agents use them with.
            if (mv::rnode_gone(r) || uninit) {
                ++number;
                return true;
            }
            if (!mv::is_target(r)) return true;
            if (number == target) {
                copy_rnode_ids(r, *info);
                return !(found = true);
            }
            ++number;
            return true;
        });
        return !found;
    });
    switch (walk.end) {
        case mv::WalkEnd::Stopped: return HBA_STATUS_OK;
        case mv::WalkEnd::DriverFailed: return kNoTarget;
        // The list ran out: the last driver result, 0, with the record
        // unfilled. Agents take an ordinal past the end as no error.
        case mv::WalkEnd::ChainEnd: break;
    }
    return static_cast<HBA_UINT32>(walk.status);
}

HBA_UINT32 mirvak_GetKXDiscoveredPortAttributes_by_wwpn(HBA_HANDLE handle, const port_info* key, char** ports,
                                                        unsigned int* size, char** stats) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    lnode_info node;
    const int status = mv::lnode_by_wwpn(handle, key->attributes.PortWWN.wwn, node);
    if (status != 0) {
        std::puts("tusk_get_lnode_info_by_fcid failed");
        return static_cast<HBA_UINT32>(status);
    }
    if (node.lnode_id == mv::kAnyLnode) return static_cast<HBA_UINT32>(status);

    const HBA_UINT32 count = mirvak_GetNumTargets_by_wwpn(handle, key);
    // A count the driver would not give (0xFFFFFFFF) cannot be allocated.
    if (count == 0xFFFFFFFFu) return kNoMemory;
    const std::size_t ports_bytes = std::size_t{count} * sizeof(port_info);
    const std::size_t stats_bytes = std::size_t{count} * sizeof(port_stats);
    auto* list = static_cast<port_info*>(std::malloc(ports_bytes));
    if (list == nullptr) return kNoMemory;
    std::memset(list, 0, ports_bytes);
    const bool with_stats = stats != nullptr && *stats != nullptr;
    port_stats* counters = nullptr;
    if (with_stats) {
        counters = static_cast<port_stats*>(std::malloc(stats_bytes));
        if (counters == nullptr) {
            std::free(list);
            return kNoMemory;
        }
        std::memset(counters, 0, stats_bytes);
    }

    const bool uninit = local_uninit(node);
    uint32_t slot = 0;
    bool found = false;
    rnode_info remote;
    mv::walk_rnodes(handle, node.lnode_id, remote, [&](rnode_info& r) {
        if (!mv::is_target(r)) return true;
        // The driver may have gained targets since they were counted: no
        // slot, no record.
        if (slot >= count) return false;
        found = true;
        port_info& info = list[slot];
        mv::copy_text(info.adapter_name, key->adapter_name);
        info.rport_index = slot;
        info.port_num = node.port_num;
        info.rnode_index = r.rnode_index;
        if (mv::rnode_gone(r) || uninit) {
            // The list ends at the first target that is not live; agents
            // read nothing after it.
            info.attributes.PortState =
                field_text(r.state) == "OFFLINE" ? HBA_PORTSTATE_OFFLINE : HBA_PORTSTATE_LINKDOWN;
            std::memcpy(info.attributes.NodeWWN.wwn, r.node_wwn, 8);
            std::memcpy(info.attributes.PortWWN.wwn, r.port_wwn, 8);
            return false;
        }
        fill_remote_attributes(r, info);
        copy_rnode_ids(r, info);
        info.attributes.NumberofDiscoveredPorts = node.num_rnodes;
        if (counters != nullptr) mv::copy_rnode_counters(r, counters[slot]);
        if (slot + 1 >= count) return false;
        ++slot;
        return true;
    });

    if (!found) {
        std::free(list);
        std::free(counters);
        return kNoTarget;
    }
    const std::size_t limit = kCallerBuffer - 1;
    bool copied = true;
    if (ports_bytes > limit) {
        copied = copy_out(ports, list, ports_bytes);
        if (copied && counters != nullptr) copied = copy_out(stats, counters, stats_bytes);
        if (copied) *size = static_cast<unsigned int>(ports_bytes);
    } else if (counters != nullptr) {
        copied = copy_out(stats, counters, stats_bytes) && copy_out(ports, list, ports_bytes);
        if (copied) *size = static_cast<unsigned int>(ports_bytes);
    } else if (stats == nullptr) {
        copy_out(ports, list, ports_bytes);
        *size = static_cast<unsigned int>(ports_bytes);
    }
    // Otherwise the caller asked for statistics and gave no buffer for
    // them: nothing is copied and the answer is still 0, as agents expect.
    std::free(list);
    std::free(counters);
    return copied ? HBA_STATUS_OK : kNoTarget;
}

HBA_UINT32 mirvak_GetAllRPortsForVPort(HBA_HANDLE handle, const unsigned char* wwpn, port_info** ports,
                                       unsigned int* count, port_stats** stats, bool with_stats) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    lnode_info node;
    const int status = mv::lnode_by_wwpn(handle, wwpn, node);
    if (status != 0) {
        std::puts("Invalid LNode WWPN!");
        return static_cast<HBA_UINT32>(status);
    }
    if (node.lnode_id == mv::kAnyLnode) return static_cast<HBA_UINT32>(status);

    const bool uninit = local_uninit(node);
    port_info* list = nullptr;
    port_stats* counters = nullptr;
    uint32_t n = 0;
    // The arrays grow by doubling (room for `room` records), not one record
    // a target: a long list must not be copied once per target.
    std::size_t room = 0;
    bool no_memory = false;
    rnode_info remote;
    mv::walk_rnodes(handle, node.lnode_id, remote, [&](rnode_info& r) {
        if (uninit || mv::rnode_gone(r) || !mv::is_target(r)) return true;
        const bool full = n == room;
        const std::size_t more_room = full ? std::max<std::size_t>(8, room * 2) : room;
        if (full) {
            auto* grown = static_cast<port_info*>(std::realloc(list, more_room * sizeof(port_info)));
            if (grown == nullptr) return !(no_memory = true);
            list = grown;
        }
        port_info& info = list[n];
        std::memset(&info, 0, sizeof info);
        fill_remote_attributes(r, info);
        if (with_stats) {
            if (full) {
                auto* more = static_cast<port_stats*>(std::realloc(counters, more_room * sizeof(port_stats)));
                if (more == nullptr) return !(no_memory = true);
                counters = more;
            }
            port_stats& s = counters[n];
            std::memset(&s, 0, sizeof s);
            s.rport_index = n;
            mv::copy_rnode_counters(r, s);
            // Left 0 here, unlike the single remote port's statistics:
            // agents read this list's counter1 as unset.
            s.counter1 = 0;
        }
        ++n;
        room = more_room;
        return true;
    });
    if (no_memory) {
        // The caller gets nothing back; what was built so far is released.
        std::free(list);
        std::free(counters);
        return kNoMemory;
    }
    *count = n;
    *ports = list;
    if (with_stats) *stats = counters;
    return n != 0 ? HBA_STATUS_OK : kNoTarget;
}
