// The agent's questions about adapters and their physical ports: every
// adapter, one adapter, all ports of an adapter, one port, one port's
// statistics. Answers go into the agent's buffer.
#include <cstdio>
#include <cstring>

#include "driver/entry_lock.h"
#include "facade/request.h"
#include "mirvak/instance_map.h"
#include "mirvak/mgmt.h"
#include "mirvak/mv_fcoe_ini.h"

using mv::facade::AdapterName;
using mv::facade::any_null;
using mv::facade::Array;
using mv::facade::Request;

namespace {

// What the facade puts into an adapter_info before the extended interface
// fills the driver's fields: instance (the adapter's dense index, as the
// instance map gives it for the name), name and standard attributes.
void fill_adapter(adapter_info& rec, const AdapterName& name, const HBA_ADAPTERATTRIBUTES& attr) {
    rec.instance = static_cast<uint32_t>(getAssignedInstance(name.c_str()));
    name.put(rec.adapter_name);
    std::memcpy(&rec.attributes, &attr, sizeof attr);
}

// What the facade puts into a port_info before the extended interface fills
// the FCoE fields: name, port number and the standard attributes.
void fill_port(port_info& rec, const AdapterName& name, uint32_t port, const HBA_PORTATTRIBUTES& attr) {
    name.put(rec.adapter_name);
    rec.port_num = port;
    std::memcpy(&rec.attributes, &attr, sizeof attr);
}

}  // namespace

int MvFCoEIni::GetFCoEAdapters(void* buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    // Zeroed once for all adapters, as the name and attribute readers leave
    // the bytes they do not write.
    char name[mv::facade::kNameField] = {};
    HBA_ADAPTERATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);

    const HBA_UINT32 n = mirvak_GetNumberOfAdapters();
    if (n == 0) {
        *size = 0;  // agents read the size even on this answer
        return FCOE_ERR_NO_ADAPTERS;
    }
    Array<adapter_info> all(n);
    if (!all.ok()) return FCOE_ERR_NO_MEMORY;

    for (HBA_UINT32 i = 0; i < n; ++i) {
        // An adapter whose name cannot be read keeps a zero slot; the answer
        // always has one slot per adapter counted.
        if (mirvak_GetAdapterName(i, name) != HBA_STATUS_OK) continue;
        // The handle goes to the attribute reader unchecked: a failed open
        // fails there.
        const AdapterName adapter(name);
        const HBA_HANDLE handle = mirvak_OpenAdapter(adapter.c_str());
        if (mirvak_GetAdapterAttributes(handle, &attr) != HBA_STATUS_OK) {
            // The adapter's slot stays zero-filled and the others are still
            // answered (agents count on n slots and status 0). Its handle is
            // closed here rather than left behind.
            std::memset(&all[i], 0, sizeof(adapter_info));
            if (handle != mv::facade::kBadHandle) mirvak_CloseAdapter(handle);
            continue;
        }
        fill_adapter(all[i], adapter, attr);
        (void)mirvak_GetKXAdapterAttributes(handle, &all[i]);  // status not tested
        mirvak_CloseAdapter(handle);
    }
    mv::facade::answer(buf, size, all.data(), all.bytes());
    return FCOE_OK;
}

int MvFCoEIni::GetFCoEAdapterStats(const char* adapter, void* buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(adapter, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    // Allocated, not on the stack; its allocation failure answers 1, not 2.
    // (It is released on every path, including a failed open.)
    Array<adapter_info> rec(1);
    if (!rec.ok()) return FCOE_ERR_FAILED;
    HBA_ADAPTERATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);

    Request req(adapter);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;
    // An adapter request: statuses 5 and 6 give 293, 100 gives 295, other
    // unmapped statuses 1.
    if (int rc = req.step(mirvak_GetAdapterAttributes(req.handle(), &attr), FCOE_KIND_ADAPTER)) return rc;
    fill_adapter(rec[0], req.name(), attr);
    (void)mirvak_GetKXAdapterAttributes(req.handle(), &rec[0]);  // status not tested
    req.close();
    mv::facade::answer(buf, size, rec.data(), rec.bytes());
    return FCOE_OK;
}

int MvFCoEIni::GetAllPortsInfo(port_info* key, void* buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(key, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    HBA_ADAPTERATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);

    Request req(key->adapter_name);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;
    if (mirvak_GetAdapterAttributes(req.handle(), &attr) != HBA_STATUS_OK)
        return req.fail(FCOE_ERR_ADAPTER_ATTRIBUTES);
    const HBA_UINT32 n = attr.NumberOfPorts;
    if (n < 1) return req.fail(FCOE_ERR_NO_PORTS);

    Array<port_info> ports(n);
    Array<HBA_PORTATTRIBUTES> attrs(n);
    if (!ports.ok() || !attrs.ok()) return req.fail(FCOE_ERR_NO_MEMORY);

    if (int rc = req.step(mirvak_GetAllAdapterPortsAttributes(req.handle(), attrs.data(), n), FCOE_KIND_PORT))
        return rc;

    const bool key_wwn = mv::wwn_given(key->attributes.PortWWN);
    bool mismatch = false;
    for (HBA_UINT32 i = 0; i < n; ++i) {
        fill_port(ports[i], req.name(), i, attrs[i]);
        // (The attribute array is released on this path too; nothing of it
        // reaches the agent.)
        if (int rc = req.step(mirvak_GetKXAdapterPortAttributes(req.handle(), i, &ports[i]), FCOE_KIND_PORT))
            return rc;
        // Once any port differs from the key's WWPN the answer is 292, even
        // when a later port matches: agents ask with an empty WWPN for the
        // list and treat a WWPN as "all ports must carry it".
        if (key_wwn && std::memcmp(key->attributes.PortWWN.wwn, ports[i].attributes.PortWWN.wwn, 8) != 0)
            mismatch = true;
    }
    if (mismatch) return req.fail(FCOE_ERR_PORT_NOT_FOUND);
    mv::facade::answer(buf, size, ports.data(), ports.bytes());
    return req.finish(FCOE_OK);
}

int MvFCoEIni::GetPortInfo(port_info* key, void* buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(key, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    HBA_ADAPTERATTRIBUTES adapter;
    std::memset(&adapter, 0, sizeof adapter);
    // One working copy for all ports, zeroed once: the port reader leaves
    // the fields it does not write (and ORs the class of service into what
    // is there), so a port's record carries what an earlier port left.
    HBA_PORTATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);

    Request req(key->adapter_name);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;
    if (mirvak_GetAdapterAttributes(req.handle(), &adapter) != HBA_STATUS_OK)
        return req.fail(FCOE_ERR_ADAPTER_ATTRIBUTES);
    const HBA_UINT32 n = adapter.NumberOfPorts;
    if (n < 1) return req.fail(FCOE_ERR_NO_PORTS);

    Array<port_info> ports(n);
    // 1 and not 2 here: agents see this method's allocation failure as a
    // plain failure.
    if (!ports.ok()) return req.fail(FCOE_ERR_FAILED);

    enum class Result { match, mismatch, all };
    const bool key_wwn = mv::wwn_given(key->attributes.PortWWN);
    Result r = Result::match;
    HBA_UINT32 i = 0;
    for (; i < n; ++i) {
        r = Result::match;
        const HBA_STATUS st = mirvak_GetAdapterPortAttributes(req.handle(), i, &attr);
        if (st != HBA_STATUS_OK) {
            std::puts("Failed to Get Adapter Port Attributes");
            return req.step(st, FCOE_KIND_PORT);
        }
        fill_port(ports[i], req.name(), i, attr);
        const HBA_UINT32 kx = mirvak_GetKXAdapterPortAttributes(req.handle(), i, &ports[i]);
        if (kx != 0) {
            std::puts("Failed to get KX Adapter Port Attributes");
            return req.step(kx, FCOE_KIND_PORT);
        }
        if (key_wwn) {
            r = std::memcmp(key->attributes.PortWWN.wwn, ports[i].attributes.PortWWN.wwn, 8) == 0 ? Result::match
                                                                                                  : Result::mismatch;
        } else {
            r = Result::all;
        }
        if (r == Result::match) break;
    }
    switch (r) {
        case Result::match:
            mv::facade::answer(buf, size, &ports[i], sizeof(port_info));
            return req.finish(FCOE_OK);
        case Result::all:
            mv::facade::answer(buf, size, ports.data(), ports.bytes());
            return req.finish(FCOE_OK);
        case Result::mismatch:
            break;
    }
    return req.fail(FCOE_ERR_PORT_NOT_FOUND);
}

int MvFCoEIni::GetPortStatistics(port_info* key, void* buf, unsigned int* size) {
    const mv::EntryLock entry_lock;
    if (any_null(key, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
    Request req(key->adapter_name);
    if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;
    port_stats stats;
    std::memset(&stats, 0, sizeof stats);
    // A port that is offline or not initialised (status 100) reaches the
    // agent as 294.
    if (int rc = req.step(mirvak_GetKXPortStatistics(req.handle(), key, &stats), FCOE_KIND_PORT)) return rc;
    mv::facade::answer(buf, size, &stats, sizeof stats);
    return req.finish(FCOE_OK);
}
