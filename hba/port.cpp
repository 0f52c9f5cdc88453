// Port attributes of the standard face: one port, the first n ports, their
// targets, and the host's fc_host directory of a port.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "driver/common.h"
#include "driver/entry_lock.h"
#include "driver/port_rules.h"
#include "driver/walks.h"
#include "host/sysfs_view.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/port_helpers.h"

namespace {

// PortSymbolicName takes the text now in OSDeviceName, which may be the
// caller's own bytes: bounded to the field.
void copy_device_name_to_symbolic(HBA_PORTATTRIBUTES& a) {
    const std::size_t len = strnlen(a.OSDeviceName, sizeof a.OSDeviceName - 1);
    std::memcpy(a.PortSymbolicName, a.OSDeviceName, len);
    a.PortSymbolicName[len] = '\0';
}

void clear_fc4_types(HBA_PORTATTRIBUTES& a) {
    std::memset(&a.PortSupportedFc4Types, 0, sizeof a.PortSupportedFc4Types);
    std::memset(&a.PortActiveFc4Types, 0, sizeof a.PortActiveFc4Types);
}

// Fabric name and frame size from the FCF the node logged in through, the
// walk going on from `cursor`. Returns the last driver result.
int fill_from_fcf(uint32_t handle, const lnode_info& node, HBA_PORTATTRIBUTES& a, uint32_t& cursor) {
    fcf_info fcf;
    std::memset(&fcf, 0, sizeof fcf);
    const mv::FcfResult r = mv::find_fcf(handle, node.fcf_index, fcf, cursor);
    switch (r.found) {
        case mv::FcfFound::DriverFailed: std::puts("Not able to get FabricName"); break;
        case mv::FcfFound::Exhausted: std::puts("Not able to get vlan id"); break;
        case mv::FcfFound::Found:
            std::memcpy(a.FabricName.wwn, fcf.fabric_name, 8);
            a.PortMaxFrameSize = fcf.max_frame_size;
            break;
    }
    return r.status;
}

// PortSpeed from the physical port's entry of the hardware record; left as
// it is when the record cannot be had or the port reports no speed.
int fill_speed(uint32_t handle, const lnode_info& node, HBA_PORTATTRIBUTES& a) {
    hw_info hw;
    std::memset(&hw, 0, sizeof hw);
    const int status = tusk_get_hw_info(handle, &hw);
    if (status != 0) return status;
    const hw_port* port = mv::hw_port_entry(hw, node.port_num);
    if (port != nullptr && port->enabled != 0) a.PortSpeed = mv::port_speed_code(port->speed);
    return status;
}

// Entry `pos` of the list of all ports from its local node; returns the
// last driver result (0 when the port needs no FCF or speed query).
int fill_listed_port(HBA_HANDLE handle, const lnode_info& node, HBA_PORTATTRIBUTES* attrs, HBA_UINT32 pos,
                     uint32_t& fcf_cursor) {
    HBA_PORTATTRIBUTES& a = attrs[pos];
    mv::copy_wwn(a.NodeWWN, node.node_wwn);
    mv::copy_wwn(a.PortWWN, node.port_wwn);
    // Every port's state lands in entry 0: agents read entry 0 as the
    // state of the last port examined.
    attrs[0].PortState = mv::lnode_port_state(node);
    if (field_text(node.state) == "UNINIT") return 0;
    a.PortFcId = node.fcid;
    mv::or_class_of_service(a.PortSupportedClassofService, node.cos);
    a.NumberofDiscoveredPorts = mirvak_GetNumTargets(handle, pos);
    a.PortSupportedSpeed = 4;
    copy_device_name_to_symbolic(a);
    clear_fc4_types(a);
    // For entries past 0 this is the state the caller left there.
    if (a.PortState == HBA_PORTSTATE_LINKDOWN || a.PortState == HBA_PORTSTATE_OFFLINE) return 0;
    fill_from_fcf(handle, node, a, fcf_cursor);
    return fill_speed(handle, node, a);
}

}  // namespace

extern "C" {

HBA_STATUS mirvak_GetAdapterPortAttributes(HBA_HANDLE handle, HBA_UINT32 index, HBA_PORTATTRIBUTES* attr) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return static_cast<HBA_STATUS>(-1);
    lnode_info node;
    bool filled = false;
    const mv::WalkResult walk = mv::walk_lnodes(handle, node, [&](lnode_info& rec, uint64_t next, uint32_t pos) {
        mv::replace_stale_entry(handle, rec, next, index);
        if (pos != index) return true;
        filled = true;
        return false;
    });
    if (walk.end == mv::WalkEnd::ChainEnd) return HBA_STATUS_OK;  // record untouched
    if (!filled) return HBA_STATUS_ERROR_ILLEGAL_INDEX;

    HBA_PORTATTRIBUTES& a = *attr;
    mv::copy_wwn(a.NodeWWN, node.node_wwn);
    mv::copy_wwn(a.PortWWN, node.port_wwn);
    a.PortState = mv::lnode_port_state(node);
    if (a.PortState == HBA_PORTSTATE_LINKDOWN) return HBA_STATUS_OK;
    a.PortFcId = node.fcid;
    mv::or_class_of_service(a.PortSupportedClassofService, node.cos);
    a.NumberofDiscoveredPorts = mirvak_GetNumTargets(handle, index);
    if (get_path_for_pwwn(a.PortWWN.wwn, a.OSDeviceName) < 0) {
        // The WWN's raw bytes are printed as text, up to its first zero byte.
        std::printf("failed to get scsi host for %.8s\n", reinterpret_cast<const char*>(a.PortWWN.wwn));
    }
    a.PortSupportedSpeed = 4;
    copy_device_name_to_symbolic(a);
    clear_fc4_types(a);

    // An offline port gets no fabric or speed details. The state tested is
    // the caller's record's own.
    if (a.PortState == HBA_PORTSTATE_OFFLINE) return HBA_STATUS_OK;
    uint32_t fcf_cursor = mv::kEndCursor;
    fill_from_fcf(handle, node, a, fcf_cursor);
    fill_speed(handle, node, a);
    return HBA_STATUS_OK;
}

HBA_STATUS mirvak_GetAllAdapterPortsAttributes(HBA_HANDLE handle, HBA_PORTATTRIBUTES* attrs, HBA_UINT32 count) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return static_cast<HBA_STATUS>(-1);
    if (count == 0) return HBA_STATUS_OK;
    // One FCF cursor for all ports: each port's FCF walk goes on from where
    // the previous port's stopped.
    uint32_t fcf_cursor = mv::kEndCursor;
    int last = 0;
    lnode_info node;
    const mv::WalkResult walk = mv::walk_lnodes(handle, node, [&](lnode_info& rec, uint64_t, uint32_t pos) {
        last = fill_listed_port(handle, rec, attrs, pos, fcf_cursor);
        return pos + 1 != count;
    });
    if (walk.end == mv::WalkEnd::DriverFailed) return static_cast<HBA_STATUS>(walk.status);
    if (walk.end == mv::WalkEnd::ChainEnd) return HBA_STATUS_OK;
    return static_cast<HBA_STATUS>(last);
}

HBA_UINT32 mirvak_GetNumTargets(HBA_HANDLE handle, HBA_UINT32 index) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return static_cast<HBA_UINT32>(-1);
    HBA_UINT32 targets = 0;
    lnode_info node;
    rnode_info remote;
    // The walk runs to the end of the chain; a failure ends it with the
    // count so far. Targets count whatever their state.
    mv::walk_lnodes(handle, node, [&](lnode_info& rec, uint64_t, uint32_t pos) {
        if (pos == index) {
            mv::walk_rnodes(handle, rec.lnode_id, remote, [&](rnode_info& r) {
                if (mv::is_target(r)) ++targets;
                return true;
            });
        }
        return true;
    });
    return targets;
}

}  // extern "C"

int GetNumLnodes(HBA_HANDLE handle, uint16_t) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return -1;
    int count = 0;
    lnode_info node;
    mv::walk_lnodes(handle, node, [&](lnode_info&, uint64_t, uint32_t) { return ++count, true; });
    return count;
}

int get_path_for_pwwn(const unsigned char* wwn, char* out) {
    const mv::EntryLock entry_lock;
    char key[19];
    std::snprintf(key, sizeof key, "0x%02x%02x%02x%02x%02x%02x%02x%02x", wwn[0], wwn[1], wwn[2], wwn[3], wwn[4],
                  wwn[5], wwn[6], wwn[7]);
    mv::host::Directory dir(mv::kFcHostDir);
    if (!dir.opened()) {
        errno = dir.open_errno();
        std::perror("opendir");
        return -1;
    }
    int result = -1;
    while (const char* name = dir.next()) {
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
        char path[512];
        std::snprintf(path, sizeof path, "%s/%s/%s", mv::kFcHostDir, name, "port_name");
        mv::host::File file(path);
        if (file.open_result() < 0) {
            // One unreadable entry ends the scan.
            errno = file.open_errno();
            std::perror("file open");
            break;
        }
        char text[257] = {};
        const ssize_t n = file.read(text, 256);
        if (n < 0) {
            std::perror("file read");
            break;
        }
        char word[257] = {};
        std::sscanf(text, "%256s", word);
        file.close();
        if (std::strncmp(word, key, std::strlen(key)) == 0) {
            // The host's folder, cut to 255 bytes and terminated.
            std::snprintf(out, 256, "%s/%s", mv::kFcHostDir, name);
            result = 0;
            break;
        }
    }
    dir.close();
    return result;
}
