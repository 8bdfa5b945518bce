#include "ecu/tavi/application.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "ecu/tavi/logging/logging.h"
#include "support/capture.h"

namespace ecu::tavi {
namespace {

// Stands in for the service manager: a unix datagram socket with an abstract name that
// NOTIFY_SOCKET points at while the object lives.
class NotifySocket {
public:
    NotifySocket() {
        m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const std::string name = "tavi-notify-" + std::to_string(::getpid());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        // Abstract address: a leading zero byte, no file in the file system.
        std::memcpy(address.sun_path + 1, name.data(), name.size());
        const auto length =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        m_bound = ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) == 0;
        // A notification that never comes fails the test instead of hanging it.
        timeval timeout{10, 0};
        ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        ::setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
    }
    ~NotifySocket() {
        ::unsetenv("NOTIFY_SOCKET");
        ::close(m_fd);
    }

    bool bound() const { return m_bound; }

    std::string receive() {
        char buffer[256];
        const ssize_t n = ::recv(m_fd, buffer, sizeof(buffer), 0);
        return n < 0 ? std::string("<nothing>") : std::string(buffer, static_cast<size_t>(n));
    }

private:
    int m_fd = -1;
    bool m_bound = false;
};

TEST(Application, NotifiesServiceManagerAndLogs) {
    NotifySocket manager;
    ASSERT_TRUE(manager.bound());
    logging::set_log_mode(logging::STDOUT);
    logging::set_log_level(7);
    logging::enable("tavi.platform", true);
    test::StdoutCapture capture;

    application_starting();
    EXPECT_EQ("READY=0", manager.receive());
    application_ready();
    EXPECT_EQ("READY=1", manager.receive());

    EXPECT_EQ(
        "[INFO]: [tavi.platform] Application starting...\n"
        "[INFO]: [tavi.platform] Application ready!\n",
        capture.text());
    // The environment is left as it was, so a later notification still arrives.
    EXPECT_NE(nullptr, std::getenv("NOTIFY_SOCKET"));
}

}  // namespace
}  // namespace ecu::tavi
