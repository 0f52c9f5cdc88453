#include "mgmt/local_port.h"

#include <cstring>

#include "driver/port_rules.h"
#include "driver/walks.h"

namespace mv {

PortKey key_of(const port_info& key) {
    PortKey k;
    k.by_wwn = wwn_given(key.attributes.PortWWN);
    std::memcpy(k.wwn, key.attributes.PortWWN.wwn, 8);
    k.position = key.port_num;
    return k;
}

PortPick pick_local_port(uint32_t handle, const PortKey& key, lnode_info& rec) {
    bool selected = false;
    const WalkResult walk = walk_lnodes(handle, rec, [&](lnode_info& node, uint64_t next, uint32_t position) {
        replace_stale_entry(handle, node, next, key.position);
        selected = key.by_wwn ? wwn_equal(node.port_wwn, key.wwn) : position == key.position;
        return !selected;
    });
    if (selected) return PortPick::Selected;
    return walk.end == WalkEnd::ChainEnd ? PortPick::ChainEnd : PortPick::DriverFailed;
}

void copy_lnode_fields(const lnode_info& node, port_info& info) {
    std::memcpy(info.lnode_mac, node.lnode_mac, sizeof info.lnode_mac);
    info.phys_port = node.port_num;
    info.lnode_word_148 = node.lnode_word_148;
    info.lnode_id = node.lnode_id;
    info.lnode_word_5 = node.lnode_word_5;
    info.fcf_index = node.fcf_index;
    info.lnode_flag = node.lnode_flag;
    info.lnode_word_28 = node.lnode_word_28;
}

// The two driver ranges interleave: agents read counter0..counter7 by
// position, in this order.
void copy_lnode_counters(const lnode_info& node, port_stats& stats) {
    stats.counter0 = node.word_1417;
    stats.counter1 = node.word_1421;
    stats.counter2 = node.word_1429;
    stats.counter3 = node.word_1433;
    stats.counter4 = node.word_1409;
    stats.counter5 = node.word_1413;
    stats.counter6 = node.word_1425;
    stats.counter7 = node.word_1437;
}

void copy_rnode_counters(const rnode_info& node, port_stats& stats) {
    stats.counter0 = node.word_1424;
    stats.counter1 = node.word_1432;
    stats.counter2 = node.word_1436;
    stats.counter3 = node.word_1440;
    stats.rcounter0 = node.word_1408;
    stats.rcounter1 = node.word_1412;
    stats.rcounter2 = node.word_1416;
    stats.rcounter3 = node.word_1420;
}

}  // namespace mv
