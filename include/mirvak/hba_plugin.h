/*
 * The standard face of libmirvakhbaapi.so: registration and the Common HBA
 * API entry points it places in the front library's table, with C names.
 *
 * Threads: every function here may be called from any number of threads at
 * once, directly or through a front library that serialises nothing. Each
 * call runs whole under the library's one lock (recursive: the library's
 * functions call each other), so it answers, writes and prints exactly what
 * it does when made alone between the others, and the driver library is
 * never entered from two threads at once. A call is one request: a caller's
 * sequence of calls (open, ask, close) may interleave with another thread's.
 */
#ifndef MIRVAK_HBA_PLUGIN_H
#define MIRVAK_HBA_PLUGIN_H

#include <time.h> /* hbaapi.h uses time_t without including it */

#include <hbaapi.h>
#include <vendorhbaapi.h>

#define MV_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Registration fills the caller's table by slot index. The layout differs
 * from the header's field order (slot 9 holds the all-ports function and
 * everything after it moves down one slot) and agents depend on it as it
 * is: the table must have room for at least 28 pointer-sized slots. */
MV_API HBA_STATUS HBA_RegisterLibrary(HBA_ENTRYPOINTS* table);
MV_API HBA_STATUS HBA_RegisterLibraryV2(HBA_ENTRYPOINTSV2* table);

enum { MIRVAK_ENTRY_SLOTS = 28 };

MV_API HBA_UINT32 mirvak_GetVersion(void);
MV_API HBA_STATUS mirvak_LoadLibrary(void);
MV_API HBA_STATUS mirvak_FreeLibrary(void);
MV_API HBA_UINT32 mirvak_GetNumberOfAdapters(void);
MV_API HBA_STATUS mirvak_GetAdapterName(HBA_UINT32 index, char* name);
MV_API HBA_HANDLE mirvak_OpenAdapter(const char* name);
MV_API HBA_STATUS mirvak_CloseAdapter(HBA_HANDLE handle);
MV_API HBA_STATUS mirvak_GetAdapterAttributes(HBA_HANDLE handle, HBA_ADAPTERATTRIBUTES* attr);
MV_API void mirvak_RefreshInformation(HBA_HANDLE handle);
MV_API HBA_STATUS mirvak_GetPortStatistics(HBA_HANDLE handle, HBA_UINT32 port, HBA_PORTSTATISTICS* stats);

MV_API HBA_STATUS mirvak_GetAdapterPortAttributes(HBA_HANDLE handle, HBA_UINT32 port, HBA_PORTATTRIBUTES* attr);
MV_API HBA_STATUS mirvak_GetAllAdapterPortsAttributes(HBA_HANDLE handle, HBA_PORTATTRIBUTES* attrs, HBA_UINT32 count);
MV_API HBA_UINT32 mirvak_GetNumTargets(HBA_HANDLE handle, HBA_UINT32 port);
MV_API HBA_STATUS mirvak_GetDiscoveredPortAttributes(HBA_HANDLE handle, HBA_UINT32 port, HBA_UINT32 target,
                                                     HBA_PORTATTRIBUTES* attr);
MV_API HBA_STATUS mirvak_GetPortAttributesByWWN(HBA_HANDLE handle, HBA_WWN wwn, HBA_PORTATTRIBUTES* attr);
/* The FCP target mapping functions are declared in mirvak/fcp_mapping.h,
 * with the packed mapping records they write. */

/* SCSI commands to the LUN behind a target of the local port port_wwn,
 * through the host's SCSI generic driver. The transfer lengths are fixed:
 * an INQUIRY response buffer must hold 96 bytes and a REPORT LUNS one 1024.
 * READ CAPACITY leaves the caller's buffers as they are. */MV_API HBA_STATUS mirvak_SendScsiInquiry(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_UINT64 fcp_lun, HBA_UINT8 evpd,
                                         HBA_UINT32 page, void* rsp, HBA_UINT32 rsp_size, void* sense,
                                         HBA_UINT32 sense_size);
MV_API HBA_STATUS mirvak_SendReportLUNs(HBA_HANDLE handle, HBA_WWN port_wwn, void* rsp, HBA_UINT32 rsp_size,
                                        void* sense, HBA_UINT32 sense_size);
MV_API HBA_STATUS mirvak_SendReadCapacity(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_UINT64 fcp_lun, void* rsp,
                                          HBA_UINT32 rsp_size, void* sense, HBA_UINT32 sense_size);
/* INQUIRY sent to the device node at `path` (the FCP LUN is not used):
 * 0, 14 when the node cannot be opened, 1 when it is no SCSI generic device
 * or the command cannot be issued. The response and sense sizes are read,
 * not written. */
MV_API HBA_STATUS mirvak_issue_inquiry(const char* path, HBA_UINT8 evpd, HBA_UINT32 page, HBA_UINT64 fcp_lun,
                                       void* rsp, HBA_UINT32* rsp_size, void* sense, HBA_UINT32* sense_size);

#ifdef __cplusplus
}
#endif

#endif
