// The twelve operations of libtuskstor answered from the fuzzer's bytes (see
// fuzz_driver.h for the layout).
#include "fuzz_driver.h"

#include <cstdlib>
#include <cstring>

#include "mirvak/driver_records.h"
#include "mirvak/tuskstor.h"

namespace fuzzdrv {
namespace {

struct Source {
    const uint8_t* p = nullptr;
    std::size_t left = 0;
    uint8_t flags = 0;
    uint32_t adapters = 0;
    uint64_t calls = 0;
} src;

constexpr uint32_t kHandleBase = 0x1000;
constexpr int kBadHandleStatus = 9;

// An endless chain costs its walk's whole bound (thousands of driver calls)
// on every request that walks it: one input in sixteen asks for one, so
// that the inputs that do not stay fast.
constexpr uint8_t kEndlessBits = 0x39;
bool endless(unsigned chain) { return (src.flags & kEndlessBits) == kEndlessBits && ((src.flags >> 1) & 3) == chain; }
enum Chain : unsigned { kLocal = 0, kRemote = 1, kFcf = 2 };

const uint8_t kWwns[8][8] = {
    {0x20, 0, 0, 0, 0, 0, 0, 1}, {0x20, 0, 0, 0, 0, 0, 0, 2}, {0x21, 0, 0, 0, 0, 0, 0, 3},
    {0x21, 0, 0, 0, 0, 0, 0, 4}, {0x50, 1, 2, 3, 4, 5, 6, 7}, {0x10, 0, 0, 0, 0xc9, 0, 0, 8},
    {0, 0, 0, 0, 0, 0, 0, 0},    {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
};

const int kStatuses[16] = {1, 2, 3, 4, 5, 6, -1, 0x7fffffff, -5, 100, 40, 22, static_cast<int>(0x80000000u), 255, 7, 8};

// A status: mostly 0.
int status() {
    const uint8_t b = next_byte();
    return b < 240 ? 0 : kStatuses[b - 240];
}

uint32_t count_choice() {
    const uint8_t b = next_byte();
    if (b < 200) return b % 5;
    if (b < 250) return next_byte();
    if (b == 250) return 128;
    if (b == 251) return 129;
    if (b == 252) return 0xFFFFFFFFu;
    if (b == 253) return 0x7FFFFFFFu;
    return next_u32();
}

// A text field: one of the words the driver uses, a word of the wrong
// case, an empty one, or a field filled to the last byte without a NUL.
void word(char* field, std::size_t n, const char* const* words, std::size_t count) {
    const uint8_t b = next_byte();
    std::memset(field, 0, n);
    if (b < 200) {
        const char* w = words[b % count];
        std::memcpy(field, w, std::min(n, std::strlen(w)));
    } else if (b < 230) {
        std::memset(field, 'A' + (b % 26), n);
    } else {
        for (std::size_t i = 0; i < n && src.left; ++i) field[i] = static_cast<char>(next_byte());
    }
}

const char* const kStates[] = {"READY", "OFFLINE", "UNINIT", "DISAPPEARED", "ready", "", "NOT READY", "LINKDOWN"};
const char* const kRoles[] = {"target", "TARGET", "Target", "initiator", "targets", "", "targe", "target\n"};

// A few patches of raw bytes anywhere in the record.
void patch(void* rec, std::size_t size) {
    auto* bytes = static_cast<uint8_t*>(rec);
    const unsigned n = next_byte() % 4;
    for (unsigned i = 0; i < n; ++i) {
        const std::size_t at = (std::size_t{next_byte()} << 8 | next_byte()) % size;
        const std::size_t len = next_byte() % 33;
        for (std::size_t k = 0; k < len && at + k < size; ++k) bytes[at + k] = next_byte();
    }
}

bool ours(uint32_t handle) {
    return handle >= kHandleBase && handle < kHandleBase + 32 && present(handle - kHandleBase);
}

uint64_t lnode_cursor(uint64_t in) {
    if (src.left == 0) return endless(kLocal) ? in + 1 : 0;
    const uint8_t b = next_byte();
    if (b < 40) return 0;
    if (b < 50) return in;  // a cursor that loops
    if (b < 60) return next_u32() | (uint64_t{next_u32()} << 32);
    return in + 1;
}

uint32_t index_cursor(uint32_t in, Chain chain) {
    if (src.left == 0) return endless(chain) ? (in == 0xFFFFFFFEu ? 0 : in + 1) : 0xFFFFFFFFu;
    const uint8_t b = next_byte();
    if (b < 40) return 0xFFFFFFFFu;
    if (b < 50) return in;
    if (b < 60) return next_u32();
    if (b < 70) return b % 4;
    return in + 1;
}

// The fields of a local node both lnode queries answer: node WWN, state,
// identifiers, remote-node and virtual-port counts, the error flag.
void lnode_fields(lnode_info& n) {
    std::memcpy(n.node_wwn, wwn(next_byte()), 8);
    word(n.state, sizeof n.state, kStates, 8);
    n.lnode_id = next_byte() % 4;
    n.fcf_index = next_byte() % 4;
    n.num_rnodes = count_choice();
    n.lnode_word_28 = count_choice();
    n.lnode_flag = next_byte() % 8 == 7;
}

}  // namespace

void begin(const uint8_t* data, std::size_t size) {
    src = Source{};
    src.p = data;
    src.left = size;
    src.flags = next_byte();
    src.adapters = next_u32();
}

void end() { src = Source{}; }

bool present(uint32_t instance) { return instance < 32 && (src.adapters >> instance & 1) != 0; }

uint8_t next_byte() {
    if (src.left == 0) return 0;
    --src.left;
    return *src.p++;
}

uint32_t next_u32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = v << 8 | next_byte();
    return v;
}

const uint8_t* wwn(uint8_t choice) { return kWwns[choice % 8]; }

uint64_t calls() { return src.calls; }

}  // namespace fuzzdrv

using namespace fuzzdrv;

extern "C" {

uint32_t open_adapter(uint32_t instance) {
    ++src.calls;
    return present(instance) ? kHandleBase + instance : TUSK_INVALID_HANDLE;
}

uint32_t open_adapter_str(const char* path) {
    ++src.calls;
    static const char kPrefix[] = "/dev/tuskstor";
    if (path == nullptr || std::strncmp(path, kPrefix, sizeof kPrefix - 1) != 0) return TUSK_INVALID_HANDLE;
    const char* digits = path + sizeof kPrefix - 1;
    uint32_t instance = 0;
    std::size_t n = 0;
    for (; n < 3 && digits[n] >= '0' && digits[n] <= '9'; ++n) instance = instance * 10 + (digits[n] - '0');
    if (n == 0 || n == 3 || digits[n] != '\0') return TUSK_INVALID_HANDLE;
    return open_adapter(instance);
}

int close_adapter(uint32_t handle) {
    ++src.calls;
    return ours(handle) ? 0 : kBadHandleStatus;
}

int tusk_probe_adapter(uint32_t handle) {
    ++src.calls;
    return ours(handle) ? 0 : kBadHandleStatus;
}

int tusk_get_hw_info(uint32_t handle, void* area) {
    ++src.calls;
    if (!ours(handle)) return kBadHandleStatus;
    if (const int s = status()) return s;
    auto& hw = *static_cast<hw_info*>(area);
    static const char* const kTexts[] = {"Maker", "CNA-2", "SN0001", "1.0", "4.2.1"};
    word(hw.manufacturer, sizeof hw.manufacturer, kTexts, 5);
    word(hw.model, sizeof hw.model, kTexts, 5);
    word(hw.serial_num, sizeof hw.serial_num, kTexts, 5);
    hw.fw_version = next_u32();
    const uint8_t ports = next_byte();
    hw.num_ports = ports < 200 ? ports % 5 : ports;
    for (std::size_t p = 0; p < 4; ++p) {
        hw.port[p].enabled = next_byte() & 1;
        hw.port[p].speed = static_cast<uint16_t>(1u << (next_byte() % 7));
    }
    patch(&hw, sizeof hw);
    return 0;
}

int tusk_get_lnode_info(uint32_t handle, void* area, uint64_t cursor) {
    ++src.calls;
    if (!ours(handle)) return kBadHandleStatus;
    auto& n = *static_cast<lnode_info*>(area);
    const bool exhausted = src.left == 0;
    if (const int s = status()) return s;
    n.lnode_handle = lnode_cursor(cursor);
    if (exhausted) {
        std::memcpy(n.port_wwn, kWwns[cursor % 4], 8);
        std::memcpy(n.state, "READY", 5);
        return 0;
    }
    n.port_num = next_byte() % 6;
    std::memcpy(n.port_wwn, wwn(next_byte()), 8);
    lnode_fields(n);
    n.cos[next_byte() % 4].flags = 0x80;
    patch(&n, sizeof n);
    return 0;
}

int tusk_get_lnode_info_by_fcid(uint32_t handle, void* area, int) {
    ++src.calls;
    if (!ours(handle)) return kBadHandleStatus;
    if (const int s = status()) return s;
    auto& n = *static_cast<lnode_info*>(area);
    uint8_t key[8];
    std::memcpy(key, n.port_wwn, 8);
    n.lnode_handle = next_byte();
    std::memcpy(n.port_wwn, key, 8);
    lnode_fields(n);
    patch(&n, sizeof n);
    return 0;
}

int tusk_get_rnode_info(uint32_t handle, void* area, uint32_t cursor, uint32_t) {
    ++src.calls;
    if (!ours(handle)) return kBadHandleStatus;
    auto& r = *static_cast<rnode_info*>(area);
    const bool exhausted = src.left == 0;
    if (const int s = status()) return s;
    r.rnode_index = index_cursor(cursor, kRemote);
    if (exhausted) {
        // An endless chain of initiators: every walk must still end (its
        // bound), without a target list or snapshot of gigabytes.
        std::memcpy(r.role, "initiator", 9);
        std::memcpy(r.port_wwn, kWwns[(cursor + 1) % 4], 8);
        std::memcpy(r.state, "READY", 5);
        return 0;
    }
    word(r.role, sizeof r.role, kRoles, 8);
    std::memcpy(r.port_wwn, wwn(next_byte()), 8);
    std::memcpy(r.node_wwn, wwn(next_byte()), 8);
    word(r.state, sizeof r.state, kStates, 8);
    r.fcid = next_byte();
    patch(&r, sizeof r);
    return 0;
}

int tusk_get_fcf_info(uint32_t handle, void* area, uint32_t cursor) {
    ++src.calls;
    if (!ours(handle)) return kBadHandleStatus;
    auto& f = *static_cast<fcf_info*>(area);
    const bool exhausted = src.left == 0;
    if (const int s = status()) return s;
    f.fcf_index = index_cursor(cursor, kFcf);
    if (exhausted) return 0;
    std::memcpy(f.fabric_name, wwn(next_byte()), 8);
    f.vlan_id = next_byte();
    f.max_frame_size = static_cast<uint16_t>(next_byte() << 4);
    patch(&f, sizeof f);
    return 0;
}

int tusk_list_npiv_port(uint32_t handle, void* area, uint32_t size) {
    ++src.calls;
    if (!ours(handle)) return kBadHandleStatus;
    if (size < sizeof(npiv_list)) return 22;
    if (const int s = status()) return s;
    auto& list = *static_cast<npiv_list*>(area);
    list.count = count_choice();
    for (std::size_t i = 0; i < NPIV_LIST_MAX && i < list.count && src.left; ++i)
        std::memcpy(list.entry[i].wwpn, wwn(next_byte()), 8);
    patch(&list, sizeof list);
    return 0;
}

int tusk_create_npiv_port(uint32_t handle, void* area) {
    ++src.calls;
    if (!ours(handle)) return kBadHandleStatus;
    const int s = status();
    if (s != 0 && next_byte() & 1) static_cast<npiv_req*>(area)->status = NPIV_REQ_REFUSED;
    return s;
}

int tusk_delete_npiv_port(uint32_t handle, void* area) { return tusk_create_npiv_port(handle, area); }

}  // extern "C"
