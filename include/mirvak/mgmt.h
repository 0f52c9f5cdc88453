// The extended management interface of libmirvakhbaapi.so: extended adapter
// and port attributes, and port and remote-port statistics, over the records
// of mirvak/mgmt_records.h. C++ names (ordinary overloadable functions).
//
// Every function takes a driver handle from mirvak_OpenAdapter and answers
// the failed handle 0xFFFFFFFF with 0xFFFFFFFF before any driver call.
// Results are unsigned 32-bit statuses: 0 success, 1 error, 5 illegal WWN,
// 6 illegal index, 100 the local port is "OFFLINE" or "UNINIT", or the
// driver library's own non-zero result, unchanged.
//
// Threads: as the standard face (mirvak/hba_plugin.h), every function may be
// called from any number of threads at once; each runs whole under the
// library's one lock.
#ifndef MIRVAK_MGMT_H
#define MIRVAK_MGMT_H

#include <cstdint>

#include "mirvak/hba_plugin.h"
#include "mirvak/mgmt_records.h"

// Status of a local port that is "OFFLINE" or "UNINIT".
constexpr HBA_UINT32 MIRVAK_STATUS_PORT_OFFLINE = 100;

// ---- Extended adapter and port attributes ----

// The driver's hardware fields of the adapter: everything but instance,
// adapter_name and attributes, which stay as the caller set them.
MV_API HBA_UINT32 mirvak_GetKXAdapterAttributes(HBA_HANDLE handle, adapter_info* info);

// The FCoE fields of the local port at this position in the driver's list
// (MACs, FCF index, VLAN id, node identifiers). The caller fills
// attributes.PortState beforehand: the VLAN id is looked up only for a
// "READY" port whose PortState is neither 3 (offline) nor 6 (link down).
// 6 when no port has that position.
MV_API HBA_UINT32 mirvak_GetKXAdapterPortAttributes(HBA_HANDLE handle, HBA_UINT32 port, port_info* info);

// As above, the port named by key: by key->attributes.PortWWN when its first
// byte is non-zero, else by the position key->port_num. The result goes into
// *info (which may be the key itself).
MV_API HBA_UINT32 mirvak_GetKXAdapterPortAttributes_by_wwpn(HBA_HANDLE handle, const port_info* key,
                                                            port_info* info);

// Number of remote ports with the role "target", whatever their state, of
// the local port whose WWPN is key->attributes.PortWWN; 0xFFFFFFFF when the
// driver does not know the port.
MV_API HBA_UINT32 mirvak_GetNumTargets_by_wwpn(HBA_HANDLE handle, const port_info* key);

// The host's fc_host directory of the port with this 8-byte WWN: 0 with
// "/sys/class/fc_host/<entry>" in out (256 bytes), or 0xFFFFFFFF.
MV_API HBA_UINT32 get_path_for_KXpwwn(const unsigned char* wwn, char* out);

// ---- Port and remote-port statistics ----

// Statistics of the local port named by key (as for
// mirvak_GetKXAdapterPortAttributes_by_wwpn): frame and word counts in
// hba_stats and counter0..counter7. 100 for a port that is "OFFLINE" or
// "UNINIT"; 6 when the driver fails before a port was selected.
MV_API HBA_UINT32 mirvak_GetKXPortStatistics(HBA_HANDLE handle, const port_info* key, port_stats* stats);

// counter0..counter7 of the virtual port with this 8-byte WWPN; hba_stats
// all zero.
MV_API HBA_UINT32 mirvak_GetKXVPortStatistics(HBA_HANDLE handle, const unsigned char* vport_wwpn,
                                              port_stats* stats);

// Counters of one target remote port: named by key->vport_wwpn and
// key->rport_wwpn when both are given, else by key->port_num and
// key->rport_index. 5 when the local port is not known by its WWPN, 6 when
// no such target exists.
MV_API HBA_UINT32 mirvak_GetDiscoveredPortStats(HBA_HANDLE handle, const vport_in* key, port_stats* stats);

// Counters of one target remote port of a virtual port named by key alone
// (the WWPN argument is not read). 5 when the virtual port is not known by
// its WWPN, 1 when no such target exists.
MV_API HBA_UINT32 mirvak_GetRPortsStatsForVPort(HBA_HANDLE handle, const unsigned char* wwpn, port_stats* stats,
                                                const vport_in* key);

// ---- Virtual ports and NPIV ----

// The virtual ports of the physical port with this 8-byte WWPN, one
// port_info each, in the driver's order, into the caller's array of
// `expected` records (only the fields the driver gives are written). 1 when
// the driver cannot list them or lists another number than `expected`.
MV_API HBA_UINT32 mirvak_GetAllVPortsForPort(HBA_HANDLE handle, const unsigned char* wwpn, port_info* ports,
                                             HBA_UINT32 expected);

constexpr HBA_UINT16 MIRVAK_NPIV_CREATE = 0;
constexpr HBA_UINT16 MIRVAK_NPIV_DELETE = 1;  // any op but 0 deletes
// Our own code for a request the driver refused and marked as refused;
// agents read 40 as that condition.
constexpr HBA_UINT32 MIRVAK_STATUS_NPIV_REFUSED = 40;

// Create (op 0) or delete (any other op) a virtual port. The four 8-byte
// WWNs go into the driver's request at offsets 8, 0, 16 and 24; the first
// two may be null. 40 when the driver refuses and marks the request so;
// otherwise the driver's result. The instance is not used.
MV_API HBA_UINT32 mirvak_CreateDelNPIV(HBA_HANDLE handle, HBA_UINT32 instance, HBA_UINT16 op,
                                       const unsigned char* first, const unsigned char* second,
                                       const unsigned char* third, const unsigned char* fourth);

// ---- Remote ports ----

// The FCoE fields (role, driver identifiers) of one target of the local
// port at position `lnode`: the target numbered `target`, where targets
// that are gone (and all remote ports of a port not initialised) take a
// number too but can never be chosen. 0 found, or the list ran out; 6 the
// driver failed.
MV_API HBA_UINT32 mirvak_GetKXDiscoveredPortAttributes(HBA_HANDLE handle, HBA_UINT32 lnode, HBA_UINT32 target,
                                                       port_info* info);

// The targets of the local port whose WWPN is key->attributes.PortWWN, up
// to the first that is not live, copied into the caller's buffers
// (*ports, and *stats when stats and *stats are non-null). Each buffer is
// taken to hold 256 KiB; one that must hold more is grown with realloc and
// the new pointer stored back, so the caller must keep no other copy of it.
// *size = number of targets x sizeof(port_info). 6 no target (or a failed
// realloc), 1 allocation failure.
MV_API HBA_UINT32 mirvak_GetKXDiscoveredPortAttributes_by_wwpn(HBA_HANDLE handle, const port_info* key,
                                                               char** ports, unsigned int* size, char** stats);

// Every live target of the local (physical or virtual) port with this
// 8-byte WWPN, in the driver's order, as new arrays the caller frees:
// *ports and *count, and *stats when with_stats. 0 at least one target
// (6 none, with a null array and a count of 0); 1 allocation failure, with
// nothing stored.
MV_API HBA_UINT32 mirvak_GetAllRPortsForVPort(HBA_HANDLE handle, const unsigned char* wwpn, port_info** ports,
                                              unsigned int* count, port_stats** stats, bool with_stats);

// ---- LUN information ----
//
// The LUNs behind one target remote port, named by key->vport_wwpn and
// key->rport_wwpn when both are given (no driver call), else by the local
// port number key->port_num and the target's position key->rport_index
// among that port's targets.

// Fills luns[0..] (sized by mirvak_GetKXLunCount). 1 when a local port of
// that number has no such target; 0 also when the driver's list of local
// ports simply closes. The int* is not used.
MV_API HBA_UINT32 mirvak_GetKXLunInfo(HBA_HANDLE handle, const vport_in* key, lun_info* luns, int* unused);

// The number of LUNs into *count. 6 when no local port of that number has
// such a target.
MV_API HBA_UINT32 mirvak_GetKXLunCount(HBA_HANDLE handle, const vport_in* key, int* count);

// The LUNs behind remote port `remote` of local port `local` (8-byte
// WWPNs) in a new array the caller frees, and their number. Always 0.
MV_API HBA_UINT32 mirvak_GetKXVPortLunInfo_by_wwn(HBA_HANDLE handle, const unsigned char* local,
                                                  const unsigned char* remote, lun_info** luns,
                                                  unsigned int* count);

// Placeholder: a null array and a count of 0.
MV_API HBA_UINT32 mirvak_GetKXVPortLunInfo(HBA_HANDLE handle, HBA_UINT32 port, HBA_UINT32 vport,
                                           HBA_UINT32 rport, lun_info** luns, unsigned int* count);

// Placeholder: does nothing, 0.
MV_API HBA_UINT32 mirvak_RefreshFCoESystem();

#endif
