/*
 * Control interface of the simulated driver library (libtuskstor.so built
 * from sim/). Tests, benchmarks and tools use it; the plug-in never does.
 *
 * Where the fabric comes from: at first use the library loads the file named
 * by MIRVAK_SIM_FABRIC, or the embedded default fabric when that is unset.
 * A description that cannot be used is reported on standard error (naming
 * the file and the field) and leaves a fabric with no adapters.
 *
 * Statuses of the operations (negative errno values):
 *   -EBADF  (-9)  the handle is not open
 *   -ENODEV (-19) the handle's adapter is no longer in the fabric
 *   -EFAULT (-14) a null record
 *   -EINVAL (-22) an unknown cursor; a zero virtual-port WWPN; a list buffer
 *                 smaller than its 20-byte head; a by-WWN lookup whose
 *                 third argument is not 1
 *   -ENOENT (-2)  no local node with that WWPN or lnode_id; a list or create
 *                 naming a WWPN that is not a physical port; a delete naming
 *                 a WWPN that is not a virtual port
 *   -EEXIST (-17) create: the WWPN is already a local port of some adapter
 *   -ENOSPC (-28) create: the physical port has max_vports virtual ports
 *   -EIO    (-5)  create/delete: the description file could not be written
 *                 back, or the simulated host under MIRVAK_SIM_ROOT could
 *                 not be written again (the change is undone)
 * plus the adapter's probe_status and its NPIV policy's create_status and
 * delete_status, and the status of an injected fault.
 */
#ifndef MIRVAK_TUSKSIM_H
#define MIRVAK_TUSKSIM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Replace the fabric. Return 0, or -1 with a message in err (NUL-terminated,
 * cut to errlen; err may be NULL). A failed load leaves the previous fabric
 * in place. tusksim_load_text's source names the description in messages; a
 * fabric loaded from text or the default is not written back anywhere, one
 * loaded from a file is written back to it after every NPIV change. Loading
 * replaces the faults in force by those of the description; open handles
 * stay open and answer for the adapter of their instance in the new fabric
 * (-ENODEV when it has none). */
int tusksim_load_text(const char* json, const char* source, char* err, size_t errlen);
int tusksim_load_file(const char* path, char* err, size_t errlen);
int tusksim_load_default(void);
/* Load as at first use: the file named by MIRVAK_SIM_FABRIC, else the
 * default. A description that cannot be used is reported on standard error
 * and leaves a fabric with no adapters; the result is then -1. */
int tusksim_load_env(void);

/* The fabric as it stands now (after NPIV changes), as JSON text. The
 * returned pointer stays valid until the next call into the library. */
const char* tusksim_dump(void);

/* Calls per operation since the last reset ("open_adapter", "tusk_get_hw_info",
 * ...); tusksim_call_total counts all twelve operations. */
uint64_t tusksim_call_count(const char* op);
uint64_t tusksim_call_total(void);
void tusksim_reset_counts(void);

/* The most operations that were in the library at once (running, or waiting
 * for another to finish) since the last tusksim_reset_counts: 1 when every
 * caller serialised its calls, more when two threads entered together. */
uint32_t tusksim_most_in_flight(void);

/* Handles opened and not yet closed. */
uint32_t tusksim_open_handles(void);
/* The handle that the latest successful open_adapter or open_adapter_str
 * gave, whether or not it is still open (0 before the first). Lets a test
 * close a handle that the code under test deliberately left open. */
uint32_t tusksim_last_handle(void);

/* Fault injection: the nth call (from 1, counted from now) of op returns
 * status without doing anything (the record is not touched; open_adapter
 * and open_adapter_str return the status as a handle, so -1 reads as "no
 * adapter"); every != 0 makes every call from the nth on fail. When two
 * faults hit the same call, the one added first decides. Faults given in the
 * description are loaded with it. Returns 0, or -1 for an unknown operation
 * name or an nth of 0. */
int tusksim_add_fault(const char* op, uint32_t nth, int status, int every);
/* A hang: the nth call of op (from 1, counted from now) blocks until the
 * file release_file exists, then does its work as usual (a driver stuck in
 * an ioctl until a firmware reset ends). The driver's lock is not held while
 * it waits, so the control functions keep answering. Returns 0, or -1 for an unknown
 * operation name, an nth of 0 or no file name. */
int tusksim_add_hang(const char* op, uint32_t nth, const char* release_file);
void tusksim_clear_faults(void);

#ifdef __cplusplus
}
#endif

#endif
