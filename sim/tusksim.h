/*
 * Control interface of the simulated driver library (libtuskstor.so built
 * from sim/). Tests, benchmarks and tools use it; the plug-in never does.
 *
 * Where the fabric comes from: at first use the library loads the file named
 * by MIRVAK_SIM_FABRIC, or the embedded default fabric when that is unset.
 * A description that cannot be used is reported on standard error (naming
 * the file and the field) and leaves a fabric with no adapters.
 */
#ifndef MIRVAK_TUSKSIM_H
#define MIRVAK_TUSKSIM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Replace the fabric. Return 0, or -1 with a message in err (NUL-terminated,
 * cut to errlen). A failed load leaves the previous fabric in place.
 * tusksim_load_text's source names the description in messages; a fabric
 * loaded from text is not written back anywhere. */
int tusksim_load_text(const char* json, const char* source, char* err, size_t errlen);
int tusksim_load_file(const char* path, char* err, size_t errlen);
int tusksim_load_default(void);

/* The fabric as it stands now (after NPIV changes), as JSON text. The
 * returned pointer stays valid until the next call into the library. */
const char* tusksim_dump(void);

/* Calls per operation since the last reset ("open_adapter", "tusk_get_hw_info",
 * ...); tusksim_call_total counts all twelve operations. */
uint64_t tusksim_call_count(const char* op);
uint64_t tusksim_call_total(void);
void tusksim_reset_counts(void);

/* Fault injection: the nth call (from 1, counted from now) of op returns
 * status without doing anything; every != 0 makes every call from the nth on
 * fail. Faults given in the description are loaded with it. */
int tusksim_add_fault(const char* op, uint32_t nth, int status, int every);
void tusksim_clear_faults(void);

#ifdef __cplusplus
}
#endif

#endif
