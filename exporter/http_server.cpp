#include "http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <set>

#include <microhttpd.h>

#include "web_config.h"

namespace mv::exporter {

using Clock = std::chrono::steady_clock;

// Every open connection, for the request deadline: the reaper shuts down
// the socket of one whose request is overdue, and its connection thread sees
// the end of its stream and closes it. An entry leaves the set (under the
// lock) before its socket is closed, so the reaper never touches a socket
// number that has been given to someone else.
struct ConnState {
    int fd = -1;
    bool receiving = true;  // waiting for (the rest of) a request
    bool cut = false;
    Clock::time_point deadline;
};

struct ConnTable {
    std::mutex mutex;
    std::set<ConnState*> open;
};

struct HttpServer::Daemon {
    HttpServer* owner = nullptr;
    HttpSecurity security;
    PasswordCheck passwords{{}};
    MHD_Daemon* mhd = nullptr;
    explicit Daemon(const HttpSecurity& s) : security(s), passwords(s.users) {}
};

struct HttpDaemonAccess {
    static std::chrono::milliseconds timeout(HttpServer::Daemon* d) { return d->owner->options_.limits.request_timeout; }
    static MHD_Result answer(HttpServer::Daemon* d, MHD_Connection* conn, const char* url, const char* method);
};

namespace {

ConnTable& conn_table() {
    static ConnTable table;
    return table;
}

void log_line(const std::string& prefix, const std::string& text) {
    const std::string line = prefix + text + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void mhd_logger(void* cls, const char* fmt, va_list ap) {
    char text[1024];
    std::vsnprintf(text, sizeof text, fmt, ap);
    std::string s(text);
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    log_line(static_cast<HttpOptions*>(cls)->log_prefix, escape_for_log(s));
}

std::string client_address(MHD_Connection* conn) {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(conn, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (info == nullptr || info->client_addr == nullptr) return "?";
    char text[INET6_ADDRSTRLEN] = "?";
    if (info->client_addr->sa_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(info->client_addr)->sin_addr, text, sizeof text);
    else if (info->client_addr->sa_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(info->client_addr)->sin6_addr, text, sizeof text);
    return text;
}

ConnState* state_of(MHD_Connection* conn) {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(conn, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info != nullptr ? static_cast<ConnState*>(info->socket_context) : nullptr;
}

void set_receiving(MHD_Connection* conn, bool receiving, std::chrono::milliseconds timeout) {
    ConnState* st = state_of(conn);
    if (st == nullptr) return;
    std::lock_guard<std::mutex> lock(conn_table().mutex);
    st->receiving = receiving;
    st->deadline = Clock::now() + timeout;
}

void on_connection(void* cls, MHD_Connection* conn, void** socket_context, MHD_ConnectionNotificationCode code) {
    auto* d = static_cast<HttpServer::Daemon*>(cls);
    ConnTable& table = conn_table();
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        auto* st = new ConnState;
        const MHD_ConnectionInfo* info = MHD_get_connection_info(conn, MHD_CONNECTION_INFO_CONNECTION_FD);
        st->fd = info != nullptr ? info->connect_fd : -1;
        std::lock_guard<std::mutex> lock(table.mutex);
        st->deadline = Clock::now() + HttpDaemonAccess::timeout(d);
        table.open.insert(st);
        *socket_context = st;
    } else if (code == MHD_CONNECTION_NOTIFY_CLOSED && *socket_context != nullptr) {
        auto* st = static_cast<ConnState*>(*socket_context);
        {
            std::lock_guard<std::mutex> lock(table.mutex);
            table.open.erase(st);
        }
        delete st;
        *socket_context = nullptr;
    }
}

void on_completed(void* cls, MHD_Connection* conn, void**, MHD_RequestTerminationCode) {
    set_receiving(conn, true, HttpDaemonAccess::timeout(static_cast<HttpServer::Daemon*>(cls)));
}

MHD_Result collect_header(void* cls, MHD_ValueKind, const char* key, const char* value) {
    auto* headers = static_cast<std::map<std::string, std::string>*>(cls);
    std::string name = key != nullptr ? key : "";
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    (*headers)[name] = value != nullptr ? value : "";
    return MHD_YES;
}

MHD_Result send(MHD_Connection* conn, const HttpSecurity& security, const HttpAnswer& a,
                const std::vector<std::pair<std::string, std::string>>& extra = {}) {
    MHD_Response* r = MHD_create_response_from_buffer(a.body.size(), const_cast<char*>(a.body.data()),
                                                      MHD_RESPMEM_MUST_COPY);
    if (r == nullptr) return MHD_NO;
    MHD_add_response_header(r, "Content-Type", a.content_type.c_str());
    MHD_add_response_header(r, "Cache-Control", "no-store");
    for (const auto& [k, v] : security.headers) MHD_add_response_header(r, k.c_str(), v.c_str());
    for (const auto& [k, v] : extra) MHD_add_response_header(r, k.c_str(), v.c_str());
    const MHD_Result rc = MHD_queue_response(conn, static_cast<unsigned>(a.status), r);
    MHD_destroy_response(r);
    return rc;
}

HttpAnswer plain(int status, const std::string& body) {
    HttpAnswer a;
    a.status = status;
    a.body = body;
    return a;
}

}  // namespace

MHD_Result HttpDaemonAccess::answer(HttpServer::Daemon* d, MHD_Connection* conn, const char* url,
                                    const char* method) {
    HttpServer& server = *d->owner;
    set_receiving(conn, false, server.options_.limits.request_timeout);
    HttpRequest req;
    req.method = method != nullptr ? method : "";
    req.path = url != nullptr ? url : "";
    MHD_get_connection_values(conn, MHD_HEADER_KIND, &collect_header, &req.headers);
    const std::string& prefix = server.options_.log_prefix;
    if (req.method != "GET" && req.method != "HEAD")
        return send(conn, d->security, plain(405, "Method Not Allowed\n"), {{"Allow", "GET, HEAD"}});
    const std::string length = req.header("Content-Length");
    if ((!length.empty() && length.find_first_not_of('0') != std::string::npos) ||
        !req.header("Transfer-Encoding").empty())
        return send(conn, d->security, plain(413, "A request has no body here\n"));
    if (d->passwords.required()) {
        std::string user, password;
        const std::string auth = req.header("Authorization");
        const bool given = parse_basic_auth(auth.empty() ? nullptr : auth.c_str(), user, password);
        if (!given || !d->passwords.check(user, password)) {
            if (server.auth_failure_) server.auth_failure_();
            log_line(prefix, "refused " + escape_for_log(req.method) + " " + escape_for_log(req.path) + " from " +
                                 client_address(conn) + ": " +
                                 (given ? "wrong password for user \"" + escape_for_log(user) + "\""
                                        : std::string("no credentials")));
            return send(conn, d->security, plain(401, "Unauthorized\n"),
                        {{"WWW-Authenticate", "Basic realm=\"" + server.options_.realm + "\""}});
        }
    }
    HttpAnswer a;
    try {
        a = server.handler_(req);
    } catch (const std::exception& e) {
        log_line(prefix, std::string("answering ") + escape_for_log(req.path) + ": " + e.what());
        a = plain(500, "Internal Server Error\n");
    }
    return send(conn, d->security, a);
}

namespace {

MHD_Result on_request(void* cls, MHD_Connection* conn, const char* url, const char* method, const char*,
                      const char*, size_t* upload_size, void** req_cls) {
    // The first call for a request comes once its headers are in; the answer
    // is queued then, so a body is never read.
    if (*req_cls != nullptr) {
        *upload_size = 0;
        return MHD_YES;
    }
    static int marker;
    *req_cls = &marker;
    return HttpDaemonAccess::answer(static_cast<HttpServer::Daemon*>(cls), conn, url, method);
}

// "host:port" (or "[v6]:port", ":port" for every interface) -> a listening
// socket.
int listen_on(const std::string& address) {
    const std::size_t colon = address.rfind(':');
    if (colon == std::string::npos || colon + 1 == address.size())
        throw HttpError("--web.listen-address " + address + ": give host:port (e.g. 127.0.0.1:10847)");
    const std::string port = address.substr(colon + 1);
    if (port.find_first_not_of("0123456789") != std::string::npos || port.size() > 5 || std::stoul(port) > 65535)
        throw HttpError("--web.listen-address " + address + ": the port is not a number from 0 to 65535");
    std::string host = address.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (host == "localhost") host = "127.0.0.1";
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.empty() ? nullptr : host.c_str(), port.c_str(), &hints, &found) != 0 || found == nullptr)
        throw HttpError("--web.listen-address " + address + ": not an address of this host");
    int fd = -1, err = 0;
    for (addrinfo* a = found; a != nullptr && fd < 0; a = a->ai_next) {
        fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
        if (fd < 0) continue;
        const int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (bind(fd, a->ai_addr, a->ai_addrlen) != 0 || listen(fd, 128) != 0) {
            err = errno;
            close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(found);
    if (fd < 0) throw HttpError("cannot listen on " + address + ": " + std::strerror(err));
    return fd;
}

}  // namespace

std::string HttpRequest::header(const std::string& name) const {
    std::string key = name;
    for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const auto it = headers.find(key);
    return it != headers.end() ? it->second : "";
}

std::string escape_for_log(const std::string& text) {
    std::string out;
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '\\' || c == '"') {
            out += '\\';
            out += ch;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c > 0x7e) {
            char esc[5];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        } else {
            out += ch;
        }
    }
    return out;
}

HttpServer::HttpServer(HttpOptions options, HttpHandler handler)
    : options_(std::move(options)), handler_(std::move(handler)) {
    listen_fd_ = listen_on(options_.listen_address);
    sockaddr_storage bound{};
    socklen_t len = sizeof bound;
    if (getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&bound), &len) == 0)
        port_ = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                                  : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
    try {
        daemon_ = start(options_.security, listen_fd_);
    } catch (...) {
        close(listen_fd_);
        throw;
    }
    reaper_ = std::thread([this] { reap(); });
}

HttpServer::~HttpServer() {
    {
        std::lock_guard<std::mutex> lock(reaper_mutex_);
        stopping_ = true;
    }
    reaper_wake_.notify_all();
    reaper_.join();
    std::lock_guard<std::mutex> lock(daemon_mutex_);
    MHD_quiesce_daemon(daemon_->mhd);
    MHD_stop_daemon(daemon_->mhd);
    close(listen_fd_);
}

std::unique_ptr<HttpServer::Daemon> HttpServer::start(const HttpSecurity& security, int listen_fd) {
    auto d = std::make_unique<Daemon>(security);
    d->owner = this;
    const auto timeout_s = static_cast<unsigned>((options_.limits.request_timeout.count() + 999) / 1000);
    std::vector<MHD_OptionItem> opts = {
        {MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(&mhd_logger), &options_},
        {MHD_OPTION_LISTEN_SOCKET, listen_fd, nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, static_cast<intptr_t>(options_.limits.max_connections), nullptr},
        {MHD_OPTION_PER_IP_CONNECTION_LIMIT, static_cast<intptr_t>(options_.limits.max_connections_per_client),
         nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, static_cast<intptr_t>(timeout_s), nullptr},
        {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&on_connection), d.get()},
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&on_completed), d.get()},
    };
    // A thread for each connection. The handler may wait (a scrape waits up
    // to its scraper's timeout for a reading while a driver call hangs), and
    // in an event loop that wait would hold up every other connection the
    // loop serves: the landing page and the other scrapes. Suspending the
    // connection and answering it from elsewhere would keep the loops free
    // too, but then every answer outlives its handler and a reload or stop
    // would have to find and resume the suspended ones; a thread of its own
    // simply returns. What bounds the threads bounds the connections: the
    // limits in all and per client, and the request deadline (the reaper
    // below), so a slow client holds its thread for at most that long.
    // The threads wait with select(), not poll(): only then does the
    // listening thread stop accepting at the connection limit (with poll()
    // it accepts and closes), so that more connections wait in the
    // listening queue. select() takes descriptors below FD_SETSIZE (1024),
    // hence the cap on --web.max-connections (kMaxConnectionsCap).
    unsigned flags = MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_ITC |
                     MHD_USE_ERROR_LOG;
    if (security.tls()) {
        flags |= MHD_USE_TLS;
        opts.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(d->security.cert_pem.c_str())});
        opts.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(d->security.key_pem.c_str())});
        if (!security.tls_priorities.empty())
            opts.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(d->security.tls_priorities.c_str())});
    }
    opts.push_back({MHD_OPTION_END, 0, nullptr});
    d->mhd = MHD_start_daemon(flags, 0, nullptr, nullptr, &on_request, d.get(), MHD_OPTION_ARRAY, opts.data(),
                              MHD_OPTION_END);
    if (d->mhd == nullptr)
        throw HttpError("cannot serve on " + options_.listen_address +
                        (security.tls() ? " with TLS (the certificate, key or TLS settings cannot be used)" : ""));
    return d;
}

void HttpServer::reload(HttpSecurity security) {
    std::unique_ptr<Daemon> old;
    {
        std::lock_guard<std::mutex> lock(daemon_mutex_);
        std::unique_ptr<Daemon> fresh = start(security, listen_fd_);
        MHD_quiesce_daemon(daemon_->mhd);
        old = std::move(daemon_);
        daemon_ = std::move(fresh);
    }
    MHD_stop_daemon(old->mhd);
}

void HttpServer::reap() {
    std::unique_lock<std::mutex> lock(reaper_mutex_);
    while (!stopping_) {
        reaper_wake_.wait_for(lock, std::chrono::milliseconds(100));
        const auto now = Clock::now();
        ConnTable& table = conn_table();
        std::lock_guard<std::mutex> guard(table.mutex);
        for (ConnState* st : table.open) {
            if (!st->receiving || st->cut || now < st->deadline || st->fd < 0) continue;
            st->cut = true;
            shutdown(st->fd, SHUT_RDWR);
        }
    }
}

}  // namespace mv::exporter
