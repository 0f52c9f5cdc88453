// FCP target mapping: the LUNs the host sees behind each target of a local
// port, with their FC identity, and the reverse lookup of a LUN's device path
// that the SCSI commands use.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "driver/entry_lock.h"
#include "driver/walks.h"
#include "hba/luid.h"
#include "host/sysfs_view.h"
#include "mirvak/fcp_mapping.h"
#include "mirvak/host_view.h"
#include "mirvak/instance_map.h"

namespace {

constexpr int kVersion1 = 0;
constexpr HBA_STATUS kError = HBA_STATUS_ERROR;
// The identification page is asked into a 256-byte buffer of which 252 bytes
// are announced.
constexpr std::size_t kPageBuffer = 256;
constexpr HBA_UINT32 kPageAnnounced = 252;
constexpr std::size_t kSenseBuffer = 32;
// The device path buffer of the SCSI commands.
constexpr std::size_t kPathBuffer = 256;

// Two WWNs match when their texts from ConvertWWNtoString are equal. That
// text holds only the last byte's digits, so in effect the last bytes are
// compared; callers select ports by this rule and it is kept.
bool wwn_match(const HBA_WWN& a, const HBA_WWN& b) {
    char ta[8] = {}, tb[8] = {};
    ConvertWWNtoString(a.wwn, 8, 0, ta);
    ConvertWWNtoString(b.wwn, 8, 0, tb);
    return std::strcmp(ta, tb) == 0;
}

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

// One target's LUNs, as the host's sysfs lists them.
struct TargetLuns {
    std::unique_ptr<lun_info, FreeDeleter> records;
    std::size_t count = 0;
};

// The SCSI address "host:channel:target:lun" of a LUN record; fields that do
// not parse are 0.
struct Hctl {
    int host = 0, channel = 0, target = 0, lun = 0;
};

Hctl parse_hctl(const lun_info& rec) {
    char text[sizeof rec.hctl + 1];
    std::memcpy(text, rec.hctl, sizeof rec.hctl);
    text[sizeof rec.hctl] = '\0';
    Hctl h;
    std::sscanf(text, "%d:%d:%d:%d", &h.host, &h.channel, &h.target, &h.lun);
    return h;
}

uint64_t fcp_lun_of(int lun) { return static_cast<uint64_t>(static_cast<uint32_t>(lun)) << 48; }

// Characters of the record's device path (without a terminating NUL), at
// most `room`.
std::size_t device_length(const lun_info& rec, std::size_t room) {
    return strnlen(rec.device, std::min(room, sizeof rec.device));
}

// What a visit of a target tells the walk: go on, end it with 0, or end it
// with HBA_STATUS_ERROR.
enum class Next { Go, Done, Error };

// Walks the adapter's ports (those `choose` accepts; `choose` also says
// whether the walk ends after the port) and every discovered port of each,
// handing `visit` the LUNs the host lists for each target that has any.
// 0 when the walk ran to its end or `visit` stopped it; the failing
// attribute call's status; 1 when a LUN array cannot be allocated.
template <class Choose, class Visit>
HBA_STATUS walk_target_luns(HBA_HANDLE handle, Choose choose, Visit visit) {
    HBA_ADAPTERATTRIBUTES adapter;
    std::memset(&adapter, 0, sizeof adapter);
    if (HBA_STATUS s = mirvak_GetAdapterAttributes(handle, &adapter)) return s;

    for (HBA_UINT32 p = 0; p < adapter.NumberOfPorts; ++p) {
        HBA_PORTATTRIBUTES port;
        std::memset(&port, 0, sizeof port);
        if (HBA_STATUS s = mirvak_GetAdapterPortAttributes(handle, p, &port)) return s;
        bool last = false;
        if (!choose(port, last)) continue;

        for (HBA_UINT32 k = 0; k < port.NumberofDiscoveredPorts; ++k) {
            HBA_PORTATTRIBUTES target;
            std::memset(&target, 0, sizeof target);
            if (HBA_STATUS s = mirvak_GetDiscoveredPortAttributes(handle, p, k, &target)) return s;
            const unsigned long local = charArrayToLong(port.PortWWN.wwn);
            const unsigned long remote = charArrayToLong(target.PortWWN.wwn);
            const unsigned long n = getNumLuns(local, remote);
            if (n == 0) continue;
            TargetLuns luns;
            luns.records.reset(static_cast<lun_info*>(std::calloc(n, sizeof(lun_info))));
            if (!luns.records) return kError;
            luns.count = n;
            // The array is sized by the count of block links; the fill writes
            // no more records than that whatever else the tree holds.
            getLuninfo(luns.records.get(), local, remote, n);
            const Next next = visit(target, luns);
            if (next == Next::Done) return HBA_STATUS_OK;
            if (next == Next::Error) return kError;
        }
        if (last) break;
    }
    return HBA_STATUS_OK;
}

// The identification page of the device as the LUID of its mapping entry.
// False when the page is unusable.
bool read_luid(const char* device, uint8_t (&luid)[mv::kLuidSize]) {
    uint8_t page[kPageBuffer] = {};
    uint8_t sense[kSenseBuffer] = {};
    HBA_UINT32 page_size = kPageAnnounced;
    HBA_UINT32 sense_size = sizeof sense;
    // The command's status is not looked at: a device that does not answer
    // leaves the cleared buffer, which is then refused as not being the page.
    mirvak_issue_inquiry(device, 1, 0x83, 0, page, &page_size, sense, &sense_size);
    return mv::choose_luid(page, kPageAnnounced, luid);
}

}  // namespace

int GetFCPTargetMapping(HBA_HANDLE handle, void* mapping, int version, HBA_WWN port_wwn) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return -1;
    mv::host::SysfsRequest sysfs;  // each sysfs file read once in this call
    const bool v1 = version == kVersion1;
    const std::size_t entry_size = v1 ? sizeof(MV_FCPSCSIENTRY) : sizeof(MV_FCPSCSIENTRYV2);
    auto* base = static_cast<unsigned char*>(mapping);

    HBA_STATUS status = walk_target_luns(
        handle,
        [&](const HBA_PORTATTRIBUTES& port, bool& last) {
            if (v1) return true;  // every port
            last = true;          // the first matching port only
            return wwn_match(port.PortWWN, port_wwn);
        },
        [&](const HBA_PORTATTRIBUTES& target, TargetLuns& luns) {
            // The entry is built in a template cleared once per target; each
            // LUN's device path is copied over it without its NUL, so a
            // shorter path after a longer one keeps the longer one's tail.
            // Callers have always seen entries built this way.
            MV_FCPSCSIENTRYV2 entry;
            std::memset(&entry, 0, sizeof entry);
            if (v1) std::memset(base, 0, sizeof(MV_FCPTARGETMAPPING));
            for (std::size_t i = 0; i < luns.count; ++i) {
                const lun_info& rec = luns.records.get()[i];
                const Hctl h = parse_hctl(rec);
                std::memcpy(entry.ScsiId.OSDeviceName, rec.device,
                            device_length(rec, sizeof entry.ScsiId.OSDeviceName));
                entry.ScsiId.ScsiBusNumber = static_cast<uint32_t>(h.host);
                entry.ScsiId.ScsiTargetNumber = static_cast<uint32_t>(h.target);
                entry.ScsiId.ScsiOSLun = static_cast<uint32_t>(h.lun);
                entry.FcpId.FcId = 0;
                std::memcpy(entry.FcpId.NodeWWN, target.NodeWWN.wwn, 8);
                std::memcpy(entry.FcpId.PortWWN, target.PortWWN.wwn, 8);
                entry.FcpId.FcpLun = fcp_lun_of(h.lun);
                if (!v1) {
                    char device[sizeof rec.device + 1] = {};
                    std::memcpy(device, rec.device, device_length(rec, sizeof rec.device));
                    if (!read_luid(device, entry.LUID)) return Next::Error;
                }
                // Every target's LUNs are written from position 0 again while
                // the count keeps rising: a later target's entries overwrite
                // an earlier one's. Agents read the mapping this way; the
                // caller's capacity is not consulted either.
                std::memcpy(base + offsetof(MV_FCPTARGETMAPPING, entry) + i * entry_size, &entry, entry_size);
                uint32_t count;
                std::memcpy(&count, base, sizeof count);
                ++count;
                std::memcpy(base, &count, sizeof count);
            }
            return Next::Go;
        });
    return static_cast<int>(status);
}

extern "C" {

HBA_STATUS mirvak_GetFCPTargetMappingv1(HBA_HANDLE handle, MV_FCPTARGETMAPPING* mapping) {
    const mv::EntryLock entry_lock;
    HBA_WWN unused;
    std::memset(&unused, 0, sizeof unused);
    return static_cast<HBA_STATUS>(GetFCPTargetMapping(handle, mapping, kVersion1, unused));
}

HBA_STATUS mirvak_GetFCPTargetMappingv2(HBA_HANDLE handle, HBA_WWN port_wwn, MV_FCPTARGETMAPPINGV2* mapping) {
    const mv::EntryLock entry_lock;
    return static_cast<HBA_STATUS>(GetFCPTargetMapping(handle, mapping, 1, port_wwn));
}

}  // extern "C"

int GetDeviceFromFCPLunOrPortWWN(HBA_HANDLE handle, HBA_UINT64 fcp_lun, HBA_UINT32, HBA_WWN port_wwn, HBA_WWN,
                                 char* out, HBA_UINT32 first) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return -1;
    mv::host::SysfsRequest sysfs;  // each sysfs file read once in this call
    // Every port that matches is searched (not only the first), and the
    // target WWN is not compared: every target of such a port is examined.
    const HBA_STATUS status = walk_target_luns(
        handle, [&](const HBA_PORTATTRIBUTES& port, bool&) { return wwn_match(port.PortWWN, port_wwn); },
        [&](const HBA_PORTATTRIBUTES&, TargetLuns& luns) {
            for (std::size_t i = 0; i < luns.count; ++i) {
                const lun_info& rec = luns.records.get()[i];
                const Hctl h = parse_hctl(rec);
                // The path's characters only, no NUL: callers pass a zeroed
                // buffer of 256 bytes (at most 255 characters are copied).
                if (first != 0) {
                    std::memcpy(out, rec.device, device_length(rec, kPathBuffer - 1));
                    return Next::Done;
                }
                if (fcp_lun_of(h.lun) == static_cast<uint64_t>(fcp_lun)) {
                    std::memcpy(out, rec.device, device_length(rec, kPathBuffer - 1));
                    break;  // the next target may match again and write over it
                }
            }
            return Next::Go;
        });
    return static_cast<int>(status);
}
