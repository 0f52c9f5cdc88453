#include "run_command.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <thread>

extern char** environ;

namespace testenv {

std::string ShellQuoted(const std::string& s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

CommandResult RunShell(const std::string& command_line) {
    CommandResult r;
    FILE* p = popen(command_line.c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    std::size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

CommandResult RunArgv(const std::vector<std::string>& argv, const std::string& input_file) {
    CommandResult r;
    if (argv.empty()) return r;
    char path[] = "/tmp/mirvak-test-run-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) return r;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, input_file.empty() ? "/dev/null" : input_file.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, fd, 1);
    posix_spawn_file_actions_adddup2(&fa, fd, 2);
    std::vector<char*> args;
    for (const std::string& s : argv) args.push_back(const_cast<char*>(s.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(fd);
    int status = -1;
    if (rc == 0) {
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    std::ifstream in(path, std::ios::binary);
    r.out.assign(std::istreambuf_iterator<char>(in), {});
    unlink(path);
    r.status = rc != 0 ? -1 : (WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    return r;
}

int FreePort() {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (s < 0 || bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        if (s >= 0) close(s);
        return -1;
    }
    close(s);
    return ntohs(a.sin_port);
}

void StopProcess(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    for (int i = 0; i < 100; ++i) {
        if (waitpid(pid, nullptr, WNOHANG) == pid) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

}  // namespace testenv
