// Simulated SCSI device nodes (see sg_device.cpp): the hooks the path
// redirector's open, ioctl and close definitions call first.
#ifndef MIRVAK_SIM_SG_DEVICE_H
#define MIRVAK_SIM_SG_DEVICE_H

namespace sim {
namespace sg {

// The next definitions of open and close after the redirector (libc's or a
// sanitizer's), defined in redirect.cpp.
int real_open(const char* path, int flags);
int real_close(int fd);

// True when path names a device node of the simulated host (ROOT/sim/sg.json
// lists it); *result is then what open returns (a descriptor, or -1 with
// errno set). False: the caller goes on as for any other path.
bool open_device(const char* path, int flags, int* result);

// True when fd is a simulated device node; *result is then what ioctl
// returns (errno set when -1).
bool device_ioctl(int fd, unsigned long request, void* arg, int* result);

// The descriptor is being closed: it no longer stands for a device node.
void forget_descriptor(int fd);

}  // namespace sg
}  // namespace sim

#endif
