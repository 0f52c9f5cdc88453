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
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
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

pid_t StartProcess(const std::vector<std::string>& argv, const std::string& log_file,
                   const std::vector<std::string>& env) {
    std::vector<std::string> entries(env);
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry(*e);
        bool replaced = false;
        for (const std::string& mine : env)
            replaced = replaced || entry.compare(0, entry.find('=') + 1, mine, 0, mine.find('=') + 1) == 0;
        if (!replaced) entries.push_back(entry);
    }
    std::vector<char*> args, envp;
    for (const std::string& s : argv) args.push_back(const_cast<char*>(s.c_str()));
    args.push_back(nullptr);
    for (const std::string& s : entries) envp.push_back(const_cast<char*>(s.c_str()));
    envp.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, log_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&fa);
    return rc == 0 ? pid : -1;
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

HttpAnswer HttpGet(int port, const std::string& path, const std::string& extra_headers, int timeout_s) {
    HttpAnswer a;
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    if (s < 0) return a;
    timeval tv{timeout_s, 0};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(s);
        return a;
    }
    const std::string req =
        "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" + extra_headers + "\r\n";
    send(s, req.data(), req.size(), MSG_NOSIGNAL);
    std::string all;
    char buf[65536];
    for (;;) {
        const ssize_t n = recv(s, buf, sizeof buf, 0);
        if (n <= 0) break;
        all.append(buf, static_cast<std::size_t>(n));
    }
    close(s);
    const std::size_t end = all.find("\r\n\r\n");
    if (end == std::string::npos || all.compare(0, 7, "HTTP/1.") != 0) return a;
    a.status = std::atoi(all.c_str() + 9);
    a.head = all.substr(0, end);
    a.body = all.substr(end + 4);
    if (a.head.find("Transfer-Encoding: chunked") != std::string::npos) {
        std::string body;
        std::size_t at = 0;
        for (int chunks = 0; chunks < 100000; ++chunks) {
            const std::size_t nl = a.body.find("\r\n", at);
            if (nl == std::string::npos) break;
            const std::size_t n = std::strtoul(a.body.c_str() + at, nullptr, 16);
            if (n == 0 || nl + 2 + n > a.body.size()) break;
            body += a.body.substr(nl + 2, n);
            at = nl + 2 + n + 2;
        }
        a.body = body;
    }
    return a;
}

}  // namespace testenv
