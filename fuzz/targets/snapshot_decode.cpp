// Snapshot decoder: any bytes to decode_snapshot, and the decoded tree to
// snapshot_text, the overview and the topology graph. The decoder must
// answer a tree or a DecodeError whose offset lies within the stream;
// nothing else may escape. The custom mutator works on real snapshots
// (fuzz/corpus/snapshot_decode): besides
// libFuzzer's own byte mutations it writes counts (0, 1, large, off by
// one) as 32-bit words anywhere, cuts the stream, and removes or repeats
// whole records of the stream's record sizes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>

#include "mirvak/snapshot_records.h"
#include "overview.h"
#include "snapshot_decode.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    try {
        const nlohmann::json tree = mv::tool::decode_snapshot(data, size);
        (void)mv::tool::snapshot_text(tree);
        (void)mv::tool::overview_text(tree);
        (void)mv::tool::topology_dot(tree);
    } catch (const mv::tool::DecodeError& e) {
        if (e.offset > size) std::abort();
    }
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned int seed) {
    using namespace mv::snapshot;
    std::minstd_rand rng(seed);
    static const std::size_t kRecords[] = {sizeof(adapter_record), sizeof(port_record), sizeof(remote_record),
                                           sizeof(lun_record)};
    switch (rng() % 5) {
    case 0:
        if (size >= 4) {
            const std::size_t at = rng() % (size - 3);
            uint32_t old;
            std::memcpy(&old, data + at, 4);
            const uint32_t values[] = {0, 1, 2, 3, old + 1, old - 1, 0x7FFFFFFFu, 0xFFFFFFFFu, 0x10000u, 128};
            const uint32_t v = values[rng() % 10];
            std::memcpy(data + at, &v, 4);
            return size;
        }
        break;
    case 1:
        if (size > 0) return rng() % size;
        break;
    case 2: {
        const std::size_t rec = kRecords[rng() % 4];
        if (size > rec + 4) {
            const std::size_t at = 4 + rng() % (size - rec - 4 + 1);
            std::memmove(data + at, data + at + rec, size - at - rec);
            return size - rec;
        }
        break;
    }
    case 3: {
        const std::size_t rec = kRecords[rng() % 4];
        if (size > rec + 4 && size + rec <= max_size) {
            const std::size_t at = 4 + rng() % (size - rec - 4 + 1);
            std::memmove(data + at + rec, data + at, size - at);
            return size + rec;
        }
        break;
    }
    default:
        break;
    }
    return LLVMFuzzerMutate(data, size, max_size);
}
