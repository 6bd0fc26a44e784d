// The i-PI message layer against a minimal server in the test (a UNIX socket and
// a thread): padded words, numbers in the machine's byte order as numpy packs
// them, messages that arrive a byte at a time, a connection closed between and
// inside messages, a silent server and an absent one.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "parallel/ipi_module.hpp"
#include "test_support.hpp"

#include <chrono>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace lyrt;

// A listening UNIX socket at /tmp/ipi_<name>, and its one accepted connection.
struct test_server {
    int listen_fd = -1, fd = -1;
    std::string path;
    explicit test_server(const std::string& name) : path(ipi_unix_path(name)) {
        unlink(path.c_str());
        listen_fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        std::strncpy(sa.sun_path, path.c_str(), sizeof(sa.sun_path) - 1);
        EXPECT_EQ(bind(listen_fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
        EXPECT_EQ(listen(listen_fd, 1), 0);
    }
    ~test_server() {
        if (fd >= 0) close(fd);
        close(listen_fd);
        unlink(path.c_str());
    }
    void accept_one() { fd = accept(listen_fd, nullptr, nullptr); }
    // Sends bytes one at a time with pauses: the client must gather them.
    void trickle(const std::string& bytes) {
        for (const char c : bytes) {
            ASSERT_EQ(send(fd, &c, 1, 0), 1);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    std::string read_n(std::size_t n) {
        std::string s(n, '\0');
        std::size_t got = 0;
        while (got < n) {
            const ssize_t r = recv(fd, s.data() + got, n - got, 0);
            if (r <= 0) break;
            got += static_cast<std::size_t>(r);
        }
        return s.substr(0, got);
    }
};

std::string name_of(const char* what) {
    return "lyrt_test_" + std::to_string(getpid()) + "_" + what;
}

class IpiLink : public lyrt_test::program_test {
  protected:
    // Whether the error report holds text; then fresh report files for the next stop.
    bool reported(const std::string& text) {
        const bool found = lyrt_test::read_text(dir / "ERRLYRT").find(text) != std::string::npos;
        io_reset();
        trace_reset();
        open_units();
        return found;
    }
};

TEST_F(IpiLink, MessagesNumbersAndPartialReads) {
    test_server server(name_of("msg"));
    // Little-endian packing of numpy's '<i4' and '<f8': 7 and 1.5.
    const std::string seven("\x07\x00\x00\x00", 4), one_half("\x00\x00\x00\x00\x00\x00\xf8\x3f", 8);
    std::string from_client;
    std::thread t([&] {
        server.accept_one();
        server.trickle(std::string("STATUS      ") + "POSDATA     " + seven + one_half);
        from_client = server.read_n(12 + 4 + 8);
        close(server.fd); // between two messages
        server.fd = -1;
    });
    ipi_link_type link;
    link.timeout = 10.0;
    ipi_connect(link, name_of("msg"), 0);
    EXPECT_EQ(ipi_recv_word(link), "STATUS");
    EXPECT_EQ(ipi_recv_word(link), "POSDATA");
    EXPECT_EQ(ipi_recv_int(link), 7);
    double x = 0.0;
    ipi_recv_bytes(link, &x, sizeof(x));
    EXPECT_EQ(x, 1.5);
    ipi_send_word(link, "FORCEREADY");
    ipi_send_int(link, 7);
    ipi_send_bytes(link, &x, sizeof(x));
    EXPECT_EQ(ipi_recv_word(link), "");
    EXPECT_TRUE(link.closed);
    t.join();
    EXPECT_EQ(from_client, "FORCEREADY  " + seven + one_half);
    ipi_close(link);
}

// A connection closed inside a message, a server that says nothing, and no server
// at all end the run with their messages, each within its timeout.
TEST_F(IpiLink, BrokenSilentAndAbsentServersStopTheRun) {
    {
        test_server server(name_of("cut"));
        std::thread t([&] {
            server.accept_one();
            server.trickle("POSDA");
            close(server.fd);
            server.fd = -1;
        });
        ipi_link_type link;
        link.timeout = 10.0;
        ipi_connect(link, name_of("cut"), 0);
        EXPECT_THROW(ipi_recv_word(link), fatal_stop);
        EXPECT_TRUE(reported("was closed by the server inside a message"));
        t.join();
        ipi_close(link);
    }
    {
        test_server server(name_of("silent"));
        std::thread t([&] { server.accept_one(); });
        ipi_link_type link;
        link.timeout = 0.3;
        ipi_connect(link, name_of("silent"), 0);
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_THROW(ipi_recv_word(link), fatal_stop);
        const double waited =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        EXPECT_GT(waited, 0.25);
        EXPECT_LT(waited, 3.0);
        EXPECT_TRUE(reported("was silent for 0.3 seconds"));
        t.join();
        ipi_close(link);
    }
    ipi_link_type link;
    link.timeout = 0.3;
    EXPECT_THROW(ipi_connect(link, name_of("nobody"), 0), fatal_stop);
    EXPECT_TRUE(reported("no driver server answers at /tmp/ipi_"));
}

} // namespace
