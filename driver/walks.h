// The walks over the driver's lists: local nodes, the remote nodes of one
// local node, and FCFs. Every function that looks for a node by position or
// by WWN goes through these.
#ifndef MIRVAK_DRIVER_WALKS_H
#define MIRVAK_DRIVER_WALKS_H

#include <cstdint>
#include <cstring>

#include "mirvak/driver_records.h"
#include "mirvak/tuskstor.h"

namespace mv {

constexpr uint32_t kBadHandle = 0xFFFFFFFFu;
constexpr uint32_t kEndCursor = 0xFFFFFFFFu;
// The remote-node query with this identifier is not tied to one local node.
constexpr uint32_t kAnyLnode = 0xFFFFFFFFu;

// Bounds on the driver's chains. The driver's cursors are not ours to trust:
// a chain that loops or never closes would keep a walk going for ever. No
// adapter of the family lists more local nodes than its ports times the 129
// a port can carry (itself and the 128 virtual ports an NPIV list holds),
// nor more remote nodes or FCFs than a fabric of its size logs in; a walk
// that reaches its bound ends as if the driver had closed the chain there.
// Chains within the bounds are walked exactly as before.
constexpr uint32_t kMaxLocalNodes = 4096;    // records shown by one local-node walk
constexpr uint32_t kMaxRemoteNodes = 16384;  // records shown by one remote-node walk
constexpr uint32_t kMaxFcfs = 1024;          // records read by one FCF search

enum class WalkEnd {
    ChainEnd,      // the driver closed the chain
    DriverFailed,  // a query returned non-zero; status holds it
    Stopped,       // the visitor asked to stop
};

struct WalkResult {
    WalkEnd end;
    int status;    // the last driver result
};

// Local nodes, from `cursor` (0: the first). The record that carries a zero
// lnode_handle only closes the chain and is never shown to the visitor.
// visit(lnode_info& rec, uint64_t next_cursor, uint32_t position) -> bool
// (false stops the walk); positions count the records shown. A chain longer
// than kMaxLocalNodes ends after that many records (ChainEnd).
template <class Visit>
WalkResult walk_lnodes(uint32_t handle, lnode_info& rec, Visit&& visit, uint64_t cursor = 0) {
    for (uint32_t position = 0;; ++position) {
        if (position == kMaxLocalNodes) return {WalkEnd::ChainEnd, 0};
        std::memset(&rec, 0, sizeof rec);
        const int status = tusk_get_lnode_info(handle, &rec, cursor);
        if (status != 0) return {WalkEnd::DriverFailed, status};
        cursor = rec.lnode_handle;
        if (cursor == 0) return {WalkEnd::ChainEnd, status};
        if (!visit(rec, cursor, position)) return {WalkEnd::Stopped, status};
    }
}

// Remote nodes of the local node `lnode_id`, from cursor 0xFFFFFFFF; the
// record whose rnode_index is 0xFFFFFFFF closes the chain and is not shown.
// visit(rnode_info& rec) -> bool. A chain longer than kMaxRemoteNodes ends
// after that many records (ChainEnd).
template <class Visit>
WalkResult walk_rnodes(uint32_t handle, uint32_t lnode_id, rnode_info& rec, Visit&& visit) {
    uint32_t cursor = kEndCursor;
    for (uint32_t shown = 0;; ++shown) {
        if (shown == kMaxRemoteNodes) return {WalkEnd::ChainEnd, 0};
        std::memset(&rec, 0, sizeof rec);
        const int status = tusk_get_rnode_info(handle, &rec, cursor, lnode_id);
        if (status != 0) return {WalkEnd::DriverFailed, status};
        cursor = rec.rnode_index;
        if (cursor == kEndCursor) return {WalkEnd::ChainEnd, status};
        if (!visit(rec)) return {WalkEnd::Stopped, status};
    }
}

// The local node whose port WWN is `wwpn`, as the driver looks it up: `node`
// is zeroed, given the WWPN and filled by the driver. Returns the driver's
// result.
int lnode_by_wwpn(uint32_t handle, const uint8_t* wwpn, lnode_info& node);

enum class FcfFound { Found, DriverFailed, Exhausted };

struct FcfResult {
    FcfFound found;
    int status;    // the last driver result
};

// Walk the FCFs on from `cursor` (0xFFFFFFFF: the first) until the one whose
// fcf_index is `wanted`. The caller zeroes `rec` before the walk; it is not
// cleared between queries, so after a failed query it still holds the last
// FCF read. `cursor` is left where the walk stopped. A search that has read
// kMaxFcfs records without finding `wanted` ends as Exhausted.
FcfResult find_fcf(uint32_t handle, uint32_t wanted, fcf_info& rec, uint32_t& cursor);

// A remote node is a target when its role, lower-cased in place, is "target".
bool is_target(rnode_info& rec);

inline bool wwn_equal(const uint8_t* a, const uint8_t* b) { return std::memcmp(a, b, 8) == 0; }

}  // namespace mv

#endif
