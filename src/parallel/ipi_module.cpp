#include "parallel/ipi_module.hpp"

#include "base/error_module.hpp"
#include "base/stop_module.hpp"
#include "base/timing_module.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace lyrt {

namespace {

constexpr const char* mod = "ipi_module";

// Seconds as a user wrote them (0.3, 3600).
std::string seconds(double t) {
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%g", t);
    return buf;
}

[[noreturn]] void link_error(const ipi_link_type& link, const std::string& what, const char* proc) {
    fatal_error("the connection to the driver server " + link.peer + " " + what, -1, proc, mod);
}

// Waits until the socket is ready for events (POLLIN or POLLOUT); false when a stop
// signal arrived first. Polls in slices of a second so that a signal is seen
// however the system treats it.
bool wait_ready(ipi_link_type& link, short events, const char* proc) {
    const double start = timeofday();
    for (;;) {
        if (stop_check(timeofday(), start, 0, 0.0) == stop_by_signal) return false;
        const double left = link.timeout - (timeofday() - start);
        if (left <= 0.0)
            link_error(link,
                       "was silent for " + seconds(link.timeout) + " seconds (driver_timeout)",
                       proc);
        pollfd p{link.fd, events, 0};
        const int ms = static_cast<int>(std::min(1000.0, left * 1000.0)) + 1;
        const int r = poll(&p, 1, ms);
        if (r < 0 && errno != EINTR)
            link_error(link, std::string("failed: ") + std::strerror(errno), proc);
        if (r > 0) return true;
    }
}

// Reads n bytes; false (nothing read) when a stop signal came before the first, or,
// at a message boundary (boundary true), when the server closed the connection
// (link.closed set).
bool recv_all(ipi_link_type& link, char* data, std::size_t n, const char* proc, bool boundary) {
    std::size_t got = 0;
    while (got < n) {
        if (!wait_ready(link, POLLIN, proc)) {
            if (got == 0) return false;
            link_error(link, "was left in the middle of a message by a signal", proc);
        }
        const ssize_t r = recv(link.fd, data + got, n - got, 0);
        if (r == 0 && boundary && got == 0) {
            link.closed = true;
            return false;
        }
        if (r == 0) link_error(link, "was closed by the server inside a message", proc);
        if (r < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            link_error(link, std::string("was broken: ") + std::strerror(errno), proc);
        }
        got += static_cast<std::size_t>(r);
    }
    return true;
}

} // namespace

std::string ipi_unix_path(const std::string& name) {
    return "/tmp/ipi_" + name;
}

void ipi_connect(ipi_link_type& link, const std::string& address, int port) {
    const char* proc = "ipi_connect";
    ipi_close(link);
    const bool unix_socket = port <= 0;
    link.peer = unix_socket ? ipi_unix_path(address) : address + ":" + std::to_string(port);
    const double start = timeofday();
    for (;;) {
        int fd = -1;
        if (unix_socket) {
            sockaddr_un sa{};
            sa.sun_family = AF_UNIX;
            const std::string path = ipi_unix_path(address);
            if (path.size() >= sizeof(sa.sun_path))
                fatal_error("driver_address makes a UNIX socket name that is too long: " + path, -1,
                            proc, mod);
            std::memcpy(sa.sun_path, path.c_str(), path.size() + 1);
            fd = socket(AF_UNIX, SOCK_STREAM, 0);
            if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0) {
                link.fd = fd;
                return;
            }
        } else {
            addrinfo hints{}, *found = nullptr;
            hints.ai_family = AF_UNSPEC;
            hints.ai_socktype = SOCK_STREAM;
            const int rc =
                getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
            if (rc != 0)
                fatal_error("driver_address " + address +
                                " is not a host name: " + gai_strerror(rc),
                            -1, proc, mod);
            for (addrinfo* a = found; a != nullptr; a = a->ai_next) {
                fd = socket(a->ai_family, a->ai_socktype, a->ai_protocol);
                if (fd >= 0 && connect(fd, a->ai_addr, a->ai_addrlen) == 0) break;
                if (fd >= 0) close(fd);
                fd = -1;
            }
            freeaddrinfo(found);
            if (fd >= 0) {
                link.fd = fd;
                return;
            }
        }
        if (fd >= 0) close(fd);
        // The server may not listen yet: try again until the timeout.
        if (timeofday() - start > link.timeout ||
            stop_check(timeofday(), start, 0, 0.0) == stop_by_signal)
            fatal_error("no driver server answers at " + link.peer + " (driver_timeout " +
                            seconds(link.timeout) + " s)",
                        -1, proc, mod);
        usleep(100000);
    }
}

void ipi_close(ipi_link_type& link) {
    if (link.fd >= 0) close(link.fd);
    link.fd = -1;
}

void ipi_send_bytes(ipi_link_type& link, const void* data, std::size_t n) {
    const char* proc = "ipi_send_bytes";
    const char* p = static_cast<const char*>(data);
    std::size_t sent = 0;
    while (sent < n) {
        if (!wait_ready(link, POLLOUT, proc))
            link_error(link, "was left in the middle of a message by a signal", proc);
        const ssize_t r = send(link.fd, p + sent, n - sent, MSG_NOSIGNAL);
        if (r < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            link_error(link, std::string("was broken: ") + std::strerror(errno), proc);
        }
        sent += static_cast<std::size_t>(r);
    }
}

void ipi_recv_bytes(ipi_link_type& link, void* data, std::size_t n) {
    if (!recv_all(link, static_cast<char*>(data), n, "ipi_recv_bytes", false))
        link_error(link, "was interrupted by a signal inside a message", "ipi_recv_bytes");
}

void ipi_send_word(ipi_link_type& link, const std::string& word) {
    char buf[12];
    std::memset(buf, ' ', sizeof(buf));
    std::memcpy(buf, word.data(), std::min<std::size_t>(word.size(), sizeof(buf)));
    ipi_send_bytes(link, buf, sizeof(buf));
}

std::string ipi_recv_word(ipi_link_type& link) {
    char buf[12];
    if (!recv_all(link, buf, sizeof(buf), "ipi_recv_word", true)) return "";
    std::string w(buf, sizeof(buf));
    while (!w.empty() && (w.back() == ' ' || w.back() == '\0')) w.pop_back();
    return w;
}

std::int32_t ipi_recv_int(ipi_link_type& link) {
    std::int32_t x = 0;
    ipi_recv_bytes(link, &x, sizeof(x));
    return x;
}

void ipi_send_int(ipi_link_type& link, std::int32_t x) {
    ipi_send_bytes(link, &x, sizeof(x));
}

} // namespace lyrt
