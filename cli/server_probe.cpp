#include "server_probe.hpp"

#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zqcli {

namespace {

constexpr int STEP_TIMEOUT_MS = 5000;
constexpr unsigned FTP_PORT = 21;
constexpr unsigned TFTP_PORT = 69;

class Socket {
  public:
    explicit Socket(int fd) : fd_(fd) {}
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    ~Socket() {
        if (fd_ >= 0) close(fd_);
    }
    int fd() const { return fd_; }

  private:
    int fd_;
};

bool wait_for(int fd, short events) {
    pollfd p{fd, events, 0};
    int n = 0;
    do n = poll(&p, 1, STEP_TIMEOUT_MS);
    while (n < 0 && errno == EINTR);
    return n > 0;
}

// One FTP reply (the last line of a multi-line one decides): its code, or 0
// when the server said nothing in time.
int read_reply(int fd, std::string &pending) {
    for (;;) {
        size_t end = 0;
        while ((end = pending.find('\n')) != std::string::npos) {
            const std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            // "123-..." goes on; "123 ..." ends the reply.
            if (line.size() >= 4 && line[3] == ' ' && line[0] >= '1' && line[0] <= '5' && isdigit(line[1]) &&
                isdigit(line[2]))
                return (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
        }
        if (pending.size() > 8192 || !wait_for(fd, POLLIN)) return 0;
        char buf[512];
        const ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0) return 0;
        pending.append(buf, static_cast<size_t>(n));
    }
}

int command(int fd, std::string &pending, const std::string &line) {
    const std::string text = line + "\r\n";
    if (send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) return 0;
    return read_reply(fd, pending);
}

} // namespace

ServerUrl split_server_url(const std::string &url) {
    ServerUrl s;
    s.tftp = url.rfind("tftp://", 0) == 0;
    size_t start = url.find("//");
    start = start == std::string::npos ? 0 : start + 2;
    if (const size_t at = url.find('@', start); at != std::string::npos) {
        const std::string auth = url.substr(start, at - start);
        const size_t colon = auth.find(':');
        s.user = auth.substr(0, colon);
        if (colon != std::string::npos) s.password = auth.substr(colon + 1);
        start = at + 1;
    }
    const size_t slash = url.find('/', start);
    std::string host_part = url.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    s.path = slash == std::string::npos ? "/" : url.substr(slash);
    s.port = s.tftp ? TFTP_PORT : FTP_PORT;
    if (const size_t colon = host_part.find(':'); colon != std::string::npos) {
        const unsigned long port = strtoul(host_part.c_str() + colon + 1, nullptr, 10);
        if (port > 0 && port <= 65535) s.port = static_cast<unsigned>(port);
        host_part.resize(colon);
    }
    s.host = host_part;
    return s;
}

std::string probe_ftp_failure(const ServerUrl &server) {
    const std::string where = server.host + ":" + std::to_string(server.port);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (getaddrinfo(server.host.c_str(), std::to_string(server.port).c_str(), &hints, &found) != 0 || !found)
        return "the server's name " + server.host + " does not resolve";
    const Socket sock(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    int rc = sock.fd() < 0 ? -1 : connect(sock.fd(), found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);
    if (sock.fd() < 0) return "the server could not be asked (no socket)";
    int error = rc == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
        if (!wait_for(sock.fd(), POLLOUT))
            return "the server " + where + " did not answer within 5 s (timeout): it is down or unreachable";
        socklen_t size = sizeof(error);
        getsockopt(sock.fd(), SOL_SOCKET, SO_ERROR, &error, &size);
    }
    if (error == ECONNREFUSED)
        return "the server " + server.host + " refused the connection: nothing listens on port " +
               std::to_string(server.port);
    if (error == EHOSTUNREACH || error == ENETUNREACH)
        return "the server " + server.host + " is unreachable: no route to it";
    if (error != 0) return "the server " + where + " could not be reached: " + strerror(error);
    if (fcntl(sock.fd(), F_SETFL, 0) != 0) return "the server could not be asked";

    std::string pending;
    const int greeting = read_reply(sock.fd(), pending);
    if (greeting == 0)
        return "the server " + where + " accepted the connection but did not answer within 5 s (timeout)";
    if (greeting != 220)
        return "the server " + where + " refused the session (reply " + std::to_string(greeting) + ")";
    int reply = command(sock.fd(), pending, "USER " + server.user);
    if (reply == 331) reply = command(sock.fd(), pending, "PASS " + server.password);
    if (reply == 0) return "the server " + where + " stopped answering during the login (timeout)";
    if (reply != 230)
        return "the server refused the login of user '" + server.user + "' (reply " + std::to_string(reply) +
               ")";
    reply = command(sock.fd(), pending, "CWD " + server.path);
    command(sock.fd(), pending, "QUIT");
    if (reply == 0) return "the server " + where + " stopped answering after the login (timeout)";
    if (reply / 100 != 2)
        return "the server refused the directory " + server.path + " (missing or not allowed; reply " +
               std::to_string(reply) + ")";
    return "the server took the login and the directory " + server.path +
           " but not the file (no write permission there, or no room)";
}

} // namespace zqcli
