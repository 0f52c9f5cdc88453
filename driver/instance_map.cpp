// The adapter instance map and the small byte and text helpers.
#include "driver/entry_lock.h"
#include "mirvak/instance_map.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "driver/instance_map_internal.h"
#include "driver/walks.h"

adapter_instance* InstanceMap = nullptr;
uint32_t adapCnt = 0;

namespace mv {

namespace {
// Read by the lookups while no map is loaded: the same answers as a freshly
// zeroed map, without touching memory that is not there.
const adapter_instance kEmptyMap[kInstanceMapEntries] = {};
}  // namespace

const adapter_instance* map_entries() { return InstanceMap != nullptr ? InstanceMap : kEmptyMap; }

void format_device_path(char (&out)[64], uint32_t instance) {
    std::snprintf(out, sizeof out, "/dev/%s%u", "tuskstor", instance);
}

bool probe_instance(uint32_t instance, uint32_t* handle_out) {
    const uint32_t handle = open_adapter(instance);
    if (handle == kBadHandle) return false;
    const bool ours = tusk_probe_adapter(handle) == 0;
    // Closed whether or not the probe succeeded.
    close_adapter(handle);
    if (handle_out != nullptr) *handle_out = handle;
    return ours;
}

}  // namespace mv

void getMapping() {
    const mv::EntryLock entry_lock;
    if (InstanceMap == nullptr) return;  // not loaded: nothing to rebuild
    // Entries past the new count are not cleared: they keep what an earlier
    // mapping left in them.
    uint32_t n = 0;
    for (uint32_t i = 0; i < kMaxInstances; ++i) {
        uint32_t handle = 0;
        if (!mv::probe_instance(i, &handle)) continue;
        adapter_instance& e = InstanceMap[n];
        mv::format_device_path(e.name, i);
        e.instance = i;
        e.index = n;
        e.handle = handle;
        n = (n + 1) % 256;
    }
    adapCnt = n;
}

int getActualDeviceInstance(uint32_t index) {
    const mv::EntryLock entry_lock;
    const adapter_instance* map = mv::map_entries();
    for (uint32_t i = 0; i < kMaxInstances; ++i) {
        if (map[i].index == index) return static_cast<int>(map[i].instance);
    }
    return -1;
}

int getActualDeviceInstance_by_adapName(const char* name) {
    const mv::EntryLock entry_lock;
    const adapter_instance* map = mv::map_entries();
    for (uint32_t i = 0; i < kMaxInstances; ++i) {
        char entry[sizeof map[i].name + 1] = {};
        std::memcpy(entry, map[i].name, sizeof map[i].name);
        if (mv_strstr(entry, name) != nullptr) return static_cast<int>(map[i].instance);
    }
    return -1;
}

int getAssignedInstance(const char* name) {
    const mv::EntryLock entry_lock;
    if (name == nullptr) return -1;
    const adapter_instance* map = mv::map_entries();
    for (uint32_t i = 0; i < kMaxInstances; ++i) {
        // Compared over the entry's own length only. Agents rely on the two
        // results of that: an unused entry (empty name) matches any name, so
        // an unknown name gives the first unused entry's index 0; and
        // /dev/tuskstor1 matches /dev/tuskstor12 when it stands earlier.
        const std::size_t len = strnlen(map[i].name, sizeof map[i].name);
        if (std::strncmp(map[i].name, name, len) == 0) return static_cast<int>(map[i].index);
    }
    return -1;
}

const char* mv_strstr(const char* haystack, const char* needle) {
    if (needle == nullptr || *needle == '\0' || haystack == nullptr) return nullptr;
    for (const char* start = haystack; *start != '\0'; ++start) {
        const char* h = start;
        const char* n = needle;
        while (*h != '\0' && *n != '\0' &&
               std::toupper(static_cast<unsigned char>(*h)) == std::toupper(static_cast<unsigned char>(*n))) {
            ++h;
            ++n;
        }
        if (*n == '\0') return start;
    }
    return nullptr;
}

unsigned long charArrayToLong(const unsigned char* bytes) {
    unsigned long v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | bytes[i];
    return v;
}

void ConvertWWNtoString(const unsigned char* bytes, int count, int group, char* buffer) {
    const mv::EntryLock entry_lock;
    // Each byte is written over the start of the buffer, so it ends holding
    // only the last byte's two digits, and the group spaces go to standard
    // output. The target-mapping code compares WWNs through this and relies
    // on it comparing last bytes only.
    for (int k = 1; k <= count; ++k) {
        std::snprintf(buffer, 3, "%02X", bytes[k - 1]);
        if (group != 0 && k % group == 0) std::putchar(' ');
    }
}
