// The host's SCSI view as sysfs publishes it: the small readers every walk
// of the tree uses, and the LUN discovery behind one remote port of one
// local FC port. C++ names (ordinary overloadable functions).
//
// Diagnostics go to standard output; none of these functions keeps state
// between calls.
#ifndef MIRVAK_HOST_VIEW_H
#define MIRVAK_HOST_VIEW_H

#include <cstddef>

#include "mirvak/hba_plugin.h"  // MV_API
#include "mirvak/mgmt_records.h"

// ---- Sysfs reading helpers ----

// "dir" + "/" + "name" in a new malloc'ed string the caller frees. No
// normalisation: a dir ending in "/" gets a second one. Null when an
// argument is null or the allocation fails.
MV_API char* path_cat(const char* dir, const char* name);

// "head" + "tail" in a new malloc'ed string, no separator (callers glue an
// rport entry name onto a prefix ending in "fc_remote_ports:"). Null when an
// argument is null or the allocation fails.
MV_API char* str_cat(const char* head, const char* tail);

// The first word of the file's first line into out, which must hold 256
// bytes; out is left alone when the line holds no word. 0, or -1 (silently)
// when the file cannot be opened.
MV_API int read_string(const char* path, char* out);

// The file's first token parsed as hexadecimal (a leading "0x" accepted).
// 0 on any failure; an open failure prints
// "read_val:: File <path> open failed\n".
MV_API unsigned long read_val(const char* path);

// The first 16 bytes of the file parsed with strtol in this base, stored in
// *out. 0, or -1 when the file cannot be opened (descriptor 0 counts as a
// failure), after printing "read_proc:: File <path> open failed\n" and
// leaving *out alone.
MV_API int read_proc(const char* path, unsigned long* out, int base);

// ---- LUN discovery ----
//
// The LUNs that the SCSI layer attached behind the remote port with WWN
// `remote` (as a number, first WWN byte most significant) of the local port
// with WWN `local`, found under /sys/class/fc_host. Each LUN directory found
// prints "BTL info Bus:port:target:lun -> <name>\n".

// Number of block links ("block:<dev>") of the LUNs found; 0 when none or
// when the tree is missing.
MV_API unsigned long getNumLuns(unsigned long local, unsigned long remote);

// Fills records 0, 1, ... one per LUN directory (a directory with a vendor
// file, whether or not it has a block link), in the order found: vendor
// (cleared, then its first word), hctl, and for a block link device and
// size; the first 8 bytes stay as they were. Size the array with
// getNumLuns(local, remote): records beyond that many are not written.
MV_API void getLuninfo(lun_info* luns, unsigned long local, unsigned long remote);

// As above, writing at most `capacity` records.
MV_API void getLuninfo(lun_info* luns, unsigned long local, unsigned long remote, std::size_t capacity);

// The same walk into a new malloc'ed array of *count zeroed-then-filled
// records, stored in *result; the caller frees it. With no LUN *result gets
// a zero-length allocation and *count 0. When that final allocation fails,
// *result is null and *count keeps its value.
MV_API void getVportLuninfo(lun_info** result, unsigned long local, unsigned long remote, unsigned int* count);

#endif
