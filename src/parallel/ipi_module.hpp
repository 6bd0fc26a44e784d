// The client side of the i-PI socket protocol, by which a server (i-PI, ASE's
// SocketIOCalculator) sends cells and positions and receives energies, forces and
// virials. Messages are 12-byte ASCII words padded with blanks; numbers follow in
// the byte order of the machine (int32, float64), in atomic units (Bohr, Hartree).
// Every read and write waits at most link.timeout seconds; a closed connection, a
// read that times out or a signal end the run (fatal_error) with what happened,
// so that a run never hangs on a server that is gone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace lyrt {

struct ipi_link_type {
    int fd = -1;             // the connected socket
    double timeout = 3600.0; // seconds a read or write may wait
    std::string peer;        // the server's address, for messages
    bool closed = false;     // the server closed the connection between two messages
};

// Connects to host:port (an internet socket), or to the UNIX socket /tmp/ipi_<name>
// (port 0 or below), as i-PI and ASE name them; retries for up to link.timeout
// seconds while nobody listens yet.
void ipi_connect(ipi_link_type& link, const std::string& address, int port);
void ipi_close(ipi_link_type& link);
// The socket path of a UNIX-socket server of that name.
std::string ipi_unix_path(const std::string& name);

// A message word (at most 12 characters) padded to 12 bytes.
void ipi_send_word(ipi_link_type& link, const std::string& word);
// The next word, trailing blanks removed; empty when a stop signal (SIGTERM,
// SIGINT) arrived while waiting for it, or when the server closed the connection
// before it (link.closed: ASE's server ends a session so, without EXIT).
std::string ipi_recv_word(ipi_link_type& link);
void ipi_send_bytes(ipi_link_type& link, const void* data, std::size_t n);
// Exactly n bytes, however the stream splits them.
void ipi_recv_bytes(ipi_link_type& link, void* data, std::size_t n);
std::int32_t ipi_recv_int(ipi_link_type& link);
void ipi_send_int(ipi_link_type& link, std::int32_t x);

// Units of the protocol as ASE converts them (CODATA 2014), so that a value sent
// and read back by ASE is the value computed.
constexpr double ipi_bohr = 0.5291772105638411;    // Angstrom
constexpr double ipi_hartree = 27.211386024367243; // eV

} // namespace lyrt
