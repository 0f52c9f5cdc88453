// Extended adapter and port attributes: the driver's hardware fields of an
// adapter and the FCoE fields of a local port that the standard records
// have no room for.
#include <cstdio>
#include <cstring>

#include "driver/common.h"
#include "driver/entry_lock.h"
#include "driver/port_rules.h"
#include "driver/walks.h"
#include "mgmt/local_port.h"
#include "mirvak/mgmt.h"
#include "mirvak/port_helpers.h"

namespace {

constexpr HBA_UINT32 kNoSuchPort = HBA_STATUS_ERROR_ILLEGAL_INDEX;

// The VLAN id of the FCF the port logged in through. A failed query leaves
// 0 and reports the VLAN byte of the last FCF read; a list without the
// port's FCF leaves the field as it is.
void find_vlan(uint32_t handle, port_info& info) {
    fcf_info fcf;
    std::memset(&fcf, 0, sizeof fcf);
    uint32_t cursor = mv::kEndCursor;
    const uint32_t wanted = info.fcf_index;
    switch (mv::find_fcf(handle, wanted, fcf, cursor).found) {
        case mv::FcfFound::DriverFailed:
            info.vlan_id = 0;
            std::printf("Not able to get vlan id :%d \n", fcf.vlan_id);
            break;
        case mv::FcfFound::Exhausted: std::puts("Not able to get vlan id"); break;
        case mv::FcfFound::Found: info.vlan_id = fcf.vlan_id; break;
    }
}

// The physical port's MAC from the adapter's port table; nothing when the
// hardware record cannot be had or the port is not in the table.
void find_port_mac(uint32_t handle, port_info& info) {
    hw_info hw;
    std::memset(&hw, 0, sizeof hw);
    if (tusk_get_hw_info(handle, &hw) != 0) return;
    const uint16_t phys_port = info.phys_port;
    if (phys_port > 0xFF) return;
    const hw_port* port = mv::hw_port_entry(hw, static_cast<uint8_t>(phys_port));
    if (port != nullptr) std::memcpy(info.port_mac, port->mac, sizeof info.port_mac);
}

HBA_UINT32 fill_port(HBA_HANDLE handle, const mv::PortKey& key, port_info& info) {
    lnode_info node;
    if (mv::pick_local_port(handle, key, node) != mv::PortPick::Selected) return kNoSuchPort;
    mv::copy_lnode_fields(node, info);
    // A port that is not "READY" is reported with its fields but without
    // its VLAN; so is one the caller already knows to be offline or down.
    const bool ready = field_text(node.state) == "READY";
    const HBA_UINT32 state = info.attributes.PortState;
    if (ready && state != HBA_PORTSTATE_LINKDOWN && state != HBA_PORTSTATE_OFFLINE) find_vlan(handle, info);
    find_port_mac(handle, info);
    return HBA_STATUS_OK;
}

}  // namespace

HBA_UINT32 mirvak_GetKXAdapterAttributes(HBA_HANDLE handle, adapter_info* info) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    hw_info hw;
    std::memset(&hw, 0, sizeof hw);
    const int status = tusk_get_hw_info(handle, &hw);
    if (status != 0) return static_cast<HBA_UINT32>(status);
    info->hw_byte_191 = hw.hw_byte_191;
    info->hw_word_284 = hw.tail.hw_word_284;
    info->hw_word_288 = hw.tail.hw_word_288;
    info->hw_word_292 = hw.tail.hw_word_292;
    info->hw_word_332 = hw.tail.hw_word_332;
    info->hw_word_192 = hw.hw_word_192;
    mv::copy_text(info->hw_text_246, hw.tail.hw_text_246);
    mv::copy_text(info->hw_text_296, hw.tail.hw_text_296);
    std::memset(info->hw_block_336, 0, sizeof info->hw_block_336);
    std::memcpy(info->hw_block_336, hw.tail.hw_block_336, sizeof info->hw_block_336);
    return HBA_STATUS_OK;
}

HBA_UINT32 mirvak_GetKXAdapterPortAttributes(HBA_HANDLE handle, HBA_UINT32 port, port_info* info) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    mv::PortKey key;
    key.position = port;
    return fill_port(handle, key, *info);
}

HBA_UINT32 mirvak_GetKXAdapterPortAttributes_by_wwpn(HBA_HANDLE handle, const port_info* key, port_info* info) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    // The key is read whole before anything is written: it may be *info.
    return fill_port(handle, mv::key_of(*key), *info);
}

HBA_UINT32 mirvak_GetNumTargets_by_wwpn(HBA_HANDLE handle, const port_info* key) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return mv::kBadHandleStatus;
    lnode_info node;
    if (mv::lnode_by_wwpn(handle, key->attributes.PortWWN.wwn, node) != 0) {
        std::puts("mirvak_GetNumTargets_by_wwpn: Error fetching LNode info");
        return mv::kBadHandleStatus;
    }
    // Targets count whatever their state: agents see an offline or vanished
    // target in the number.
    HBA_UINT32 targets = 0;
    rnode_info remote;
    mv::walk_rnodes(handle, node.lnode_id, remote, [&](rnode_info& r) {
        if (mv::is_target(r)) ++targets;
        return true;
    });
    return targets;
}

HBA_UINT32 get_path_for_KXpwwn(const unsigned char* wwn, char* out) {
    const mv::EntryLock entry_lock;
    return get_path_for_pwwn(wwn, out) == 0 ? 0u : 0xFFFFFFFFu;
}
