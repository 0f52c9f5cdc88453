/*
 * FCP target mapping: which SCSI device (path and host:channel:target:lun)
 * lies behind which FC target port and FCP LUN.
 *
 * The mapping record as the front library shares it is PACKED: the entry
 * count at byte 0 and the entries from byte 4, 296 bytes each (version 1)
 * or 552 bytes (version 2). The natural layout of hbaapi.h's
 * HBA_FCPTARGETMAPPING puts the entries at byte 8 and pads them to 304/560
 * bytes, so this library declares the layout it reads and writes here and
 * callers must use these types (or the same bytes) with it.
 */
#ifndef MIRVAK_FCP_MAPPING_H
#define MIRVAK_FCP_MAPPING_H

#include <stddef.h>
#include <stdint.h>

#include "mirvak/hba_plugin.h"

#pragma pack(push, 1)

typedef struct MV_SCSIID {
    char OSDeviceName[256];
    uint32_t ScsiBusNumber;
    uint32_t ScsiTargetNumber;
    uint32_t ScsiOSLun;
} MV_SCSIID;

typedef struct MV_FCPID {
    uint32_t FcId;
    uint8_t NodeWWN[8];
    uint8_t PortWWN[8];
    uint64_t FcpLun;
} MV_FCPID;

typedef struct MV_FCPSCSIENTRY {
    MV_SCSIID ScsiId;
    MV_FCPID FcpId;
} MV_FCPSCSIENTRY;

typedef struct MV_FCPSCSIENTRYV2 {
    MV_SCSIID ScsiId;
    MV_FCPID FcpId;
    uint8_t LUID[256];
} MV_FCPSCSIENTRYV2;

/* The caller allocates room for as many entries as it expects; entry[1] is
 * only the first of them. */
typedef struct MV_FCPTARGETMAPPING {
    uint32_t NumberOfEntries;
    MV_FCPSCSIENTRY entry[1];
} MV_FCPTARGETMAPPING;

typedef struct MV_FCPTARGETMAPPINGV2 {
    uint32_t NumberOfEntries;
    MV_FCPSCSIENTRYV2 entry[1];
} MV_FCPTARGETMAPPINGV2;

#pragma pack(pop)

#ifdef __cplusplus
static_assert(sizeof(MV_SCSIID) == 268, "ScsiId is 268 bytes");
static_assert(offsetof(MV_SCSIID, ScsiBusNumber) == 256, "ScsiBusNumber at 256");
static_assert(offsetof(MV_SCSIID, ScsiTargetNumber) == 260, "ScsiTargetNumber at 260");
static_assert(offsetof(MV_SCSIID, ScsiOSLun) == 264, "ScsiOSLun at 264");
static_assert(sizeof(MV_FCPID) == 28, "FcpId is 28 bytes");
static_assert(offsetof(MV_FCPID, NodeWWN) == 4, "NodeWWN at 4");
static_assert(offsetof(MV_FCPID, PortWWN) == 12, "PortWWN at 12");
static_assert(offsetof(MV_FCPID, FcpLun) == 20, "FcpLun at 20");
static_assert(sizeof(MV_FCPSCSIENTRY) == 296, "a version 1 entry is 296 bytes");
static_assert(offsetof(MV_FCPSCSIENTRY, FcpId) == 268, "FcpId at 268");
static_assert(sizeof(MV_FCPSCSIENTRYV2) == 552, "a version 2 entry is 552 bytes");
static_assert(offsetof(MV_FCPSCSIENTRYV2, LUID) == 296, "LUID at 296");
static_assert(offsetof(MV_FCPTARGETMAPPING, entry) == 4, "entries start at byte 4");
static_assert(offsetof(MV_FCPTARGETMAPPINGV2, entry) == 4, "entries start at byte 4");
static_assert(sizeof(MV_FCPTARGETMAPPING) == 300, "count and first entry are 300 bytes");
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Version 1: every local port. Version 2: the first local port whose WWN
 * matches port_wwn (last bytes equal), with the LUID of each LUN. */
MV_API HBA_STATUS mirvak_GetFCPTargetMappingv1(HBA_HANDLE handle, MV_FCPTARGETMAPPING* mapping);
MV_API HBA_STATUS mirvak_GetFCPTargetMappingv2(HBA_HANDLE handle, HBA_WWN port_wwn, MV_FCPTARGETMAPPINGV2* mapping);

#ifdef __cplusplus
}

/* The worker of both versions: version 0 writes MV_FCPTARGETMAPPING, 1
 * writes MV_FCPTARGETMAPPINGV2. 0 on success, -1 for the invalid handle, 1
 * on an allocation failure or an unusable identification page, else the
 * status of the attribute call that failed. */
MV_API int GetFCPTargetMapping(HBA_HANDLE handle, void* mapping, int version, HBA_WWN port_wwn);

/* The device path of a LUN behind the local port port_wwn: with first set,
 * the first LUN found; otherwise the one whose LUN number shifted left by 48
 * equals fcp_lun. The path's characters are copied into out without a NUL
 * (the caller passes a zeroed buffer). `unused` and target_wwn are not
 * looked at. 0 also when nothing matched; -1 for the invalid handle. */
MV_API int GetDeviceFromFCPLunOrPortWWN(HBA_HANDLE handle, HBA_UINT64 fcp_lun, HBA_UINT32 unused, HBA_WWN port_wwn,
                                        HBA_WWN target_wwn, char* out, HBA_UINT32 first);

#endif

#endif
