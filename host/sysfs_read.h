// Sysfs readers shared by the host-view sources, with the choice of keeping
// quiet: the LUN walk also runs silently to size a caller's array.
#ifndef MIRVAK_HOST_SYSFS_READ_H
#define MIRVAK_HOST_SYSFS_READ_H

namespace mv {

// read_val and read_proc; with quiet set nothing is printed.
unsigned long read_val_text(const char* path, bool quiet);
int read_proc_text(const char* path, unsigned long* out, int base, bool quiet);

// What read_val gives for this file from the open per-request view, without
// a word printed (0 also when no view is open).
unsigned long value_in_view(const char* path);

}  // namespace mv

#endif
