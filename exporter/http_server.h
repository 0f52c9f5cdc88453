// The exporter's HTTP front door, on GNU libmicrohttpd with TLS through
// GnuTLS. It knows nothing of what it serves: a handler gets the method,
// path and request headers of each request and answers with a status, a
// content type and a body.
//
// What it guarantees against hostile clients:
//   - at most `max_connections` connections in all (more wait in the
//     listening queue until one ends) and `max_connections_per_client` from
//     one client address (more are closed at once);
//   - a client has `request_timeout` from connecting (or from the end of its
//     previous answer on a kept-alive connection) to the end of its request,
//     headers and TLS handshake included, and no more: a client that
//     trickles its headers is disconnected when the time is up; an answer
//     that stalls for as long is dropped too;
//   - no request body: GET and HEAD only (405 for other methods), a request
//     that announces a body gets 413, and the connection is closed without
//     reading it;
//   - basic authentication against bcrypt hashes (see PasswordCheck);
//   - every message it logs escapes what came from the client.
// Each connection has a thread of its own (so a handler that waits holds
// up no other connection); only a complete request reaches the handler, and
// a slow client holds its thread no longer than the request deadline.
#ifndef MIRVAK_EXPORTER_HTTP_SERVER_H
#define MIRVAK_EXPORTER_HTTP_SERVER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <string>
#include <utility>
#include <vector>

namespace mv::exporter {

// The most connections there may be at once: each connection's thread
// waits on its socket with select(), which takes descriptors below 1024,
// and the process keeps a few dozen of its own.
constexpr unsigned kMaxConnectionsCap = 960;

struct HttpLimits {
    unsigned max_connections = 256;
    unsigned max_connections_per_client = 16;
    std::chrono::milliseconds request_timeout{10000};
};

// What may change on a reload: TLS, users, extra answer headers.
struct HttpSecurity {
    std::string cert_pem, key_pem;  // both set: serve TLS
    std::string tls_priorities;     // GnuTLS priority string; empty: the library's default
    std::map<std::string, std::string> users;  // user -> bcrypt hash; empty: no authentication
    std::vector<std::pair<std::string, std::string>> headers;  // added to every answer
    bool tls() const { return !cert_pem.empty(); }
};

struct HttpOptions {
    std::string listen_address;  // host:port, port 0 picks a free one
    HttpLimits limits;
    HttpSecurity security;
    std::string realm = "mirvak-hba-exporter";
    std::string log_prefix = "mirvak-hba-exporter: ";
};

struct HttpRequest {
    std::string method, path;
    std::map<std::string, std::string> headers;  // names in lower case
    // The value of a header (name in any case), or "" when absent.
    std::string header(const std::string& name) const;
};

struct HttpAnswer {
    int status = 200;
    std::string content_type = "text/plain; charset=utf-8";
    std::string body;
};

using HttpHandler = std::function<HttpAnswer(const HttpRequest&)>;

struct HttpError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Client text made safe for one log line: printable ASCII stays, a
// backslash and a double quote get a backslash, anything else (line breaks,
// control characters, bytes above 0x7e) becomes \n, \r, \t or \xNN.
std::string escape_for_log(const std::string& text);

class HttpServer {
public:
    // Starts listening; throws HttpError when the address cannot be had or
    // TLS cannot be set up.
    HttpServer(HttpOptions options, HttpHandler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    int port() const { return port_; }
    // Takes new TLS, users and headers; connections open at the time are
    // closed. Throws HttpError (and keeps serving as before) when the new
    // TLS setting cannot be used.
    void reload(HttpSecurity security);
    // Called on every request refused for missing or wrong credentials.
    void on_auth_failure(std::function<void()> fn) { auth_failure_ = std::move(fn); }

    struct Daemon;  // one listening daemon with its settings (http_server.cpp)

private:
    std::unique_ptr<Daemon> start(const HttpSecurity& security, int listen_fd);
    void reap();

    HttpOptions options_;
    HttpHandler handler_;
    std::function<void()> auth_failure_;
    int listen_fd_ = -1;
    int port_ = 0;
    std::mutex daemon_mutex_;
    std::unique_ptr<Daemon> daemon_;
    std::atomic<bool> stopping_{false};
    std::mutex reaper_mutex_;
    std::condition_variable reaper_wake_;
    std::thread reaper_;

    friend struct HttpDaemonAccess;
};

}  // namespace mv::exporter

#endif
