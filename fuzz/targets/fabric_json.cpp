// Fabric description: any text to the simulator's parser. It must answer a
// clear error (sim::FabricError) or a fabric; a fabric, written back as
// JSON and parsed again, must come back equal.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fabric.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    sim::Fabric fabric;
    try {
        fabric = sim::parse_fabric_text(text, "fuzz");
    } catch (const sim::FabricError&) {
        return 0;
    }
    const std::string again = sim::fabric_to_json(fabric).dump();
    if (!(sim::parse_fabric_text(again, "again") == fabric)) std::abort();
    return 0;
}
