// What the simulated driver makes of a fabric description: the chains and
// their cursors, the records it hands out, and the NPIV changes it makes.
// Plain functions over sim::Fabric; the library's state lives in state.h.
#ifndef MIRVAK_SIM_DRIVER_MODEL_H
#define MIRVAK_SIM_DRIVER_MODEL_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "fabric.h"
#include "mirvak/driver_records.h"

namespace tusksim {

// Statuses of the simulated driver: negative errno values, so that none can
// be mistaken for a status of the plug-in's own (0..100, or -1).
constexpr int kBadHandle = -EBADF;     // the handle is not open
constexpr int kNoDevice = -ENODEV;     // the handle's adapter left the fabric
constexpr int kBadAddress = -EFAULT;   // a null record
constexpr int kBadCursor = -EINVAL;    // a cursor that names no record
constexpr int kBadArgument = -EINVAL;  // a zero WWPN, a list buffer under 20 bytes, by-WWN "how" not 1
constexpr int kNotFound = -ENOENT;     // no such local node, physical port or virtual port
constexpr int kExists = -EEXIST;       // the new virtual port's WWPN is in use
constexpr int kNoSpace = -ENOSPC;      // the physical port has max_vports virtual ports
constexpr int kIoError = -EIO;         // the description file could not be written back

// Remote-node and FCF chains: the cursor that asks for the first record, and
// the index that the closing record carries.
constexpr uint32_t kFirstCursor = 0xFFFFFFFFu;
constexpr uint32_t kAllLnodes = 0xFFFFFFFFu;   // lnode_id that lists the remote nodes of every node

// Position of the record a cursor asks for: `first` asks for position 0, a
// cursor equal to cursors[k] for k + 1 (cursors.size() is the closing
// record); any other cursor asks for nothing.
template <class C>
std::optional<std::size_t> next_position(const std::vector<C>& cursors, C cursor, C first) {
    if (cursor == first) return 0;
    for (std::size_t k = 0; k < cursors.size(); ++k) {
        if (cursors[k] == cursor) return k + 1;
    }
    return std::nullopt;
}

// Cursor values: the description's own where it gives one, otherwise a
// generated one that no other node of the list uses.
std::vector<uint64_t> lnode_handles(const sim::Adapter& a);
std::vector<uint32_t> rnode_indexes(const std::vector<sim::RemoteNode>& nodes);

// The remote nodes that tusk_get_rnode_info lists for an lnode_id, with the
// rnode_index each record carries; nullopt when no local node has that id.
struct RnodeChain {
    std::vector<const sim::RemoteNode*> nodes;
    std::vector<uint32_t> cursors;
};
std::optional<RnodeChain> rnode_chain(const sim::Adapter& a, uint32_t lnode_id);

// A local node by port WWPN. With duplicates, the first live one (state
// neither "OFFLINE" nor "UNINIT") is preferred, else the first.
enum class Which { Any, Physical, Virtual };
std::optional<std::size_t> find_lnode(const sim::Adapter& a, const sim::Wwn& wwpn, Which which);

// Virtual ports of a physical port, in chain order, and the count the
// driver reports for it (npiv_reported_count when the description gives one).
std::vector<std::size_t> vports_of(const sim::Adapter& a, const sim::Wwn& physical);
uint32_t reported_vport_count(const sim::Adapter& a, const sim::LocalNode& n);

// Records. Each is zeroed, filled from the named fields, then patched.
void build_hw(const sim::Hw& h, hw_info& rec);
void build_lnode(const sim::Adapter& a, std::size_t k, uint64_t handle, lnode_info& rec);
void build_closing_lnode(const sim::Adapter& a, lnode_info& rec);
void build_rnode(const sim::RemoteNode& n, uint32_t index, rnode_info& rec);
void build_closing_rnode(rnode_info& rec);
void build_fcf(const sim::Fcf& f, fcf_info& rec);
void build_closing_fcf(fcf_info& rec);

// tusk_list_npiv_port over a buffer of `size` bytes.
int list_vports(const sim::Adapter& a, uint8_t* buf, uint32_t size);

// tusk_create_npiv_port / tusk_delete_npiv_port without the adapter's policy.
int create_vport(const sim::Fabric& f, sim::Adapter& a, const npiv_req& req);
int delete_vport(sim::Adapter& a, const npiv_req& req);

}  // namespace tusksim

#endif
