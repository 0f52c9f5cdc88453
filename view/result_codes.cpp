#include "view/result_codes.h"

#include "mirvak/hba_plugin.h"  // hbaapi.h with what it needs first
#include "mirvak/mgmt.h"
#include "mirvak/mv_fcoe_ini.h"

namespace mv::tool {

namespace {

struct Code {
    int value;
    const char* name;
    const char* meaning;
};

// Every result code the facade answers.
constexpr Code kFacadeCodes[] = {
    {FCOE_OK, "FCOE_OK", "request served"},
    {FCOE_ERR_FAILED, "FCOE_ERR_FAILED", "the request failed"},
    {FCOE_ERR_NO_MEMORY, "FCOE_ERR_NO_MEMORY", "the library could not allocate memory"},
    {FCOE_ERR_BAD_ARGUMENT, "FCOE_ERR_BAD_ARGUMENT", "bad argument or adapter handle"},
    {-1, "", "the library could not allocate its list of virtual ports"},
    {FCOE_ERR_NO_ADAPTERS, "FCOE_ERR_NO_ADAPTERS", "no adapters"},
    {FCOE_ERR_ADAPTER_OPEN, "FCOE_ERR_ADAPTER_OPEN", "cannot open adapter"},
    {FCOE_ERR_ADAPTER_ATTRIBUTES, "FCOE_ERR_ADAPTER_ATTRIBUTES", "cannot read the adapter's attributes"},
    {FCOE_ERR_NO_PORTS, "FCOE_ERR_NO_PORTS", "the adapter has no ports, or the port has no virtual ports"},
    {FCOE_ERR_NO_REMOTE_PORTS, "FCOE_ERR_NO_REMOTE_PORTS", "no remote ports"},
    {FCOE_ERR_PORT, "FCOE_ERR_PORT", "port error: no such port, or the port reports an error"},
    {FCOE_ERR_PORT_NOT_FOUND, "FCOE_ERR_PORT_NOT_FOUND", "no port of the adapter has the requested WWPN"},
    {FCOE_ERR_REMOTE_PORT, "FCOE_ERR_REMOTE_PORT", "remote-port error: no such remote port"},
    {FCOE_ERR_PORT_OFFLINE, "FCOE_ERR_PORT_OFFLINE", "the port is offline or not initialised"},
    {FCOE_ERR_REMOTE_PORT_OFFLINE, "FCOE_ERR_REMOTE_PORT_OFFLINE",
     "the port is offline or not initialised, or has no such virtual port"},
    {FCOE_ERR_VIRTUAL_PORT, "FCOE_ERR_VIRTUAL_PORT", "virtual-port error: no such virtual or remote port"},
    {FCOE_ERR_NO_LUNS, "FCOE_ERR_NO_LUNS", "no LUNs"},
    {FCOE_ERR_LUN_INFO, "FCOE_ERR_LUN_INFO", "cannot get the LUN information"},
    {FCOE_ERR_NPIV_FAILED, "FCOE_ERR_NPIV_FAILED", "creating or deleting the virtual port failed"},
    {FCOE_ERR_NPIV_REFUSED, "FCOE_ERR_NPIV_REFUSED", "creating the virtual port was refused"},
};

const Code* find_facade(int code) {
    for (const Code& c : kFacadeCodes)
        if (c.value == code) return &c;
    return nullptr;
}

struct Status {
    unsigned value;
    const char* name;
    const char* meaning;
};

constexpr Status kStatuses[] = {
    {HBA_STATUS_OK, "HBA_STATUS_OK", "success"},
    {HBA_STATUS_ERROR, "HBA_STATUS_ERROR", "error"},
    {HBA_STATUS_ERROR_NOT_SUPPORTED, "HBA_STATUS_ERROR_NOT_SUPPORTED", "not supported"},
    {HBA_STATUS_ERROR_INVALID_HANDLE, "HBA_STATUS_ERROR_INVALID_HANDLE", "invalid adapter handle"},
    {HBA_STATUS_ERROR_ARG, "HBA_STATUS_ERROR_ARG", "bad argument"},
    {HBA_STATUS_ERROR_ILLEGAL_WWN, "HBA_STATUS_ERROR_ILLEGAL_WWN", "WWN not recognised"},
    {HBA_STATUS_ERROR_ILLEGAL_INDEX, "HBA_STATUS_ERROR_ILLEGAL_INDEX", "index not recognised"},
    {HBA_STATUS_ERROR_MORE_DATA, "HBA_STATUS_ERROR_MORE_DATA", "a larger buffer is needed"},
    {HBA_STATUS_ERROR_STALE_DATA, "HBA_STATUS_ERROR_STALE_DATA", "the information has changed"},
    {HBA_STATUS_SCSI_CHECK_CONDITION, "HBA_STATUS_SCSI_CHECK_CONDITION", "SCSI check condition"},
    {HBA_STATUS_ERROR_BUSY, "HBA_STATUS_ERROR_BUSY", "busy"},
    {HBA_STATUS_ERROR_TRY_AGAIN, "HBA_STATUS_ERROR_TRY_AGAIN", "timed out, try again"},
    {HBA_STATUS_ERROR_UNAVAILABLE, "HBA_STATUS_ERROR_UNAVAILABLE", "the adapter is unavailable"},
    {HBA_STATUS_ERROR_INVALID_LUN, "HBA_STATUS_ERROR_INVALID_LUN", "the LUN's device cannot be opened"},
    {HBA_STATUS_ERROR_NOT_A_TARGET, "HBA_STATUS_ERROR_NOT_A_TARGET", "not a SCSI target"},
    {MIRVAK_STATUS_PORT_OFFLINE, "", "the local port is offline or not initialised"},
    {0xFFFFFFFFu, "", "invalid handle, or the device cannot be opened or is no SCSI generic device, or the "
                      "command could not be issued"},
};

const Status* find_status(unsigned status) {
    for (const Status& s : kStatuses)
        if (s.value == status) return &s;
    return nullptr;
}

}  // namespace

std::string facade_code_name(int code) {
    const Code* c = find_facade(code);
    return c ? c->name : "";
}

std::string facade_code_meaning(int code) {
    const Code* c = find_facade(code);
    return c ? c->meaning : "unknown result code";
}

std::string describe_facade_code(int code) {
    const std::string name = facade_code_name(code);
    return std::to_string(code) + (name.empty() ? "" : " " + name) + " (" + facade_code_meaning(code) + ")";
}

std::string hba_status_name(unsigned status) {
    const Status* s = find_status(status);
    return s ? s->name : "";
}

std::string hba_status_meaning(unsigned status) {
    const Status* s = find_status(status);
    return s ? s->meaning : "the driver library's own status";
}

std::string describe_hba_status(unsigned status) {
    const std::string name = hba_status_name(status);
    return std::to_string(static_cast<int>(status)) + (name.empty() ? "" : " " + name) + " (" +
           hba_status_meaning(status) + ")";
}

}  // namespace mv::tool
