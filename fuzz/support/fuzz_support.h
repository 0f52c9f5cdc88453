// What every fuzz target shares: pattern checks, a quiet standard output,
// an empty simulated host, and a sleep that does not wait.
#ifndef MIRVAK_FUZZ_SUPPORT_H
#define MIRVAK_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

void fill(void* p, std::size_t n, uint8_t pattern);
// Aborts (a crash the fuzzer reports) naming `what` when a byte in
// [p, p + n) no longer holds the pattern.
void check_untouched(const void* p, std::size_t n, uint8_t pattern, const char* what);

// The library prints its diagnostics on standard output; a fuzz run sends
// them to /dev/null (libFuzzer reports on standard error).
void quiet_stdout();

// Points the simulated host's redirector at a fresh, empty private folder
// (removed at exit), so that nothing the library reads comes from the
// machine's own /sys, /dev or /etc. Returns the folder.
const std::string& empty_host();

// Sleeps the library asked for since the process started; the fuzz targets
// link a nanosleep that counts them and returns at once.
uint64_t sleeps();

}  // namespace fuzz

#endif
