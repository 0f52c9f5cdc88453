#include "close_fault.h"

#include <dlfcn.h>

#include <cerrno>
#include <utility>

namespace {
std::function<bool(DIR*)> g_rule;
}  // namespace

void testenv::FailCloseWhen(std::function<bool(DIR*)> rule) { g_rule = std::move(rule); }

extern "C" int closedir(DIR* dir) {
    using Fn = int (*)(DIR*);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "closedir"));
    const bool fail = g_rule && g_rule(dir);
    const int rc = real(dir);
    if (fail) {
        errno = EBADF;
        return -1;
    }
    return rc;
}
