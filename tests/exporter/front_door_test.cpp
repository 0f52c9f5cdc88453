// The exporter's front door against hostile and careless clients: slow
// headers and trickled bodies, connection limits, the request deadline,
// methods and bodies, the web configuration's errors and its reload on
// SIGHUP, TLS versions, answer headers, what the log says about a client,
// the TLS library the program links, and the systemd unit's exposure.
// Every server listens on 127.0.0.1 (attackers connect from other loopback
// addresses); every loop is bounded in count and time; every process
// started is stopped by its id.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "mirvak/mv_fcoe_ini.h"
#include "exporter_fixture.h"
#include "run_command.h"
#include "server.h"
#include "web_config.h"

namespace {

using Clock = std::chrono::steady_clock;
using mv::exporter::Server;
using mv::exporter::ServerOptions;
using namespace std::chrono_literals;

using exporter_test::bcrypt_hash;
using exporter_test::slurp;
using exporter_test::write_file;

std::string base64(const std::string& in) {
    static const char* k = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t i = 0; i < in.size(); i += 3) {
        unsigned v = static_cast<unsigned char>(in[i]) << 16;
        if (i + 1 < in.size()) v |= static_cast<unsigned char>(in[i + 1]) << 8;
        if (i + 2 < in.size()) v |= static_cast<unsigned char>(in[i + 2]);
        out += k[(v >> 18) & 63];
        out += k[(v >> 12) & 63];
        out += i + 1 < in.size() ? k[(v >> 6) & 63] : '=';
        out += i + 2 < in.size() ? k[v & 63] : '=';
    }
    return out;
}

// A connection to 127.0.0.1:port from the loopback address `from`; -1 when
// it cannot be had. Non-blocking once connected.
int connect_from(const std::string& from, int port) {
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) return -1;
    sockaddr_in src{};
    src.sin_family = AF_INET;
    inet_pton(AF_INET, from.c_str(), &src.sin_addr);
    sockaddr_in dst{};
    dst.sin_family = AF_INET;
    dst.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    dst.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(s, reinterpret_cast<sockaddr*>(&src), sizeof src) != 0 ||
        connect(s, reinterpret_cast<sockaddr*>(&dst), sizeof dst) != 0) {
        close(s);
        return -1;
    }
    fcntl(s, F_SETFL, fcntl(s, F_GETFL) | O_NONBLOCK);
    return s;
}

void send_text(int fd, const std::string& text) {
    if (send(fd, text.data(), text.size(), MSG_NOSIGNAL) < 0) {
        // A closed connection shows on the next read.
    }
}

// Reads what is there; true once the server has closed the connection.
bool drain(int fd, std::string& got) {
    char buf[4096];
    for (int i = 0; i < 64; ++i) {
        const ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            got.append(buf, static_cast<std::size_t>(n));
            continue;
        }
        return n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    }
    return false;
}

// Waits (at most `limit`) until the server closes each connection; returns
// how many it closed, and what each received in `got`.
int wait_closed(const std::vector<int>& fds, std::vector<std::string>& got, std::chrono::seconds limit) {
    got.assign(fds.size(), "");
    std::vector<bool> closed(fds.size(), false);
    int n = 0;
    const auto end = Clock::now() + limit;
    while (n < static_cast<int>(fds.size()) && Clock::now() < end) {
        for (std::size_t i = 0; i < fds.size(); ++i)
            if (!closed[i] && drain(fds[i], got[i])) {
                closed[i] = true;
                ++n;
            }
        std::this_thread::sleep_for(50ms);
    }
    return n;
}

// One request as raw bytes on a fresh connection; everything the server
// sends until it closes (at most 10 s).
std::string exchange(int port, const std::string& request, bool* closed = nullptr) {
    const int fd = connect_from("127.0.0.1", port);
    if (fd < 0) return "";
    send_text(fd, request);
    std::vector<std::string> got;
    const int n = wait_closed({fd}, got, 10s);
    if (closed != nullptr) *closed = n == 1;
    close(fd);
    return got[0];
}

int status_of(const std::string& answer) {
    return answer.rfind("HTTP/1.1 ", 0) == 0 ? std::atoi(answer.c_str() + 9) : -1;
}

class FrontDoorTest : public exporter_test::ExporterFixture {
protected:
    // A server with the web configuration `yaml` (written to web.yml in the
    // test's folder); returns its port.
    int Serve(const std::string& yaml) {
        write_file(folder() + "/web.yml", yaml);
        ServerOptions o = Options();
        o.web = mv::exporter::read_web_config(folder() + "/web.yml");
        facade_ = std::make_unique<MvFCoEIni>();
        server_ = std::make_unique<Server>(*facade_, o);
        return PortOf(o);
    }
    std::unique_ptr<MvFCoEIni> facade_;
    std::unique_ptr<Server> server_;

    // A self-signed certificate for 127.0.0.1 and its key in dir.
    static void MakeCertificate(const std::string& dir, const std::string& name) {
        const testenv::CommandResult r = testenv::RunArgv(
            {"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
             "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", dir + "/" + name + ".key", "-out",
             dir + "/" + name + ".crt"});
        ASSERT_EQ(r.status, 0) << r.out;
    }

    // The exporter program on the simulated host, its output in log. (In
    // a sanitizer build the preloaded redirector comes before the
    // sanitizer's runtime, which is then told not to mind.)
    pid_t StartExporter(const std::vector<std::string>& args, const std::string& log) {
        std::vector<std::string> argv = {MIRVAK_EXPORTER_PROGRAM};
        argv.insert(argv.end(), args.begin(), args.end());
        const char* asan = std::getenv("ASAN_OPTIONS");
        return testenv::StartProcess(argv, log,
                                     {std::string("LD_PRELOAD=") + MIRVAK_SIMHOST_PRELOAD,
                                      "ASAN_OPTIONS=" + std::string(asan != nullptr ? asan : "") +
                                          ":verify_asan_link_order=0"});
    }

    // Waits (at most 20 s) until the log holds `text`.
    static bool LogSays(const std::string& log, const std::string& text) {
        for (int i = 0; i < 200; ++i) {
            if (slurp(log).find(text) != std::string::npos) return true;
            std::this_thread::sleep_for(100ms);
        }
        return false;
    }
};

TEST_F(FrontDoorTest, SixtySlowHeaderClientsAndEightBodyTricklersLeaveAScrapeItsAnswer) {
    ServerOptions o = Options();
    o.limits.request_timeout = 60s;  // the attackers are not cut while the scrape runs
    MvFCoEIni facade;
    Server server(facade, o);
    const int port = PortOf(o);
    std::vector<int> slow, bodies;
    for (int i = 1; i <= 60; ++i) {
        slow.push_back(connect_from("127.0.1." + std::to_string(i), port));
        send_text(slow.back(), "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n");
    }
    for (int i = 1; i <= 8; ++i) {
        bodies.push_back(connect_from("127.0.2." + std::to_string(i), port));
        send_text(bodies.back(), std::string(i % 2 == 0 ? "POST" : "GET") +
                                     " /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 1073741824\r\n\r\nx");
    }
    for (const int fd : slow) ASSERT_GE(fd, 0);
    for (const int fd : bodies) ASSERT_GE(fd, 0);
    // The attackers trickle a header line or a body byte every 200 ms (at
    // most 30 s) while the scrape runs.
    std::atomic<bool> stop{false};
    std::thread attack([&] {
        const auto end = Clock::now() + 30s;
        while (!stop && Clock::now() < end) {
            for (const int fd : slow) send_text(fd, "X-Slow: 1\r\n");
            for (const int fd : bodies) send_text(fd, "xxxx");
            std::this_thread::sleep_for(200ms);
        }
    });
    std::this_thread::sleep_for(500ms);
    const auto start = Clock::now();
    const testenv::HttpAnswer a = testenv::HttpGet(port, "/metrics", "", 10);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    stop = true;
    attack.join();
    EXPECT_EQ(a.status, 200);
    RecordProperty("scrape_seconds_under_attack", std::to_string(seconds));
    std::fprintf(stderr, "scrape under 60 slow-header and 8 body-trickling connections: %.3f s\n", seconds);
    // Each body trickler got its answer at once and was closed unread.
    std::vector<std::string> got;
    EXPECT_EQ(wait_closed(bodies, got, 10s), 8);
    for (std::size_t i = 0; i < bodies.size(); ++i)
        EXPECT_EQ(status_of(got[i]), i % 2 == 1 ? 405 : 413) << got[i];
    for (const int fd : slow) close(fd);
    for (const int fd : bodies) close(fd);
}

TEST_F(FrontDoorTest, AClientThatTricklesItsHeadersIsCutAtTheRequestDeadline) {
    ServerOptions o = Options();
    o.limits.request_timeout = 2s;
    MvFCoEIni facade;
    Server server(facade, o);
    std::vector<int> fds;
    for (int i = 1; i <= 5; ++i) {
        fds.push_back(connect_from("127.0.4." + std::to_string(i), PortOf(o)));
        ASSERT_GE(fds.back(), 0);
        send_text(fds.back(), "GET /metrics HTTP/1.1\r\n");
    }
    // A header line every 300 ms keeps the connection busy, never idle;
    // the deadline ends it all the same (well within 20 s).
    std::vector<bool> closed(fds.size(), false);
    std::vector<std::string> got(fds.size());
    int n = 0;
    const auto end = Clock::now() + 20s;
    while (n < 5 && Clock::now() < end) {
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if (closed[i]) continue;
            send_text(fds[i], "X-Slow: 1\r\n");
            if (drain(fds[i], got[i])) closed[i] = true, ++n;
        }
        std::this_thread::sleep_for(300ms);
    }
    EXPECT_EQ(n, 5);
    for (const std::string& g : got) EXPECT_EQ(g.find("200 OK"), std::string::npos) << g;
    for (const int fd : fds) close(fd);
    EXPECT_EQ(testenv::HttpGet(PortOf(o), "/metrics").status, 200);
}

TEST_F(FrontDoorTest, OneClientAddressGetsNoMoreThanItsShareOfConnections) {
    ServerOptions o = Options();
    o.limits.max_connections_per_client = 4;
    MvFCoEIni facade;
    Server server(facade, o);
    std::vector<int> held;
    for (int i = 0; i < 4; ++i) held.push_back(connect_from("127.0.3.1", PortOf(o)));
    for (const int fd : held) ASSERT_GE(fd, 0);
    std::this_thread::sleep_for(300ms);
    const int fifth = connect_from("127.0.3.1", PortOf(o));
    ASSERT_GE(fifth, 0);
    std::vector<std::string> got;
    EXPECT_EQ(wait_closed({fifth}, got, 10s), 1) << "the fifth connection from one address is closed";
    // Another address is served.
    EXPECT_EQ(testenv::HttpGet(PortOf(o), "/metrics").status, 200);
    close(fifth);
    for (const int fd : held) close(fd);
}

TEST_F(FrontDoorTest, ConnectionsBeyondTheLimitInAllWaitUntilOneEnds) {
    ServerOptions o = Options();
    o.limits.max_connections = 3;
    MvFCoEIni facade;
    Server server(facade, o);
    std::vector<int> held;
    for (int i = 1; i <= 3; ++i) held.push_back(connect_from("127.0.5." + std::to_string(i), PortOf(o)));
    for (const int fd : held) ASSERT_GE(fd, 0);
    std::this_thread::sleep_for(300ms);
    const int fourth = connect_from("127.0.5.9", PortOf(o));
    ASSERT_GE(fourth, 0);
    send_text(fourth, "GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    std::vector<std::string> got;
    EXPECT_EQ(wait_closed({fourth}, got, 1s), 0);
    EXPECT_EQ(got[0], "") << "no answer while three connections are held";
    close(held[0]);
    std::string answer = got[0];
    EXPECT_EQ(wait_closed({fourth}, got, 10s), 1);
    EXPECT_EQ(status_of(answer + got[0]), 200) << "answered once one of them ended";
    close(fourth);
    for (std::size_t i = 1; i < held.size(); ++i) close(held[i]);
}

TEST_F(FrontDoorTest, MethodsOtherThanGetAndHeadAre405) {
    ServerOptions o = Options();
    MvFCoEIni facade;
    Server server(facade, o);
    for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS"}) {
        const std::string a = exchange(PortOf(o), std::string(method) + " /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
        EXPECT_EQ(status_of(a), 405) << method << ": " << a;
        EXPECT_NE(a.find("Allow: GET, HEAD\r\n"), std::string::npos) << a;
    }
    const std::string head = exchange(PortOf(o), "HEAD /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(status_of(head), 200);
    EXPECT_EQ(head.substr(head.find("\r\n\r\n") + 4), "") << "HEAD has no body";
}

TEST_F(FrontDoorTest, ARequestThatAnnouncesABodyGets413AndIsClosedUnread) {
    ServerOptions o = Options();
    MvFCoEIni facade;
    Server server(facade, o);
    for (const char* announce : {"Content-Length: 100\r\n", "Transfer-Encoding: chunked\r\n"}) {
        bool closed = false;
        const std::string a =
            exchange(PortOf(o), std::string("GET /metrics HTTP/1.1\r\nHost: x\r\n") + announce + "\r\n", &closed);
        EXPECT_EQ(status_of(a), 413) << announce << a;
        EXPECT_TRUE(closed) << announce;
    }
    EXPECT_EQ(status_of(exchange(PortOf(o), "GET / HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\nConnection: close\r\n\r\n")),
              200);
    EXPECT_EQ(server.readings(), 0u) << "no refused request reads the system";
}

TEST_F(FrontDoorTest, EachMalformedWebConfigurationIsRefusedWithFileLineAndProblem) {
    const std::string dir = folder();
    MakeCertificate(dir, "a");
    MakeCertificate(dir, "b");
    const std::string f = dir + "/web.yml";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"unknown_key: 1\n", f + ":1: unknown_key is not supported"},
        {"basic_auth_users:\n  alice: plaintext\n", f + ":2: basic_auth_users.alice is not a bcrypt hash"},
        {"tls_server_config:\n  cert_file: a.crt\n  key_file: a.key\n  client_ca_file: ca.crt\n",
         f + ":4: tls_server_config.client_ca_file is not supported"},
        {"tls_server_config:\n  cert_file: a.crt\n", f + ":2: tls_server_config needs both cert_file and key_file"},
        {"tls_server_config:\n  cert_file: a.crt\n  key_file: a.key\n  min_version: TLS14\n",
         f + ":4: tls_server_config.min_version: TLS14 is not one of TLS10, TLS11, TLS12, TLS13"},
        {"tls_server_config:\n  cert_file: a.crt\n  key_file: a.key\n  cipher_suites:\n    - TLS_NULL_WITH_NULL\n",
         f + ":5: tls_server_config.cipher_suites: TLS_NULL_WITH_NULL is not a cipher suite this exporter offers"},
        {"http_server_config:\n  headers:\n    Set-Cookie: a=b\n",
         f + ":3: http_server_config.headers: Set-Cookie is not a header this exporter may add"},
        {"http_server_config:\n  readtimeout: 5\n", f + ":2: http_server_config.readtimeout is not supported"},
        {"tls_server_config:\n  cert_file: missing.crt\n  key_file: a.key\n",
         f + ":2: tls_server_config.cert_file " + dir + "/missing.crt: cannot be read (No such file or directory)"},
        {"tls_server_config:\n  cert_file: a.crt\n  key_file: missing.key\n",
         f + ":3: tls_server_config.key_file " + dir + "/missing.key: cannot be read (No such file or directory)"},
        {"tls_server_config:\n  cert_file: a.crt\n  key_file: b.key\n",
         f + ":3: tls_server_config.key_file " + dir + "/b.key with cert_file " + dir + "/a.crt: "},
        {"basic_auth_users:\n  alice: [1\n", f + ":3: not YAML: "},
    };
    for (const auto& [text, message] : cases) {
        write_file(f, text);
        try {
            mv::exporter::read_web_config(f);
            ADD_FAILURE() << "accepted:\n" << text;
        } catch (const mv::exporter::WebConfigError& e) {
            EXPECT_EQ(std::string(e.what()).substr(0, message.size()), message) << text;
        }
    }
}

TEST_F(FrontDoorTest, TheProgramRefusesABadWebConfigurationWithOneMessageAndStatus2) {
    const std::string f = folder() + "/web.yml";
    write_file(f, "tls_server_config:\n  cert_file: gone.crt\n  key_file: gone.key\n");
    const testenv::CommandResult r = testenv::RunArgv({MIRVAK_EXPORTER_PROGRAM, "--web.config.file", f});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "mirvak-hba-exporter: " + f + ":2: tls_server_config.cert_file " + folder() +
                         "/gone.crt: cannot be read (No such file or directory)\n");
}

TEST_F(FrontDoorTest, SighupReloadsAGoodWebConfigurationAndKeepsTheOldOneForABadOne) {
    const std::string dir = folder();
    const std::string web = dir + "/web.yml", log = dir + "/exporter.log";
    write_file(web, "basic_auth_users:\n  alice: " + bcrypt_hash("one") + "\n");
    const int port = testenv::FreePort();
    const pid_t pid =
        StartExporter({"--web.listen-address=127.0.0.1:" + std::to_string(port), "--web.config.file=" + web}, log);
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(LogSays(log, "listening on")) << slurp(log);
    const std::string alice = "Authorization: Basic " + base64("alice:one") + "\r\n";
    const std::string bob = "Authorization: Basic " + base64("bob:two") + "\r\n";
    EXPECT_EQ(testenv::HttpGet(port, "/", alice).status, 200);
    EXPECT_EQ(testenv::HttpGet(port, "/", bob).status, 401);

    write_file(web, "basic_auth_users:\n  bob: " + bcrypt_hash("two") + "\n");
    kill(pid, SIGHUP);
    EXPECT_TRUE(LogSays(log, "reloaded " + web)) << slurp(log);
    EXPECT_EQ(testenv::HttpGet(port, "/", bob).status, 200);
    EXPECT_EQ(testenv::HttpGet(port, "/", alice).status, 401);

    write_file(web, "basic_auth_users:\n  carol: not-a-hash\n");
    kill(pid, SIGHUP);
    EXPECT_TRUE(LogSays(log, "reload failed, keeping the web configuration in use")) << slurp(log);
    EXPECT_NE(slurp(log).find(web + ":2: basic_auth_users.carol is not a bcrypt hash"), std::string::npos);
    EXPECT_EQ(testenv::HttpGet(port, "/", bob).status, 200);
    testenv::StopProcess(pid);
}

TEST_F(FrontDoorTest, BasicAuthenticationWithoutTlsWarnsAtStart) {
    const std::string dir = folder();
    write_file(dir + "/web.yml", "basic_auth_users:\n  alice: " + bcrypt_hash("one") + "\n");
    const int port = testenv::FreePort();
    const pid_t pid = StartExporter(
        {"--web.listen-address=127.0.0.1:" + std::to_string(port), "--web.config.file=" + dir + "/web.yml"},
        dir + "/exporter.log");
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(LogSays(dir + "/exporter.log", "listening on")) << slurp(dir + "/exporter.log");
    testenv::StopProcess(pid);
    EXPECT_NE(slurp(dir + "/exporter.log")
                  .find("mirvak-hba-exporter: warning: " + dir +
                        "/web.yml: basic_auth_users without tls_server_config: passwords cross the network in clear "
                        "text\n"),
              std::string::npos)
        << slurp(dir + "/exporter.log");
}

TEST_F(FrontDoorTest, TlsMinVersionRefusesOlderClients) {
    const std::string dir = folder();
    MakeCertificate(dir, "server");
    const int port = Serve("tls_server_config:\n  cert_file: server.crt\n  key_file: server.key\n  min_version: TLS13\n");
    const std::string url = "https://127.0.0.1:" + std::to_string(port) + "/";
    const std::vector<std::string> curl = {"curl", "-sS", "-f", "--max-time", "20", "--cacert", dir + "/server.crt",
                                           "-o", "/dev/null"};
    std::vector<std::string> tls13 = curl, tls12 = curl;
    tls13.insert(tls13.end(), {"--tlsv1.3", url});
    tls12.insert(tls12.end(), {"--tlsv1.2", "--tls-max", "1.2", url});
    EXPECT_EQ(testenv::RunArgv(tls13).status, 0);
    EXPECT_NE(testenv::RunArgv(tls12).status, 0);
}

TEST_F(FrontDoorTest, CipherSuitesLimitWhatATls12ClientMayUse) {
    const std::string dir = folder();
    MakeCertificate(dir, "server");
    const int port = Serve("tls_server_config:\n  cert_file: server.crt\n  key_file: server.key\n  max_version: TLS12\n"
                           "  cipher_suites: [TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384]\n");
    const std::string url = "https://127.0.0.1:" + std::to_string(port) + "/";
    auto with = [&](const char* cipher) {
        return testenv::RunArgv({"curl", "-sS", "-f", "--max-time", "20", "--cacert", dir + "/server.crt", "-o",
                                 "/dev/null", "--tls-max", "1.2", "--ciphers", cipher, url})
            .status;
    };
    EXPECT_EQ(with("ECDHE-RSA-AES256-GCM-SHA384"), 0);
    EXPECT_NE(with("ECDHE-RSA-AES128-GCM-SHA256"), 0);
}

TEST_F(FrontDoorTest, ConfiguredHeadersComeWithEveryAnswer) {
    const int port =
        Serve("http_server_config:\n  headers:\n    X-Frame-Options: deny\n    X-Content-Type-Options: nosniff\n");
    for (const char* path : {"/", "/metrics", "/nothing"}) {
        const testenv::HttpAnswer a = testenv::HttpGet(port, path);
        EXPECT_NE(a.head.find("\r\nX-Frame-Options: deny\r\n"), std::string::npos) << path << a.head;
        EXPECT_NE(a.head.find("\r\nX-Content-Type-Options: nosniff\r\n"), std::string::npos) << path << a.head;
    }
}

TEST_F(FrontDoorTest, AUserNameWithALineBreakStaysOnOneLogLine) {
    const int port = Serve("basic_auth_users:\n  alice: " + bcrypt_hash("one") + "\n");
    const std::string forged = "eve\nmirvak-hba-exporter \"admin\" logged in\r";
    const std::string log = testenv::CaptureErr([&] {
        EXPECT_EQ(testenv::HttpGet(port, "/metrics", "Authorization: Basic " + base64(forged + ":pw") + "\r\n")
                      .status,
                  401);
    });
    EXPECT_EQ(log, "mirvak-hba-exporter: refused GET /metrics from 127.0.0.1: wrong password for user "
                   "\"eve\\nmirvak-hba-exporter \\\"admin\\\" logged in\\r\"\n");
}

TEST_F(FrontDoorTest, TheReadmesWebConfigurationIsAcceptedByPromtoolAndTheExporter) {
    const std::string readme = slurp(MIRVAK_README);
    const std::size_t at = readme.find("```yaml\ntls_server_config:");
    ASSERT_NE(at, std::string::npos);
    const std::size_t from = at + 8, end = readme.find("```", from);
    const std::string dir = folder();
    MakeCertificate(dir, "tls");
    write_file(dir + "/web.yml", readme.substr(from, end - from));
    const testenv::CommandResult r = testenv::RunArgv({"promtool", "check", "web-config", dir + "/web.yml"});
    EXPECT_EQ(r.status, 0) << r.out;
    const mv::exporter::WebConfig c = mv::exporter::read_web_config(dir + "/web.yml");
    EXPECT_EQ(c.cert_file, dir + "/tls.crt");
    EXPECT_EQ(c.min_version, "TLS12");
    EXPECT_EQ(c.cipher_suites.size(), 2u);
    EXPECT_EQ(c.headers.size(), 2u);
    EXPECT_EQ(c.users.count("prometheus"), 1u);
}

TEST(ExporterProgram, LinksTheSystemGnuTlsAndNoOtherTlsLibrary) {
    const testenv::CommandResult dyn = testenv::RunArgv({"readelf", "-d", MIRVAK_EXPORTER_PROGRAM});
    ASSERT_EQ(dyn.status, 0) << dyn.out;
    EXPECT_NE(dyn.out.find("Shared library: [libgnutls.so.30]"), std::string::npos) << dyn.out;
    EXPECT_NE(dyn.out.find("Shared library: [libmicrohttpd.so.12]"), std::string::npos) << dyn.out;
    EXPECT_FALSE(std::regex_search(dyn.out, std::regex("lib(ssl|crypto)[.]so"))) << dyn.out;
    const testenv::CommandResult ldd = testenv::RunArgv({"ldd", MIRVAK_EXPORTER_PROGRAM});
    ASSERT_EQ(ldd.status, 0) << ldd.out;
    EXPECT_TRUE(std::regex_search(ldd.out, std::regex("libgnutls[.]so[.]30 => (/usr)?/lib/[^ ]*/libgnutls[.]so[.]30")))
        << ldd.out;
    EXPECT_FALSE(std::regex_search(ldd.out, std::regex("lib(ssl|crypto)[.]so"))) << ldd.out;
}

}  // namespace
