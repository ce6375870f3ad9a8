// Socket set-up of the host layer: loopback pairs, outgoing connections with their address and
// service rules, and the master's passive socket.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "database/host_messaging.h"
#include "database/host_internal.h"
#include "runtime/modules.h"
#include "runtime/msg.h"

namespace {

const char* error_text(int code)
{
    static thread_local char text[128];
    return strerror_r(code, text, sizeof text);
}

bool set_blocking(int socket, bool blocking)
{
    int flags = fcntl(socket, F_GETFL, 0);
    if (flags < 0)
        return false;
    flags = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
    return fcntl(socket, F_SETFL, flags) == 0;
}

void close_reporting(int socket)
{
    if (socket >= 0 && close(socket) != 0)
        msg_error("failed to close socket - %s", error_text(errno));
}

// The port of a service: a number, or a name from the services database; -1 if neither.
int service_port(const char* service)
{
    char* end = nullptr;
    long number = std::strtol(service, &end, 10);
    if (end != service && *end == '\0')
        return number > 0 && number < 65536 ? int(number) : -1;
    servent* entry = getservbyname(service, "tcp");
    return entry ? int(ntohs(uint16_t(entry->s_port))) : -1;
}

// The service of a connect text without a port, by the lookup order of the host layer.
int default_port()
{
    for (const char* variable : {"QV_QVR3_SERVICE", "QV_QVR_SERVICE"}) {
        const char* value = std::getenv(variable);
        if (!value || !*value)
            continue;
        int port = service_port(value);
        if (port < 0) {
            msg_error("%s/tcp: not a service (check /etc/services)", value);
            return -1;
        }
        msg_info("using inet service %s/%d", value, port);
        return port;
    }
    for (const char* name : {"qv-qvr3", "qv-qvr"}) {
        int port = service_port(name);
        if (port > 0) {
            msg_info("using inet service %s/%d", name, port);
            return port;
        }
    }
    msg_info("using fallback inet service %d", QV_MSG_FALLBACK_SERVICE);
    return QV_MSG_FALLBACK_SERVICE;
}

}  // namespace

namespace qv_msg_detail {

bool socket_options(int socket)
{
    int on = 1;
    bool good = true;
    if (setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
        msg_error("failed to set TCP_NODELAY on socket - %s", error_text(errno));
        good = false;
    }
    if (setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0) {
        msg_error("failed to set SO_KEEPALIVE on socket - %s", error_text(errno));
        good = false;
    }
    // A data window (eight framed pieces, 11,264 bytes) and the messages around it must go out
    // in one write without waiting for acknowledgements: the system's first send buffer is 16 KB
    // and grows only under sustained traffic. Explicit sizes also stop the buffers shrinking.
    // Not being able to set them is no error: only speed depends on it.
    const int buffer_bytes = int(QV_MSG_SOCKET_BUFFER);
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &buffer_bytes, sizeof buffer_bytes);
    setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &buffer_bytes, sizeof buffer_bytes);
    return good;
}

bool parse_host_port(const char* text, std::string* host, std::string* port, bool* ipv6)
{
    std::string all = text ? text : "";
    *ipv6 = false;
    port->clear();
    if (!all.empty() && all[0] == '[') {
        size_t close = all.find(']');
        if (close == std::string::npos || close == 1)
            return false;
        *host = all.substr(1, close - 1);
        *ipv6 = true;
        if (close + 1 == all.size())
            return true;
        if (all[close + 1] != ':' || close + 2 == all.size())
            return false;
        *port = all.substr(close + 2);
        return port->find(':') == std::string::npos;
    }
    size_t colon = all.rfind(':');
    if (colon == std::string::npos) {
        *host = all;
        return !host->empty();
    }
    *host = all.substr(0, colon);
    *port = all.substr(colon + 1);
    return !host->empty() && !port->empty();
}

}  // namespace qv_msg_detail

using namespace qv_msg_detail;

int qv_msg_socketpair(int sockets[2])
{
    Module_scope scope(MOD_MSG);
    sockets[0] = sockets[1] = -1;
    int passive = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (passive < 0) {
        msg_error("failed to create passive loopback socket - %s", error_text(errno));
        return 0;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (bind(passive, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        msg_error("failed to bind passive loopback socket - %s", error_text(errno));
        close_reporting(passive);
        return 0;
    }
    if (listen(passive, 1) != 0) {
        msg_error("socketpair: listen call failed - %s", error_text(errno));
        close_reporting(passive);
        return 0;
    }
    socklen_t length = sizeof address;
    if (getsockname(passive, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        msg_error("socketpair: failed to get local address information - %s", error_text(errno));
        close_reporting(passive);
        return 0;
    }
    int active = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (active < 0) {
        msg_error("failed to create active loopback socket - %s", error_text(errno));
        close_reporting(passive);
        return 0;
    }
    if (!set_blocking(active, false)) {
        msg_error("failed to switch active loopback socket to non-blocked mode");
        close_reporting(active);
        close_reporting(passive);
        return 0;
    }
    if (connect(active, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 && errno != EINPROGRESS) {
        msg_error("failed to connect active loopback socket - %s", error_text(errno));
        close_reporting(active);
        close_reporting(passive);
        return 0;
    }
    int accepted = accept4(passive, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted < 0) {
        msg_error("qv_msg_socketpair: accept failed");
        close_reporting(active);
        close_reporting(passive);
        return 0;
    }
    set_blocking(active, true);
    close_reporting(passive);
    sockets[0] = active;
    sockets[1] = accepted;
    return 1;
}

int qv_msg_connect(const char* host_port)
{
    Module_scope scope(MOD_MSG);
    const char* text = host_port ? host_port : "";
    if (text[0] != '[') {
        const char* first = std::strchr(text, ':');
        if (first && std::strchr(first + 1, ':')) {
            msg_error_n(446, "qv_msg_connect: more than one ':' detected. IPv6 addresses must be surround by [].");
            return -1;
        }
    }
    std::string host, port;
    bool ipv6 = false;
    if (!parse_host_port(text, &host, &port, &ipv6)) {
        msg_error("qv_msg_connect: failed to parse hostname:port from %s", text);
        return -1;
    }
    int port_number = port.empty() ? default_port() : service_port(port.c_str());
    if (port_number < 0) {
        if (!port.empty())
            msg_error("%s/tcp: not a service (check /etc/services)", port.c_str());
        return -1;
    }

    addrinfo hints{};
    hints.ai_family = ipv6 ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    std::string service = std::to_string(port_number);
    int status = getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
    if (status != 0) {
        msg_error("could not connect to host:port %s - %s (%s)", text, gai_strerror(status), ipv6 ? "IPv6" : "IPv4");
        return -1;
    }
    int result = -1;
    int last_error = 0;
    for (addrinfo* entry = found; entry && result < 0; entry = entry->ai_next) {
        int candidate = socket(entry->ai_family, entry->ai_socktype | SOCK_CLOEXEC, entry->ai_protocol);
        if (candidate < 0) {
            last_error = errno;
            continue;
        }
        if (connect(candidate, entry->ai_addr, entry->ai_addrlen) == 0) {
            result = candidate;
        } else {
            last_error = errno;
            close(candidate);
        }
    }
    freeaddrinfo(found);
    if (result < 0) {
        msg_error("could not connect to host:port %s - %s (%s)", text, error_text(last_error), ipv6 ? "IPv6" : "IPv4");
        return -1;
    }
    socket_options(result);
    return result;
}

int qv_msg_listen(const char* address, int port, int* bound_port)
{
    Module_scope scope(MOD_MSG);
    bool ipv6 = address && std::strchr(address, ':');
    sockaddr_storage storage{};
    socklen_t length;
    if (ipv6) {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(uint16_t(port));
        if (inet_pton(AF_INET6, address, &v6->sin6_addr) != 1) {
            msg_error("qv_msg_listen: bad address %s", address);
            return -1;
        }
        length = sizeof *v6;
    } else {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
        v4->sin_family = AF_INET;
        v4->sin_port = htons(uint16_t(port));
        if (inet_pton(AF_INET, address ? address : "0.0.0.0", &v4->sin_addr) != 1) {
            msg_error("qv_msg_listen: bad address %s", address);
            return -1;
        }
        length = sizeof *v4;
    }
    int passive = socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (passive < 0) {
        msg_error("qv_msg_listen: socket failed - %s", error_text(errno));
        return -1;
    }
    int on = 1;
    setsockopt(passive, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(passive, reinterpret_cast<sockaddr*>(&storage), length) != 0 || listen(passive, 16) != 0) {
        msg_error("qv_msg_listen: cannot listen on %s port %d - %s", address ? address : "*", port, error_text(errno));
        close(passive);
        return -1;
    }
    if (bound_port) {
        length = sizeof storage;
        getsockname(passive, reinterpret_cast<sockaddr*>(&storage), &length);
        *bound_port = storage.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port)
                                                    : ntohs(reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
    }
    return passive;
}
