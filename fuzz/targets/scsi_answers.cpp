// SCSI answers: bytes as the answer of INQUIRY (standard data and the VPD
// pages 0x00, 0x80, 0x83), REPORT LUNS and READ CAPACITY, of any length and
// content. The first byte says which; the rest is the answer. Fed to the
// LUID choice of the FCP target mapping (which must leave the 256-byte LUID
// either untouched or written whole, and never read past the answer) and
// to the command-line program's decoders and printers.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "fuzz_support.h"
#include "hba/luid.h"
#include "scsi_decode.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const uint8_t which = data[0];
    // A copy of exactly the answer's length, so that a read past it is seen.
    const std::vector<uint8_t> answer(data + 1, data + size);
    const uint8_t* a = answer.data();
    const std::size_t n = answer.size();
    std::FILE* sink = std::fopen("/dev/null", "w");
    using namespace mv::tool;
    switch (which % 6) {
    case 0: {
        uint8_t luid[mv::kLuidSize];
        std::memset(luid, 0xA5, sizeof luid);
        const bool chosen = mv::choose_luid(a, n, luid);
        if (!chosen) fuzz::check_untouched(luid, sizeof luid, 0xA5, "LUID after a refused page");
        print_vpd(sink, decode_vpd(a, n), 2);
        break;
    }
    case 1: print_inquiry(sink, decode_inquiry(a, n), 2); break;
    case 2: print_vpd(sink, decode_vpd(a, n), 2); break;
    case 3: print_report_luns(sink, decode_report_luns(a, n), 2); break;
    case 4: print_read_capacity(sink, decode_read_capacity16(a, n), 2); break;
    default:
        if (const auto sense = decode_sense(a, n)) print_sense(sink, *sense, 2);
        break;
    }
    std::fclose(sink);
    return 0;
}
