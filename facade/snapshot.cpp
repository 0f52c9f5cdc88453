// The whole-system snapshot: every adapter, its physical ports with their
// statistics, remote ports and LUNs, and its virtual ports with their
// statistics, remote ports and LUNs, as one byte stream that the agent frees.
// The record layouts are in mirvak/snapshot_records.h.
//
// Records are gathered in a 256 KiB chunk; a record that would take the
// chunk past 0x3FFFF bytes first moves the chunk's bytes to the end of the
// result, which grows with realloc. The stream is the same bytes whatever
// the chunking.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "driver/entry_lock.h"
#include "facade/request.h"
#include "facade/virtual_ports.h"
#include "host/sysfs_view.h"
#include "mirvak/instance_map.h"
#include "mirvak/mgmt.h"
#include "mgmt/lun_fill.h"
#include "mirvak/mv_fcoe_ini.h"
#include "mirvak/snapshot_records.h"

using mv::facade::AdapterName;
using mv::facade::Array;
using mv::facade::Owned;
using mv::facade::VirtualPorts;
using mv::facade::inherit_from_physical;
using mv::snapshot::adapter_record;
using mv::snapshot::lun_record;
using mv::snapshot::port_record;
using mv::snapshot::remote_record;

namespace {

constexpr std::size_t kChunkBytes = 0x40000;
// A chunk holds at most this many bytes before it is moved to the result.
constexpr std::size_t kChunkLimit = 0x3FFFF;
// Each of the two buffers that receive a port's remote ports (port_info and
// port_stats arrays); the extended function grows them when it needs more.
constexpr std::size_t kScratchBytes = 0x40000;

// Above this many discovered ports, a port with virtual ports gets a pause
// before its remote ports are asked for.
constexpr HBA_UINT32 kManyDiscoveredPorts = 35;
constexpr auto kManyPortsPause = std::chrono::seconds(5);

void* zeroed(std::size_t bytes) {
    void* p = std::malloc(bytes);
    if (p != nullptr) std::memset(p, 0, bytes);
    return p;
}

// A malloc'ed buffer released when it goes out of scope; the extended
// function that fills it may replace it through out().
class Buffer {
public:
    explicit Buffer(std::size_t bytes) : p_(static_cast<char*>(zeroed(bytes))) {}
    ~Buffer() { std::free(p_); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    bool ok() const { return p_ != nullptr; }
    char* get() { return p_; }
    char** out() { return &p_; }

private:
    char* p_;
};

// The stream being assembled: the chunk and the result it is moved into.
class Stream {
public:
    Stream() : chunk_(static_cast<unsigned char*>(zeroed(kChunkBytes))) {}
    ~Stream() {
        std::free(chunk_);
        std::free(result_);
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    bool ok() const { return chunk_ != nullptr; }

    // Append n bytes. False when the result could not be grown or a new
    // chunk could not be had: the snapshot is then abandoned.
    bool append(const void* bytes, std::size_t n) {
        if (fill_ + n > kChunkLimit) {
            auto* grown = static_cast<unsigned char*>(std::realloc(result_, result_size_ + fill_));
            if (grown == nullptr) return false;
            result_ = grown;
            std::memcpy(result_ + result_size_, chunk_, fill_);
            result_size_ += fill_;
            std::free(chunk_);
            fill_ = 0;
            chunk_ = static_cast<unsigned char*>(zeroed(kChunkBytes));
            if (chunk_ == nullptr) return false;
        }
        std::memcpy(chunk_ + fill_, bytes, n);
        fill_ += n;
        total_ += n;
        return true;
    }

    // The whole stream in one block the caller frees, its length in *size;
    // null when the block could not be had.
    void* finish(unsigned int* size) {
        unsigned char* out = nullptr;
        if (total_ > kChunkLimit) {
            // Earlier chunks are in the result already; the last one joins them.
            if (fill_ != 0) {
                out = static_cast<unsigned char*>(std::realloc(result_, total_));
                if (out == nullptr) return nullptr;
                result_ = out;
                std::memcpy(out + result_size_, chunk_, fill_);
                result_size_ += fill_;
            }
            out = result_;
        } else {
            out = static_cast<unsigned char*>(std::malloc(total_));
            if (out == nullptr) return nullptr;
            std::memcpy(out, chunk_, total_);
        }
        result_ = nullptr;  // the caller's now
        *size = static_cast<unsigned int>(total_);
        return out;
    }

private:
    unsigned char* chunk_;
    std::size_t fill_ = 0;
    unsigned char* result_ = nullptr;
    std::size_t result_size_ = 0;
    std::size_t total_ = 0;
};

void put_info(uint8_t (&area)[sizeof(port_info)], const port_info& info) { std::memcpy(area, &info, sizeof info); }
void put_stats(uint8_t (&area)[sizeof(port_stats)], const port_stats& stats) {
    std::memcpy(area, &stats, sizeof stats);
}

// The names and indexes every remote-shaped record carries: the adapter name
// over the name fields of its port_info and port_stats, the parent's index
// and its own index in the statistics (and, for virtual ports and their
// remote ports, in the port_info too).
void stamp_stats(port_stats& stats, const AdapterName& name, uint32_t parent, uint32_t self) {
    name.put(reinterpret_cast<char*>(stats.reserved_0));
    stats.port_num = parent;
    stats.rport_index = self;
}

// The LUN records of one remote port: the two indexes over the first 8
// bytes of each lun_info, the adapter name in the second half of its device
// field.
bool append_luns(Stream& out, const lun_info* luns, std::size_t n, const AdapterName& name, uint32_t parent,
                 uint32_t remote) {
    Array<lun_record> records(n);
    if (!records.ok()) {
        std::puts("Allocation failed");
        return true;
    }
    for (std::size_t j = 0; j < n; ++j) {
        lun_info lun;
        std::memcpy(&lun, &luns[j], sizeof lun);
        mv::store<uint32_t>(lun.reserved_0, parent);
        mv::store<uint32_t>(lun.reserved_0 + 4, remote);
        name.put(lun.device + (mv::snapshot::kLunNameAt - mv::snapshot::kLunDeviceAt));
        lun_record& rec = records[j];
        rec.index = static_cast<uint32_t>(j);
        std::memcpy(rec.lun, &lun, sizeof lun);
        if (!out.append(&rec, sizeof rec)) return false;
    }
    return true;
}

// One adapter's walk. Each step returns false only when the stream could
// not grow (the snapshot is then abandoned).
class AdapterWalk {
public:
    AdapterWalk(Stream& out, HBA_HANDLE handle, const AdapterName& name, adapter_record& adapter, char** ports,
                char** stats, unsigned int* size)
        : out_(out), handle_(handle), name_(name), adapter_(adapter), ports_(ports), stats_(stats), size_(size) {}

    bool port(uint32_t p, port_info& key, port_record& rec, bool& stop);

private:
    bool physical_remotes(uint32_t p, const port_info& local, uint32_t count);
    bool virtual_ports(uint32_t p, const port_info& local, uint32_t count);
    bool virtual_port(uint32_t p, const port_info& local, port_info& listed, remote_record& rec, uint32_t v);

    Stream& out_;
    HBA_HANDLE handle_;
    const AdapterName& name_;
    adapter_record& adapter_;
    char** ports_;
    char** stats_;
    unsigned int* size_;
};

// One physical port. `stop` is set when the port's standard query failed:
// the adapter is then closed and its remaining ports are not walked.
bool AdapterWalk::port(uint32_t p, port_info& key, port_record& rec, bool& stop) {
    HBA_PORTATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);
    std::memset(&rec, 0, sizeof rec);
    if (mirvak_GetAdapterPortAttributes(handle_, p, &attr) != HBA_STATUS_OK) {
        // Kept as it stands: the adapter record goes out again with a port
        // count of 0, so after a failure at a later port the stream holds
        // it twice. Agents parse the stream with this record in it.
        adapter_.port_count = 0;
        stop = true;
        const bool appended = out_.append(&adapter_, sizeof adapter_);
        mirvak_CloseAdapter(handle_);
        return appended;
    }
    if (p == 0 && !out_.append(&adapter_, sizeof adapter_)) return false;

    port_info local;
    std::memset(&local, 0, sizeof local);
    name_.put(local.adapter_name);
    local.port_num = p;
    std::memcpy(&local.attributes, &attr, sizeof attr);
    // A port whose FCoE fields cannot be had leaves no record.
    if (mirvak_GetKXAdapterPortAttributes(handle_, p, &local) != 0) return true;
    rec.index = p;
    put_info(rec.info, local);

    name_.put(key.adapter_name);
    key.port_num = p;
    key.attributes.PortWWN = local.attributes.PortWWN;
    port_stats stats;
    std::memset(&stats, 0, sizeof stats);
    if (mirvak_GetKXPortStatistics(handle_, &key, &stats) != 0) {
        rec.remote_count = 0;
        rec.vport_count = 0;
        std::puts("Local Ports statistics Not Present");
        return out_.append(&rec, sizeof rec);
    }
    put_stats(rec.stats, stats);
    std::memset(*ports_, 0, kScratchBytes);
    std::memset(*stats_, 0, kScratchBytes);

    const uint32_t vport_count = local.lnode_word_28;
    const HBA_UINT32 discovered = local.attributes.NumberofDiscoveredPorts;
    // Deliberate pause: a port with this many remote ports and virtual ports
    // is given time before its remote ports are read. Agents rely on it.
    if (discovered > kManyDiscoveredPorts && vport_count != 0) std::this_thread::sleep_for(kManyPortsPause);

    uint32_t remote_count = 0;
    if (discovered == 0) {
        rec.remote_count = 0;
        rec.vport_count = vport_count;
        if (!out_.append(&rec, sizeof rec)) return false;
        std::puts("Target Ports Not Present");
    } else {
        *size_ = 0;  // the query writes the byte length of its answer here
        if (mirvak_GetKXDiscoveredPortAttributes_by_wwpn(handle_, &key, ports_, size_, stats_) != 0) {
            rec.remote_count = 0;
            rec.vport_count = vport_count;
            if (!out_.append(&rec, sizeof rec)) return false;
            std::puts("Target Ports Not Present");
        } else {
            remote_count = *size_ / sizeof(port_info);
            rec.remote_count = remote_count;
            rec.vport_count = local.lnode_flag == 0 ? vport_count : 0;
            if (!out_.append(&rec, sizeof rec)) return false;
        }
    }
    if (remote_count > 0 && !physical_remotes(p, local, remote_count)) return false;
    if (local.lnode_flag == 0 && vport_count != 0 && !virtual_ports(p, local, vport_count)) return false;
    return true;
}

// The remote ports of a physical port, as the remote-port query left them
// in the two scratch buffers, each followed by its LUNs.
bool AdapterWalk::physical_remotes(uint32_t p, const port_info& local, uint32_t count) {
    Array<vport_in> keys(count);
    Array<remote_record> records(count);
    if (!keys.ok() || !records.ok()) {
        std::puts("Allocation failed");
        return true;
    }
    for (uint32_t r = 0; r < count; ++r) {
        port_info info;
        port_stats stats;
        std::memcpy(&info, *ports_ + std::size_t{r} * sizeof(port_info), sizeof info);
        std::memcpy(&stats, *stats_ + std::size_t{r} * sizeof(port_stats), sizeof stats);
        // Index fields of the port_info stay as the query wrote them.
        name_.put(info.adapter_name);
        stamp_stats(stats, name_, p, r);

        vport_in& key = keys[r];
        name_.put(key.adapter_name);
        key.port_num = static_cast<uint16_t>(p);
        key.rport_index = static_cast<uint16_t>(r);
        std::memcpy(key.vport_wwpn, local.attributes.PortWWN.wwn, 8);
        std::memcpy(key.rport_wwpn, info.attributes.PortWWN.wwn, 8);

        remote_record& rec = records[r];
        rec.index = r;
        put_info(rec.info, info);
        put_stats(rec.stats, stats);

        int lun_count = 0;
        if (mirvak_GetKXLunCount(handle_, &key, &lun_count) != 0 || lun_count <= 0) {
            rec.child_count = 0;
            if (!out_.append(&rec, sizeof rec)) return false;
            continue;
        }
        Array<lun_info> luns(static_cast<unsigned int>(lun_count));
        if (!luns.ok()) {
            std::puts("Allocation failed");
            rec.child_count = 0;
            if (!out_.append(&rec, sizeof rec)) return false;
            continue;
        }
        const HBA_UINT32 st = mv::kx_lun_info(handle_, &key, luns.data(), luns.count());
        // An answer that filled no record at all counts as no LUNs.
        bool empty = true;
        const auto* bytes = reinterpret_cast<const unsigned char*>(luns.data());
        for (std::size_t i = 0; i < luns.bytes() && empty; ++i) empty = bytes[i] == 0;
        if (st != 0 || empty) {
            rec.child_count = 0;
            if (!out_.append(&rec, sizeof rec)) return false;
            continue;
        }
        rec.child_count = static_cast<uint32_t>(lun_count);
        if (!out_.append(&rec, sizeof rec)) return false;
        if (!append_luns(out_, luns.data(), luns.count(), name_, p, r)) return false;
    }
    return true;
}

// The virtual ports of a physical port, each followed by its remote ports.
bool AdapterWalk::virtual_ports(uint32_t p, const port_info& local, uint32_t count) {
    VirtualPorts vports(count);
    if (!vports.ok()) {
        std::puts("Allocation failed");
        return true;
    }
    Array<remote_record> records(vports.count());
    if (!records.ok()) {
        std::puts("Allocation failed");
        return true;
    }
    if (vports.list(handle_, local.attributes.PortWWN.wwn) != 0) {
        // Kept as it stands: one cleared record in place of the list, while
        // the port record still counts the virtual ports. Agents parse the
        // stream with this record in it.
        remote_record blank;
        std::memset(&blank, 0, sizeof blank);
        return out_.append(&blank, sizeof blank);
    }
    for (uint32_t v = 0; v < vports.count(); ++v) {
        if (!virtual_port(p, local, vports[v], records[v], v)) return false;
    }
    return true;
}

bool AdapterWalk::virtual_port(uint32_t p, const port_info& local, port_info& listed, remote_record& rec,
                               uint32_t v) {
    const unsigned char* wwpn = listed.attributes.PortWWN.wwn;
    port_info info;
    std::memset(&info, 0, sizeof info);
    port_stats stats;
    std::memset(&stats, 0, sizeof stats);
    const uint32_t state = local.attributes.PortState;
    const bool phys_down = state == HBA_PORTSTATE_OFFLINE || state == HBA_PORTSTATE_LINKDOWN;
    rec.index = v;
    if (!phys_down) std::memcpy(&info, &listed, sizeof info);
    name_.put(info.adapter_name);
    info.port_num = p;
    info.rport_index = v;
    if (!phys_down) inherit_from_physical(local, name_, info);
    put_info(rec.info, info);

    if (!phys_down) {
        const HBA_UINT32 st = mirvak_GetKXVPortStatistics(handle_, wwpn, &stats);
        stamp_stats(stats, name_, p, v);
        put_stats(rec.stats, stats);
        if (st != 0) {
            rec.child_count = 0;
            return out_.append(&rec, sizeof rec);
        }
    } else {
        // A physical port that is offline or down: names and indexes only.
        stamp_stats(stats, name_, p, v);
        put_stats(rec.stats, stats);
    }

    Owned<port_info> remotes;
    Owned<port_stats> remote_stats;
    unsigned int count = 0;
    if (mirvak_GetAllRPortsForVPort(handle_, wwpn, remotes.out(), &count, remote_stats.out(), true) != 0 ||
        remotes.get() == nullptr) {
        rec.child_count = 0;
        return out_.append(&rec, sizeof rec);
    }
    rec.child_count = count;
    if (!out_.append(&rec, sizeof rec)) return false;

    for (unsigned int k = 0; k < count; ++k) {
        port_info rinfo;
        std::memcpy(&rinfo, &remotes[k], sizeof rinfo);
        port_stats rstats;
        if (remote_stats.get() != nullptr) {
            std::memcpy(&rstats, &remote_stats[k], sizeof rstats);
        } else {
            std::memset(&rstats, 0, sizeof rstats);
        }
        name_.put(rinfo.adapter_name);
        rinfo.port_num = v;
        rinfo.rport_index = k;
        stamp_stats(rstats, name_, v, k);

        remote_record rrec;
        std::memset(&rrec, 0, sizeof rrec);
        rrec.index = k;
        put_info(rrec.info, rinfo);
        put_stats(rrec.stats, rstats);

        Owned<lun_info> luns;
        unsigned int lun_count = 0;
        const HBA_UINT32 st =
            mirvak_GetKXVPortLunInfo_by_wwn(handle_, wwpn, rinfo.attributes.PortWWN.wwn, luns.out(), &lun_count);
        if (st != 0 || lun_count == 0 || luns.get() == nullptr) {
            rrec.child_count = 0;
            if (!out_.append(&rrec, sizeof rrec)) return false;
            continue;
        }
        rrec.child_count = lun_count;
        if (!out_.append(&rrec, sizeof rrec)) return false;
        if (!append_luns(out_, luns.get(), lun_count, name_, v, k)) return false;
    }
    return true;
}

}  // namespace

void* MvFCoEIni::GetFCoEAll(void*, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (size == nullptr) return nullptr;
    // The walk asks for the same sysfs files and listings over and over
    // (every remote port's LUN queries scan the fc_host tree from the top):
    // each is read once in this call and answered from memory after that.
    mv::host::SysfsRequest sysfs;
    Stream out;
    if (!out.ok()) return nullptr;
    // The scratch buffers are checked like the chunk: the remote-port query
    // writes into them unchecked. Nothing allocated here outlives a failure.
    Buffer ports(kScratchBytes);
    Buffer stats(kScratchBytes);
    if (!ports.ok() || !stats.ok()) return nullptr;

    const HBA_UINT32 n = mirvak_GetNumberOfAdapters();
    if (n == 0) {
        *size = 0;
        return nullptr;
    }
    Array<adapter_record> adapters(n);
    if (!adapters.ok()) return nullptr;
    // Deliberate: the adapters reported, not the records that follow.
    // Adapters skipped below are still counted; readers walk the records to
    // the end of the stream.
    const uint32_t header = n;
    if (!out.append(&header, sizeof header)) return nullptr;

    for (HBA_UINT32 i = 0; i < n; ++i) {
        adapter_record& adapter = adapters[i];
        std::memset(&adapter, 0, sizeof adapter);
        char name_field[mv::facade::kNameField] = {};
        if (mirvak_GetAdapterName(i, name_field) != HBA_STATUS_OK) continue;
        const AdapterName name(name_field);
        const HBA_HANDLE handle = mirvak_OpenAdapter(name.c_str());
        if (handle == mv::facade::kBadHandle) continue;

        HBA_ADAPTERATTRIBUTES attr;
        std::memset(&attr, 0, sizeof attr);
        if (mirvak_GetAdapterAttributes(handle, &attr) != HBA_STATUS_OK) {
            mirvak_CloseAdapter(handle);
            continue;
        }
        adapter_info info;
        std::memset(&info, 0, sizeof info);
        info.instance = static_cast<uint32_t>(getAssignedInstance(name.c_str()));
        name.put(info.adapter_name);
        std::memcpy(&info.attributes, &attr, sizeof attr);
        if (mirvak_GetKXAdapterAttributes(handle, &info) != 0) {
            mirvak_CloseAdapter(handle);
            continue;
        }
        std::memcpy(adapter.info, &info, sizeof info);
        std::memcpy(adapter.info_copy, &info, sizeof info);
        adapter.index = i;

        const HBA_UINT32 port_count = attr.NumberOfPorts;
        if (port_count == 0) {
            const bool appended = out.append(&adapter, sizeof adapter);
            mirvak_CloseAdapter(handle);
            if (!appended) return nullptr;
            continue;
        }
        adapter.port_count = port_count;
        Array<port_info> keys(port_count);
        Array<port_record> records(port_count);
        // Kept as it stands: without these arrays the adapter leaves no
        // record and its handle is not closed (agents see the adapter as
        // skipped, like any other).
        if (!keys.ok() || !records.ok()) continue;

        AdapterWalk walk(out, handle, name, adapter, ports.out(), stats.out(), size);
        bool stop = false;
        for (HBA_UINT32 p = 0; p < port_count && !stop; ++p) {
            if (!walk.port(p, keys[p], records[p], stop)) {
                if (!stop) mirvak_CloseAdapter(handle);
                return nullptr;
            }
        }
        if (!stop) mirvak_CloseAdapter(handle);  // a failed port closed it already
    }
    *size = 0;
    return out.finish(size);
}
