// Running other programs from tests: a command line through the shell or an
// argument vector, with what it prints caught; a free TCP port on
// 127.0.0.1 for a server a test starts, and a GET of what it serves; and
// stopping a started process by its id.
#ifndef MIRVAK_TESTS_RUN_COMMAND_H
#define MIRVAK_TESTS_RUN_COMMAND_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace testenv {

struct CommandResult {
    int status = -1;  // exit status; see each function for the other values
    std::string out;  // what was caught
};

// s in single quotes for the shell, single quotes inside kept.
std::string ShellQuoted(const std::string& s);

// Runs a command line with /bin/sh and catches its standard output (the
// command line itself says where standard error goes). status: the exit
// status, -1 when the shell could not be started or did not exit normally.
CommandResult RunShell(const std::string& command_line);

// Runs argv (the program looked up on PATH) to its end with standard input
// from input_file (/dev/null when empty) and catches standard output and
// standard error together. status: the exit status, 128 + the signal's
// number when a signal ended it, -1 when it could not be started.
CommandResult RunArgv(const std::vector<std::string>& argv, const std::string& input_file = "");

struct HttpAnswer {
    int status = -1;  // the HTTP status; -1 when nothing or no HTTP answer came
    std::string head, body;  // body with any chunked transfer undone
};

// One GET of path from 127.0.0.1:port on a fresh connection
// ("Connection: close"), extra_headers (each ending in CRLF) added, each
// read limited to timeout_s seconds.
HttpAnswer HttpGet(int port, const std::string& path, const std::string& extra_headers = "", int timeout_s = 20);

// A TCP port on 127.0.0.1 that is free now; -1 when none could be had.
int FreePort();

// Starts argv (looked up on PATH) in the background with standard input
// from /dev/null and standard output and error into log_file; env entries
// ("NAME=value") are added to this process's environment, replacing a
// variable of the same name. Returns its id, -1 when it could not start.
pid_t StartProcess(const std::vector<std::string>& argv, const std::string& log_file,
                   const std::vector<std::string>& env = {});

// Stops a process this test started, by its id: TERM, up to 10 s, then
// KILL; reaps it.
void StopProcess(pid_t pid);

}  // namespace testenv

#endif
