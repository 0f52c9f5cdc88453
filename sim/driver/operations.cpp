// The twelve operations of libtuskstor, answered from the fabric in force.
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <string>
#include <cstring>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "host_view.h"
#include "model.h"
#include "state.h"

#pragma GCC visibility push(default)
#include "mirvak/tuskstor.h"
#pragma GCC visibility pop

namespace {

using namespace tusksim;

// A hung call: waits, without the driver's lock (so that the test can
// still steer the simulation), until the release file exists.
void wait_for_release(const std::string& file) {
    struct stat st;
    while (stat(file.c_str(), &st) != 0) usleep(10 * 1000);
}

// Every operation takes the lock, loads the fabric at first use, counts the
// call and answers an injected fault before doing anything else; a "hang"
// fault holds the call until it is released, then lets it do its work.
template <class Body>
auto run(Op op, Body&& body) {
    Driver& d = driver();
    struct InFlight {
        Driver& d;
        explicit InFlight(Driver& dr) : d(dr) { d.arrive(); }
        ~InFlight() { d.depart(); }
    } in_flight(d);
    std::unique_lock<std::mutex> lock(d.mutex());
    d.ensure_loaded();
    using Result = decltype(body(d));
    if (const auto fault = d.enter(op)) {
        if (fault->hang.empty()) return static_cast<Result>(fault->status);
        lock.unlock();
        wait_for_release(fault->hang);
        lock.lock();
    }
    return body(d);
}

// An operation on an open adapter.
template <class Body>
int on_adapter(Op op, uint32_t handle, Body&& body) {
    return run(op, [&](Driver& d) -> int {
        int status = 0;
        sim::Adapter* a = d.adapter(handle, status);
        return a != nullptr ? body(d, *a) : status;
    });
}

// An operation on an open adapter that fills the caller's record.
template <class Rec, class Body>
int fill(Op op, uint32_t handle, void* rec, Body&& body) {
    return on_adapter(op, handle, [&](Driver& d, sim::Adapter& a) -> int {
        return rec == nullptr ? kBadAddress : body(d, a, *static_cast<Rec*>(rec));
    });
}

// "/dev/tuskstor<N>" with N in decimal without leading zeros; nothing else.
std::optional<uint32_t> instance_of(const char* path) {
    static constexpr std::string_view kPrefix = "/dev/tuskstor";
    if (path == nullptr) return std::nullopt;
    const std::string_view s(path, strnlen(path, kPrefix.size() + 3));
    if (s.size() <= kPrefix.size() || s.substr(0, kPrefix.size()) != kPrefix) return std::nullopt;
    const std::string_view digits = s.substr(kPrefix.size());
    if (digits.size() > 2 || (digits.size() == 2 && digits[0] == '0')) return std::nullopt;
    uint32_t instance = 0;
    for (const char c : digits) {
        if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
        instance = instance * 10 + static_cast<uint32_t>(c - '0');
    }
    return instance;
}

// Create and delete: the adapter's policy may refuse at once; any refusal
// leaves -5 in the request when the policy asks for that marker; a change
// is written back to the description file it came from and shown by the
// simulated host (see host_view.h), and undone when either fails. Other
// processes may change the same file: the change is made under the file's
// lock, on the description as the file holds it now. Before the change
// every local node's SCSI host number is pinned, so that the ports that
// stay keep their fc_host entries; change gets the first free number for a
// new port.
template <class Change>
int change_vports(Op op, uint32_t handle, void* rec, int sim::NpivPolicy::*forced, Change change) {
    return fill<npiv_req>(op, handle, rec, [&](Driver& d, sim::Adapter& known, npiv_req& req) -> int {
        const bool marker = known.npiv.refused_marker;
        int status = known.npiv.*forced;
        Driver::FileLock lock;
        if (status == 0) {
            if (d.lock_file(lock) != 0 || d.reread() != 0) return kIoError;
            sim::Adapter* const a = d.adapter(handle, status);
            if (a == nullptr) return status;  // the adapter left the description
            const sim::Fabric reread = d.fabric();
            const std::optional<int> next_host = pin_scsi_hosts(d.fabric());
            status = change(d.fabric(), *a, req, next_host);
            // `a` may point into the fabric replaced below: not used after this.
            if (status != 0) {
                d.fabric() = reread;  // the pins go with the refused change
            } else if (d.persist() != 0) {
                d.fabric() = reread;
                return kIoError;
            } else if (publish_host(d.fabric()) != 0) {
                d.fabric() = reread;
                d.persist();
                publish_host(d.fabric());
                return kIoError;
            }
        }
        if (status != 0 && marker) req.status = NPIV_REQ_REFUSED;
        return status;
    });
}

}  // namespace

extern "C" {

uint32_t open_adapter(uint32_t instance) {
    return run(Op::OpenAdapter, [&](Driver& d) { return d.open(instance); });
}

uint32_t open_adapter_str(const char* path) {
    return run(Op::OpenAdapterStr, [&](Driver& d) {
        const auto instance = instance_of(path);
        return instance ? d.open(*instance) : TUSK_INVALID_HANDLE;
    });
}

int close_adapter(uint32_t handle) {
    return run(Op::CloseAdapter, [&](Driver& d) { return d.close(handle) ? 0 : kBadHandle; });
}

int tusk_probe_adapter(uint32_t handle) {
    return on_adapter(Op::ProbeAdapter, handle, [](Driver&, sim::Adapter& a) { return a.probe_status; });
}

int tusk_get_hw_info(uint32_t handle, void* rec) {
    return fill<hw_info>(Op::GetHwInfo, handle, rec, [](Driver&, sim::Adapter& a, hw_info& r) {
        build_hw(a.hw, r);
        return 0;
    });
}

int tusk_get_lnode_info(uint32_t handle, void* rec, uint64_t cursor) {
    return fill<lnode_info>(Op::GetLnodeInfo, handle, rec, [&](Driver&, sim::Adapter& a, lnode_info& r) {
        const auto handles = lnode_handles(a);
        const auto pos = next_position<uint64_t>(handles, cursor, 0);
        if (!pos) return kBadCursor;
        if (*pos == handles.size()) {
            build_closing_lnode(a, r);
        } else {
            build_lnode(a, *pos, handles[*pos], r);
        }
        return 0;
    });
}

int tusk_get_lnode_info_by_fcid(uint32_t handle, void* rec, int how) {
    return fill<lnode_info>(Op::GetLnodeInfoByFcid, handle, rec, [&](Driver&, sim::Adapter& a, lnode_info& r) {
        if (how != 1) return kBadArgument;
        sim::Wwn wwpn;
        std::memcpy(wwpn.data(), r.port_wwn, wwpn.size());
        const auto k = find_lnode(a, wwpn, Which::Any);
        if (!k) {
            // A failed lookup leaves a zeroed record, the preset WWN included.
            std::memset(&r, 0, sizeof r);
            return kNotFound;
        }
        build_lnode(a, *k, lnode_handles(a)[*k], r);
        return 0;
    });
}

int tusk_get_rnode_info(uint32_t handle, void* rec, uint32_t cursor, uint32_t lnode_id) {
    return fill<rnode_info>(Op::GetRnodeInfo, handle, rec, [&](Driver&, sim::Adapter& a, rnode_info& r) {
        const auto chain = rnode_chain(a, lnode_id);
        if (!chain) return kNotFound;
        const auto pos = next_position(chain->cursors, cursor, kFirstCursor);
        if (!pos) return kBadCursor;
        if (*pos == chain->nodes.size()) {
            build_closing_rnode(r);
        } else {
            build_rnode(*chain->nodes[*pos], chain->cursors[*pos], r);
        }
        return 0;
    });
}

int tusk_get_fcf_info(uint32_t handle, void* rec, uint32_t cursor) {
    return fill<fcf_info>(Op::GetFcfInfo, handle, rec, [&](Driver&, sim::Adapter& a, fcf_info& r) {
        std::vector<uint32_t> cursors;
        for (const auto& f : a.fcfs) cursors.push_back(f.fcf_index);
        const auto pos = next_position(cursors, cursor, kFirstCursor);
        if (!pos) return kBadCursor;
        if (*pos == cursors.size()) {
            build_closing_fcf(r);
        } else {
            build_fcf(a.fcfs[*pos], r);
        }
        return 0;
    });
}

int tusk_list_npiv_port(uint32_t handle, void* list, uint32_t size) {
    return fill<uint8_t>(Op::ListNpivPort, handle, list,
                         [&](Driver&, sim::Adapter& a, uint8_t& buf) { return list_vports(a, &buf, size); });
}

int tusk_create_npiv_port(uint32_t handle, void* req) {
    return change_vports(Op::CreateNpivPort, handle, req, &sim::NpivPolicy::create_status,
                         [](sim::Fabric& f, sim::Adapter& a, const npiv_req& r, std::optional<int> host) {
                             const int status = create_vport(f, a, r);
                             // The new port's fc_host comes after every other.
                             if (status == 0) a.lnodes.back().scsi_host = host;
                             return status;
                         });
}

int tusk_delete_npiv_port(uint32_t handle, void* req) {
    return change_vports(Op::DeleteNpivPort, handle, req, &sim::NpivPolicy::delete_status,
                         [](sim::Fabric&, sim::Adapter& a, const npiv_req& r, std::optional<int>) {
                             return delete_vport(a, r);
                         });
}

}  // extern "C"
