// Sysfs readers shared by the host-view sources, with the choice of keeping
// quiet: the LUN walk also runs silently to size a caller's array.
#ifndef MIRVAK_HOST_SYSFS_READ_H
#define MIRVAK_HOST_SYSFS_READ_H

namespace mv {

// read_val and read_proc; with quiet set nothing is printed.
unsigned long read_val_text(const char* path, bool quiet);
int read_proc_text(const char* path, unsigned long* out, int base, bool quiet);

}  // namespace mv

#endif
