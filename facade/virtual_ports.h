// What the remote-port and virtual-port requests share: the key's local port
// prepared from its port number, the working list of that port's virtual
// ports, and the arrays the extended interface hands back.
#ifndef MIRVAK_FACADE_VIRTUAL_PORTS_H
#define MIRVAK_FACADE_VIRTUAL_PORTS_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "facade/request.h"
#include "mirvak/mgmt_records.h"

namespace mv::facade {

// Answered when the working array of a port's virtual ports cannot be had
// (the all-ones value; the facade has no name for it).
constexpr int kNoVirtualPortArray = -1;

// The most virtual ports a local port is taken to report. The count is the
// driver's own word; one above this is answered as an allocation failure
// rather than asking for gigabytes (the driver lists at most 128).
constexpr uint32_t kMaxVirtualPorts = 0xFFFF;

// Prepare the key's local port: its standard attributes by port number, put
// into `port` with the adapter name and the port number, then the FCoE
// fields (flag byte, virtual-port count, ...) over them. `port` must be
// zeroed. 0, or the facade code of the failing call mapped with `kind`
// (the adapter is then closed).
int prepare_local_port(Request& req, uint32_t port_num, port_info& port, int kind);

// What a virtual port takes over from its physical port when that port is
// neither offline nor down: speed and frame size, fabric name, VLAN, and the
// device name (the adapter name when the port has none). Agents show these
// for the virtual port.
void inherit_from_physical(const port_info& phys, const AdapterName& name, port_info& vport);

// The virtual ports of a local port, as the driver lists them for its WWPN:
// one zeroed port_info per virtual port the local port counts.
class VirtualPorts {
public:
    explicit VirtualPorts(uint32_t count);

    // False when the array could not be had.
    bool ok() const { return ok_; }
    uint32_t count() const { return count_; }
    std::size_t bytes() const { return list_.bytes(); }
    port_info& operator[](std::size_t i) { return list_[i]; }
    port_info* data() { return list_.data(); }

    // mirvak_GetAllVPortsForPort into the array; its status.
    HBA_UINT32 list(HBA_HANDLE handle, const unsigned char* phys_wwpn);

    // True when the index names a record of the array. Agents pass indexes
    // they took from an earlier listing; one at or past the count has no
    // record to read.
    bool has(uint32_t index) const { return index < count_; }
    // The WWPN of virtual port `index` (has(index) must hold).
    const unsigned char* wwpn(uint32_t index) { return list_[index].attributes.PortWWN.wwn; }

private:
    uint32_t count_;
    bool ok_;
    Array<port_info> list_;
};

// An array that the extended interface allocated with malloc, released
// when the method returns.
template <class T>
class Owned {
public:
    Owned() = default;
    ~Owned() { std::free(p_); }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;

    // Where the extended function stores the array.
    T** out() { return &p_; }
    T* get() { return p_; }
    T& operator[](std::size_t i) { return p_[i]; }

private:
    T* p_ = nullptr;
};

}  // namespace mv::facade

#endif
