// The management facade of libmirvakhbaapi.so: the class MvFCoEIni that a
// management agent holds for its lifetime, and the facade's result codes.
//
// Each method serves one request of the agent: it opens the adapter named in
// the request, asks the standard face and the extended interface
// (mirvak/mgmt.h), copies the records of mirvak/mgmt_records.h into memory the
// agent receives, closes the adapter again and answers a facade result code.
// No handle is kept between requests.
//
// Buffers:
//  - "void* buf" methods write their answer (one record, or an array of
//    records back to back, no header) into the agent's buffer and store the
//    byte count in *size. *size is output only and the buffer is never checked
//    against it: the agent sizes its buffers from the record sizes
//    (adapter_info 2680, port_info 972, port_stats 432, lun_info 1040) and the
//    largest answer it may get.
//  - "char** buf" methods allocate their answer with malloc, store it in
//    *buf and its byte length in *size; the agent releases it with free.
//
// Keys: a port_info or vport_in key begins with the adapter name (a device
// path as mirvak_GetAdapterName gives it) in its 256-byte name field. A name
// that fills the whole field without a NUL is never read past the field.
//
// Null pointers: a null key, adapter name, buf or size (and a null *buf where
// a method writes through it) is answered with FCOE_ERR_BAD_ARGUMENT before
// anything is opened or written.
//
// Construct one object and keep it: the constructor loads the library
// (builds the adapter instance map), the destructor frees it, and methods
// may be called only while an object is alive.
//
// Threads: every method may be called from any number of threads at once
// (on one object or several). Each runs whole under the library's one lock,
// so it answers, writes and prints exactly what it does when called alone
// between the others. Constructing or destroying an object while other
// threads call reloads or releases the adapter instance map between their
// requests, never during one: a request that comes after a release answers
// as it does after a release (hold one object for the agent's lifetime).
#ifndef MIRVAK_MV_FCOE_INI_H
#define MIRVAK_MV_FCOE_INI_H

#include <cstdint>

#include "mirvak/hba_plugin.h"
#include "mirvak/mgmt_records.h"

// ---- Facade result codes (signed 32-bit) ----
constexpr int FCOE_OK = 0;                         // request served
constexpr int FCOE_ERR_FAILED = 1;                 // status 1 or 2; unmapped status of an adapter request
constexpr int FCOE_ERR_NO_MEMORY = 2;              // an allocation failed
constexpr int FCOE_ERR_BAD_ARGUMENT = 6;           // status 3 or 4; a null pointer argument
// -1 (no name): the working virtual-port array could not be allocated.
constexpr int FCOE_ERR_NO_ADAPTERS = 285;          // GetFCoEAdapters found no adapter
constexpr int FCOE_ERR_ADAPTER_OPEN = 286;         // the request's adapter could not be opened
constexpr int FCOE_ERR_ADAPTER_ATTRIBUTES = 287;   // adapter attributes could not be read
constexpr int FCOE_ERR_NO_PORTS = 289;             // fewer than 1 port, or no virtual ports
constexpr int FCOE_ERR_NO_REMOTE_PORTS = 290;      // no remote port found
constexpr int FCOE_ERR_PORT = 291;                 // port error, or the port's flag byte is set
constexpr int FCOE_ERR_PORT_NOT_FOUND = 292;       // no port has the request's WWPN
constexpr int FCOE_ERR_REMOTE_PORT = 293;          // remote-port error
constexpr int FCOE_ERR_PORT_OFFLINE = 294;         // the port is offline or not initialised
constexpr int FCOE_ERR_REMOTE_PORT_OFFLINE = 295;  // offline, for a remote-port request
constexpr int FCOE_ERR_VIRTUAL_PORT = 296;         // virtual-port error
constexpr int FCOE_ERR_NO_LUNS = 297;              // the port has no LUNs
constexpr int FCOE_ERR_LUN_INFO = 298;             // LUN information could not be had
constexpr int FCOE_ERR_NPIV_FAILED = 299;          // creating or deleting a virtual port failed
constexpr int FCOE_ERR_NPIV_REFUSED = 300;         // creating a virtual port was refused (status 40)

// ---- Request kinds (second argument of MapHBAStatusCodeToErrCode) ----
constexpr int FCOE_KIND_PORT = 0;          // a physical port
constexpr int FCOE_KIND_REMOTE_PORT = 1;   // a remote port
constexpr int FCOE_KIND_VIRTUAL_PORT = 2;  // a virtual port
constexpr int FCOE_KIND_ADAPTER = -1;      // an adapter (treated as any other kind)

class MV_API MvFCoEIni {
public:
    MvFCoEIni();   // mirvak_LoadLibrary
    ~MvFCoEIni();  // mirvak_FreeLibrary
    MvFCoEIni(const MvFCoEIni&) = delete;
    MvFCoEIni& operator=(const MvFCoEIni&) = delete;

    // A status of the standard face or the extended interface, as a facade
    // result code for a request of this kind.
    int MapHBAStatusCodeToErrCode(int status, int kind);
    // Always 0; does nothing.
    int RefreshFCoESystem();

    // ---- Adapters and physical ports ----
    // One adapter_info per adapter, in adapter-index order.
    int GetFCoEAdapters(void* buf, unsigned int* size);
    // The named adapter's adapter_info (its name says statistics).
    int GetFCoEAdapterStats(const char* adapter, void* buf, unsigned int* size);
    // One port_info per port of the key's adapter.
    int GetAllPortsInfo(port_info* key, void* buf, unsigned int* size);
    // The port with the key's WWPN, or every port when the key gives none.
    int GetPortInfo(port_info* key, void* buf, unsigned int* size);
    // The key's port's port_stats.
    int GetPortStatistics(port_info* key, void* buf, unsigned int* size);

    // ---- Remote ports ----
    // One port_info per remote port of the key's local port (by its WWPN
    // when given, else by its number), written into the block *buf already
    // points to (the agent's own malloc block, taken to hold 256 KiB; the
    // WWPN way grows it with realloc when the answer needs more and stores
    // the new pointer in *buf). Nothing is allocated otherwise.
    int GetRemotePortInfo(port_info* key, char** buf, unsigned int* size);
    // One remote port's port_stats.
    int GetRemotePortStatistics(vport_in* key, void* buf, unsigned int* size);
    // One port_info per remote port of a virtual port, in a new block.
    int GetRPortForVPort(vport_in* key, char** buf, unsigned int* size);
    // One remote port's port_stats, reached through a virtual port.
    int GetVirRemotePortStatistics(vport_in* key, void* buf, unsigned int* size);

    // ---- Virtual ports and LUNs ----
    // One port_info per virtual port of a physical port, in a new block.
    int GetVirPortForPort(port_info* key, char** buf, unsigned int* size);
    // A virtual port's port_stats.
    int GetVirPortStatistics(vport_in* key, void* buf, unsigned int* size);
    // One lun_info per LUN behind a remote port of a virtual port, in a new
    // block.
    int GetVPortLunInfo(vport_in* key, char** buf, unsigned int* size);
    // One lun_info per LUN behind a remote port of a port, in a new block.
    int GetLunInfo(vport_in* key, char** buf, unsigned int* size);
    // Create or delete a virtual port. The four 8-byte WWNs go into the
    // driver's request at offsets 0 (a), 8 (b), 16 (c) and 24 (d); a and b
    // may be null (zeros there).
    int CreateNPIV(const char* adapter, unsigned char* a, unsigned char* b, unsigned char* c, unsigned char* d);
    int DeleteNPIV(const char* adapter, unsigned char* a, unsigned char* b, unsigned char* c, unsigned char* d);

    // ---- Whole-system snapshot ----
    // The whole system as one byte stream, allocated with malloc (the agent
    // frees it), its length in *size; null on failure. buf is not used.
    void* GetFCoEAll(void* buf, unsigned int* size);
};

#endif
