// One lock for the whole library, taken by every exported function that
// reaches the library's state.
//
// The library's state is the adapter instance map (InstanceMap, adapCnt),
// rebuilt in place by every mirvak_GetAdapterName and replaced or released
// by mirvak_LoadLibrary, mirvak_FreeLibrary and the facade's constructor and
// destructor; besides it, every request talks to the maker's driver library
// and prints its diagnostics. An agent may call the standard face (directly
// or through a front library that serialises nothing), the extended
// interface and the facade from several threads at once, so each of those
// functions opens with
//
//     const mv::EntryLock entry_lock;
//
// and runs whole while holding the one process-wide lock. The lock is
// recursive: a function that calls another exported one (the facade calls
// the standard face and the extended interface, the mapping calls its
// helpers) takes it again on the same thread without waiting. A call
// therefore answers exactly what it answers when made alone between the
// others, and the lines it prints are never split by another thread's.
//
// The driver library: we assume only what a C library that documents no
// thread safety gives, that it must not be entered from two threads at
// once. Every driver operation is made from inside an exported function,
// so under this lock the library never calls the driver from two threads
// at once (nor does it hold a driver handle across calls).
//
// Exported functions that read nothing but their arguments take no lock:
// mirvak_GetVersion, mirvak_RefreshInformation, mirvak_GetPortStatistics,
// mirvak_RefreshFCoESystem, MvFCoEIni::RefreshFCoESystem,
// MvFCoEIni::MapHBAStatusCodeToErrCode, mv_strstr, charArrayToLong, path_cat,
// str_cat, and the registration functions (they only write the caller's
// table).
#ifndef MIRVAK_DRIVER_ENTRY_LOCK_H
#define MIRVAK_DRIVER_ENTRY_LOCK_H

namespace mv {

class EntryLock {
public:
    EntryLock();
    ~EntryLock();
    EntryLock(const EntryLock&) = delete;
    EntryLock& operator=(const EntryLock&) = delete;

private:
    bool held_;
};

// Test-only: with false, EntryLock takes no lock, so that the benchmark can
// time the requests with and without it in one run (single-threaded). Not
// part of the library's interface (not exported); reached only by programs
// built from the library's sources.
void set_entry_lock_enabled_for_tests(bool enabled);

}  // namespace mv

#endif
