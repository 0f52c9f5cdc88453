#include "facade/request.h"

#include "mirvak/mgmt.h"

namespace mv::facade {

int map_status(int status, int kind) {
    // The agent tells port, remote-port and virtual-port failures apart by
    // these codes; the uneven rows are relied on as they stand.
    const bool port_like = kind == FCOE_KIND_PORT || kind == FCOE_KIND_VIRTUAL_PORT;
    switch (status) {
        case HBA_STATUS_OK:
            return FCOE_OK;
        case HBA_STATUS_ERROR:
        case HBA_STATUS_ERROR_NOT_SUPPORTED:
            return FCOE_ERR_FAILED;
        case HBA_STATUS_ERROR_INVALID_HANDLE:
        case HBA_STATUS_ERROR_ARG:
            return FCOE_ERR_BAD_ARGUMENT;
        case HBA_STATUS_ERROR_ILLEGAL_WWN:
        case HBA_STATUS_ERROR_ILLEGAL_INDEX:
            // A virtual-port request gets the port code 291, not 296; every
            // kind but port and virtual port gets the remote-port code.
            return port_like ? FCOE_ERR_PORT : FCOE_ERR_REMOTE_PORT;
        case MIRVAK_STATUS_PORT_OFFLINE:  // the local port is offline or not initialised
            // A virtual-port request gets the port code 294; every kind but
            // port and virtual port gets the remote-port code 295.
            return port_like ? FCOE_ERR_PORT_OFFLINE : FCOE_ERR_REMOTE_PORT_OFFLINE;
        default:  // below 0, 7 to 99, 101 and above
            switch (kind) {
                case FCOE_KIND_PORT:
                    return FCOE_ERR_PORT;
                case FCOE_KIND_REMOTE_PORT:
                    return FCOE_ERR_REMOTE_PORT;
                case FCOE_KIND_VIRTUAL_PORT:
                    return FCOE_ERR_VIRTUAL_PORT;
                default:
                    return FCOE_ERR_FAILED;
            }
    }
}

AdapterName::AdapterName(const char* field) {
    const std::size_t n = field ? strnlen(field, kNameField) : 0;
    if (n) std::memcpy(text_, field, n);
    text_[n] = '\0';
}

void AdapterName::put(char* field) const {
    const std::size_t n = strnlen(text_, kNameField - 1);
    std::memcpy(field, text_, n);
    field[n] = '\0';
}

Request::Request(const char* name_field) : name_(name_field), handle_(mirvak_OpenAdapter(name_.c_str())) {}

Request::~Request() {
    if (!keep_open_) close();
}

void Request::close() {
    if (handle_ == kBadHandle) return;
    mirvak_CloseAdapter(handle_);
    handle_ = kBadHandle;
}

int Request::step(HBA_UINT32 status, int kind) {
    if (status == 0) return FCOE_OK;
    close();
    // Compared as a signed value: 0xFFFFFFFF (a failed handle) is below 0.
    return map_status(static_cast<int>(status), kind);
}

int Request::fail(int code) {
    close();
    return code;
}

int Request::finish(int code) {
    close();
    return code;
}

int Request::leave_open(int code) {
    keep_open_ = true;
    return code;
}

void answer(void* buf, unsigned int* size, const void* data, std::size_t bytes) {
    if (bytes) std::memcpy(buf, data, bytes);
    *size = static_cast<unsigned int>(bytes);
}

bool answer_block(char** buf, unsigned int* size, const void* data, std::size_t bytes) {
    char* block = static_cast<char*>(std::malloc(bytes));
    if (!block) return false;
    std::memset(block, 0, bytes);
    if (bytes) std::memcpy(block, data, bytes);
    *buf = block;
    *size = static_cast<unsigned int>(bytes);
    return true;
}

}  // namespace mv::facade
