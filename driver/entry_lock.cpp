// The library's one lock (see entry_lock.h).
#include "driver/entry_lock.h"

#include <pthread.h>

#include <atomic>

namespace mv {

namespace {

// Initialised statically: there before any constructor of the program runs,
// never destroyed while a late caller may still come, and nothing allocated
// (a request whose allocations fail still gets its lock).
pthread_mutex_t g_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

std::atomic<bool> g_enabled{true};

}  // namespace

EntryLock::EntryLock() : held_(g_enabled.load(std::memory_order_relaxed)) {
    if (held_) pthread_mutex_lock(&g_mutex);
}

EntryLock::~EntryLock() {
    if (held_) pthread_mutex_unlock(&g_mutex);
}

void set_entry_lock_enabled_for_tests(bool enabled) { g_enabled.store(enabled, std::memory_order_relaxed); }

}  // namespace mv
