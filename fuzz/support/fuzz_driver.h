// A driver library whose every answer comes from the fuzzer's bytes: it
// defines the twelve operations of libtuskstor and is linked into a fuzz
// target in place of the simulated driver library.
//
// Input layout (read by begin()):
//   byte 0      flags: bits 0 and 3-5 all set, an endless chain (see
//               below); bits 1-2 which chain is endless (local nodes,
//               remote nodes, FCFs)
//   bytes 1-4   which of the instances 0..31 have an adapter (bit mask)
// and then the answers, one after the other, in the order the operations
// are called. Each answer begins with a status byte (mostly 0; some values
// give a non-zero status) and goes on with choices for the record's key
// fields (cursor, WWN, state and role words, counts) and a few patches of
// raw bytes anywhere in the record. When the bytes run out every chain
// closes, except the endless one, which goes on for ever with the same
// record: a walk that is not bounded by the plug-in hangs the target.
#ifndef MIRVAK_FUZZ_DRIVER_H
#define MIRVAK_FUZZ_DRIVER_H

#include <cstddef>
#include <cstdint>

namespace fuzzdrv {

// Takes the header and keeps the rest for the answers (the bytes must stay
// alive until end()).
void begin(const uint8_t* data, std::size_t size);
void end();

// Handles and device paths of the adapters the header declares.
bool present(uint32_t instance);

// The argument reader the targets share with the driver: the next byte (0
// when the bytes are used up), and one of the WWNs the driver answers with.
uint8_t next_byte();
uint32_t next_u32();
const uint8_t* wwn(uint8_t choice);

// Driver calls made since begin().
uint64_t calls();

}  // namespace fuzzdrv

#endif
