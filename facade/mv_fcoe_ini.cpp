// The facade object: library lifetime and the status mapping.
#include "mirvak/mv_fcoe_ini.h"

#include "driver/entry_lock.h"
#include "facade/request.h"

// Each construction rebuilds the instance map and each destruction releases
// it (no count of live objects): the agent holds one object for its lifetime.
MvFCoEIni::MvFCoEIni() {
    const mv::EntryLock entry_lock;
    mirvak_LoadLibrary();
}

MvFCoEIni::~MvFCoEIni() {
    const mv::EntryLock entry_lock;
    mirvak_FreeLibrary();
}

int MvFCoEIni::MapHBAStatusCodeToErrCode(int status, int kind) { return mv::facade::map_status(status, kind); }

// Does nothing and does not ask the extended interface either; agents call
// it before a round of queries and expect 0.
int MvFCoEIni::RefreshFCoESystem() { return FCOE_OK; }
