// Records exchanged with the driver library (libtuskstor).
//
// These are wire formats shared with a closed library: byte offsets are
// fixed, fields are packed with no alignment, integers are in host byte
// order. Each record is declared once, here, and every offset the plug-in
// relies on is checked at compile time below. Fields whose meaning the
// driver does not tell us are named after their byte offset.
//
// Every record that comes from the driver is untrusted: text fields are read
// with the bounded helpers at the end of this file, never with strlen.
#ifndef MIRVAK_DRIVER_RECORDS_H
#define MIRVAK_DRIVER_RECORDS_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#define MV_PACKED __attribute__((packed))

// The service-parameter block of one class of service: its first byte's top
// bit says whether the class is supported.
struct MV_PACKED cos_block {
    uint8_t flags;
    uint8_t rest[15];
};
static_assert(sizeof(cos_block) == 16, "cos_block");

// One local FCoE port (physical or virtual): 1729 bytes.
struct MV_PACKED lnode_info {
    uint8_t port_num;           // 0: index into hw_info's port table
    uint32_t num_rnodes;        // 1
    uint32_t lnode_word_5;      // 5
    uint64_t lnode_handle;      // 9: cursor of the following node; 0 closes the chain
    uint8_t lnode_mac[6];       // 17: the FCoE port's MAC address
    uint32_t fcid;              // 23
    uint8_t lnode_flag;         // 27
    uint32_t lnode_word_28;     // 28
    uint8_t rsvd_32[16];        // 32
    uint8_t port_wwn[8];        // 48: also the search key of tusk_get_lnode_info_by_fcid
    uint8_t node_wwn[8];        // 56
    cos_block cos[4];           // 64: classes 1..4
    uint8_t rsvd_128[16];       // 128
    uint32_t fcf_index;         // 144
    uint32_t lnode_word_148;    // 148
    uint32_t lnode_id;          // 152
    uint8_t rsvd_156[1253];     // 156
    uint32_t word_1409;         // 1409
    uint32_t word_1413;         // 1413
    uint32_t word_1417;         // 1417
    uint32_t word_1421;         // 1421
    uint32_t word_1425;         // 1425
    uint32_t word_1429;         // 1429
    uint32_t word_1433;         // 1433
    uint32_t word_1437;         // 1437
    uint8_t rsvd_1441[160];     // 1441
    char state[32];             // 1601: "READY", "OFFLINE", "UNINIT"
    uint64_t quad_1633;         // 1633: words sent
    uint64_t quad_1641;         // 1641: frames sent
    uint64_t quad_1649;         // 1649: words received
    uint64_t quad_1657;         // 1657: frames received
    uint8_t rsvd_1665[64];      // 1665
};

// One remote FC port seen by a local node: 1784 bytes.
struct MV_PACKED rnode_info {
    uint32_t rnode_index;       // 0: cursor; 0xFFFFFFFF closes the chain
    uint32_t rnode_word_4;      // 4
    uint32_t fcid;              // 8
    uint8_t rnode_byte_12;      // 12
    char role[48];              // 13: "target", "initiator", in any letter case
    uint8_t port_wwn[8];        // 61
    uint8_t node_wwn[8];        // 69
    cos_block cos[4];           // 77
    uint8_t rsvd_141[1267];     // 141
    uint32_t word_1408;         // 1408
    uint32_t word_1412;         // 1412
    uint32_t word_1416;         // 1416
    uint32_t word_1420;         // 1420
    uint32_t word_1424;         // 1424
    uint32_t word_1428;         // 1428
    uint32_t word_1432;         // 1432
    uint32_t word_1436;         // 1436
    uint32_t word_1440;         // 1440
    uint8_t rsvd_1444[156];     // 1444
    char state[32];             // 1600: "READY", "OFFLINE", "DISAPPEARED", "UNINIT"
    uint8_t rsvd_1632[152];     // 1632
};

// One physical port in hw_info's port table: 12 bytes.
struct MV_PACKED hw_port {
    uint8_t enabled;            // 0: 0 means no speed is reported
    uint16_t speed;             // 1: 1, 2, 4, 8, 16 or 32
    uint8_t rsvd_3;             // 3
    uint8_t mac[6];             // 4: the physical port's MAC address
    uint8_t rsvd_10[2];         // 10
};
static_assert(sizeof(hw_port) == 12, "hw_port");

constexpr std::size_t HW_INFO_SIZE = 1016;
constexpr std::size_t HW_PORT_TABLE_OFFSET = 201;
// However large num_ports claims to be, no more entries fit in the record.
constexpr std::size_t HW_PORT_TABLE_MAX = (HW_INFO_SIZE - HW_PORT_TABLE_OFFSET) / sizeof(hw_port);

// The later hardware fields share bytes with the port table's fourth and
// following entries; the driver never describes more ports than fit before
// them, but the record is read through both views.
struct MV_PACKED hw_info_tail {
    uint8_t rsvd_201[45];       // 201
    char hw_text_246[32];       // 246
    uint8_t rsvd_278[6];        // 278
    uint32_t hw_word_284;       // 284
    uint32_t hw_word_288;       // 288
    uint32_t hw_word_292;       // 292
    char hw_text_296[32];       // 296
    uint8_t rsvd_328[4];        // 328
    uint32_t hw_word_332;       // 332
    uint8_t hw_block_336[136];  // 336
    uint8_t rsvd_472[544];      // 472
};

// One adapter: 1016 bytes.
struct MV_PACKED hw_info {
    char manufacturer[32];      // 0
    char model[32];             // 32
    char serial_num[32];        // 64
    char hw_version[32];        // 96
    char drv_version[32];       // 128
    uint16_t vendor_id;         // 160
    uint8_t rsvd_162[2];        // 162
    uint32_t optrom_version;    // 164
    uint8_t rsvd_168[4];        // 168
    uint32_t fw_version;        // 172
    uint8_t rsvd_176[15];       // 176
    uint8_t hw_byte_191;        // 191
    uint32_t hw_word_192;       // 192
    uint8_t num_ports;          // 196
    uint8_t rsvd_197[4];        // 197
    union MV_PACKED {
        hw_port port[HW_PORT_TABLE_MAX];  // 201 + 12 * p
        hw_info_tail tail;
    };
};

// One Fibre Channel Forwarder: 135 bytes.
struct MV_PACKED fcf_info {
    uint8_t rsvd_0[15];         // 0
    uint8_t fabric_name[8];     // 15
    uint8_t rsvd_23[2];         // 23
    uint8_t vlan_id;            // 25
    uint16_t max_frame_size;    // 26
    uint8_t rsvd_28[7];         // 28
    uint32_t fcf_index;         // 35: cursor and identity; 0xFFFFFFFF closes the chain
    uint8_t rsvd_39[96];        // 39
};

constexpr std::size_t NPIV_LIST_MAX = 128;

struct MV_PACKED npiv_entry {
    uint8_t wwpn[8];            // 0
    uint8_t rsvd_8[18];         // 8
};
static_assert(sizeof(npiv_entry) == 26, "npiv_entry");

// Virtual ports of one physical port: 3348 bytes.
struct MV_PACKED npiv_list {
    uint32_t count;             // 0: written by the driver
    uint8_t phys_wwpn[8];       // 4: written by the caller
    uint8_t rsvd_12[8];         // 12
    npiv_entry entry[NPIV_LIST_MAX];  // 20
};

// Create or delete one virtual port: 36 bytes.
struct MV_PACKED npiv_req {
    uint8_t wwn_0[8];           // 0
    uint8_t wwn_8[8];           // 8
    uint8_t wwn_16[8];          // 16
    uint8_t wwn_24[8];          // 24
    int32_t status;             // 32: the driver may leave -5 here on refusal
};

constexpr int32_t NPIV_REQ_REFUSED = -5;

#define MV_CHECK_AT(rec, field, off) static_assert(offsetof(rec, field) == (off), #rec "." #field)

MV_CHECK_AT(lnode_info, port_num, 0);
MV_CHECK_AT(lnode_info, num_rnodes, 1);
MV_CHECK_AT(lnode_info, lnode_word_5, 5);
MV_CHECK_AT(lnode_info, lnode_handle, 9);
MV_CHECK_AT(lnode_info, lnode_mac, 17);
MV_CHECK_AT(lnode_info, fcid, 23);
MV_CHECK_AT(lnode_info, lnode_flag, 27);
MV_CHECK_AT(lnode_info, lnode_word_28, 28);
MV_CHECK_AT(lnode_info, port_wwn, 48);
MV_CHECK_AT(lnode_info, node_wwn, 56);
MV_CHECK_AT(lnode_info, cos, 64);
MV_CHECK_AT(lnode_info, fcf_index, 144);
MV_CHECK_AT(lnode_info, lnode_word_148, 148);
MV_CHECK_AT(lnode_info, lnode_id, 152);
MV_CHECK_AT(lnode_info, word_1409, 1409);
MV_CHECK_AT(lnode_info, word_1413, 1413);
MV_CHECK_AT(lnode_info, word_1417, 1417);
MV_CHECK_AT(lnode_info, word_1421, 1421);
MV_CHECK_AT(lnode_info, word_1425, 1425);
MV_CHECK_AT(lnode_info, word_1429, 1429);
MV_CHECK_AT(lnode_info, word_1433, 1433);
MV_CHECK_AT(lnode_info, word_1437, 1437);
MV_CHECK_AT(lnode_info, state, 1601);
MV_CHECK_AT(lnode_info, quad_1633, 1633);
MV_CHECK_AT(lnode_info, quad_1641, 1641);
MV_CHECK_AT(lnode_info, quad_1649, 1649);
MV_CHECK_AT(lnode_info, quad_1657, 1657);
static_assert(sizeof(lnode_info) == 1729, "lnode_info size");

MV_CHECK_AT(rnode_info, rnode_index, 0);
MV_CHECK_AT(rnode_info, rnode_word_4, 4);
MV_CHECK_AT(rnode_info, fcid, 8);
MV_CHECK_AT(rnode_info, rnode_byte_12, 12);
MV_CHECK_AT(rnode_info, role, 13);
MV_CHECK_AT(rnode_info, port_wwn, 61);
MV_CHECK_AT(rnode_info, node_wwn, 69);
MV_CHECK_AT(rnode_info, cos, 77);
MV_CHECK_AT(rnode_info, word_1408, 1408);
MV_CHECK_AT(rnode_info, word_1412, 1412);
MV_CHECK_AT(rnode_info, word_1416, 1416);
MV_CHECK_AT(rnode_info, word_1420, 1420);
MV_CHECK_AT(rnode_info, word_1424, 1424);
MV_CHECK_AT(rnode_info, word_1432, 1432);
MV_CHECK_AT(rnode_info, word_1436, 1436);
MV_CHECK_AT(rnode_info, word_1440, 1440);
MV_CHECK_AT(rnode_info, state, 1600);
static_assert(sizeof(rnode_info) == 1784, "rnode_info size");

MV_CHECK_AT(hw_port, enabled, 0);
MV_CHECK_AT(hw_port, speed, 1);
MV_CHECK_AT(hw_port, mac, 4);

MV_CHECK_AT(hw_info, manufacturer, 0);
MV_CHECK_AT(hw_info, model, 32);
MV_CHECK_AT(hw_info, serial_num, 64);
MV_CHECK_AT(hw_info, hw_version, 96);
MV_CHECK_AT(hw_info, drv_version, 128);
MV_CHECK_AT(hw_info, vendor_id, 160);
MV_CHECK_AT(hw_info, optrom_version, 164);
MV_CHECK_AT(hw_info, fw_version, 172);
MV_CHECK_AT(hw_info, hw_byte_191, 191);
MV_CHECK_AT(hw_info, hw_word_192, 192);
MV_CHECK_AT(hw_info, num_ports, 196);
MV_CHECK_AT(hw_info, port, HW_PORT_TABLE_OFFSET);
MV_CHECK_AT(hw_info, tail, HW_PORT_TABLE_OFFSET);
static_assert(HW_PORT_TABLE_OFFSET + offsetof(hw_info_tail, hw_text_246) == 246, "hw_text_246");
static_assert(HW_PORT_TABLE_OFFSET + offsetof(hw_info_tail, hw_word_284) == 284, "hw_word_284");
static_assert(HW_PORT_TABLE_OFFSET + offsetof(hw_info_tail, hw_word_288) == 288, "hw_word_288");
static_assert(HW_PORT_TABLE_OFFSET + offsetof(hw_info_tail, hw_word_292) == 292, "hw_word_292");
static_assert(HW_PORT_TABLE_OFFSET + offsetof(hw_info_tail, hw_text_296) == 296, "hw_text_296");
static_assert(HW_PORT_TABLE_OFFSET + offsetof(hw_info_tail, hw_word_332) == 332, "hw_word_332");
static_assert(HW_PORT_TABLE_OFFSET + offsetof(hw_info_tail, hw_block_336) == 336, "hw_block_336");
static_assert(sizeof(hw_info_tail) == HW_INFO_SIZE - HW_PORT_TABLE_OFFSET, "hw_info tail size");
static_assert(sizeof(hw_info) == HW_INFO_SIZE, "hw_info size");

MV_CHECK_AT(fcf_info, fabric_name, 15);
MV_CHECK_AT(fcf_info, vlan_id, 25);
MV_CHECK_AT(fcf_info, max_frame_size, 26);
MV_CHECK_AT(fcf_info, fcf_index, 35);
static_assert(sizeof(fcf_info) == 135, "fcf_info size");

MV_CHECK_AT(npiv_list, count, 0);
MV_CHECK_AT(npiv_list, phys_wwpn, 4);
MV_CHECK_AT(npiv_list, entry, 20);
static_assert(sizeof(npiv_list) == 3348, "npiv_list size");

MV_CHECK_AT(npiv_req, wwn_0, 0);
MV_CHECK_AT(npiv_req, wwn_8, 8);
MV_CHECK_AT(npiv_req, wwn_16, 16);
MV_CHECK_AT(npiv_req, wwn_24, 24);
MV_CHECK_AT(npiv_req, status, 32);
static_assert(sizeof(npiv_req) == 36, "npiv_req size");

// Bounded views of the driver's text fields: a field without a NUL ends at
// its last byte, never beyond.
template <std::size_t N>
inline std::string_view field_text(const char (&f)[N]) {
    return std::string_view(f, strnlen(f, N));
}

// Lower-case a role word in place, within its field.
template <std::size_t N>
inline void lower_in_place(char (&f)[N]) {
    for (std::size_t i = 0; i < N && f[i] != '\0'; ++i) {
        if (f[i] >= 'A' && f[i] <= 'Z') f[i] = static_cast<char>(f[i] - 'A' + 'a');
    }
}

#endif
