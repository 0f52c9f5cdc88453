// closedir that a test can make fail.
//
// The definition in close_fault.cpp takes the place of the system's closedir
// in every test program that calls FailCloseWhen (that call brings it in
// from the support library), for the plug-in's code too, the way the path
// redirector does for open and opendir.
#ifndef MIRVAK_TESTS_CLOSE_FAULT_H
#define MIRVAK_TESTS_CLOSE_FAULT_H

#include <dirent.h>

#include <functional>

namespace testenv {

// While a rule is set, closing a directory for which it answers true really
// closes it and then reports a failure (-1, errno EBADF). An empty rule lets
// every close succeed.
void FailCloseWhen(std::function<bool(DIR*)> rule);

}  // namespace testenv

#endif
