#include "support/capture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace ecu::tavi::test {

StdoutCapture::StdoutCapture() {
    std::fflush(stdout);
    char tmpl[] = "/tmp/tavi-stdout.XXXXXX";
    int fd = ::mkstemp(tmpl);
    m_path = tmpl;
    m_saved_fd = ::dup(1);
    ::dup2(fd, 1);
    ::close(fd);
}

StdoutCapture::~StdoutCapture() {
    // A capture that lasts the whole test also swallows gtest's failure messages: hand
    // everything to standard error when the test failed.
    if (m_saved_fd >= 0 && ::testing::Test::HasFailure()) {
        const std::string captured = text();
        restore();
        std::fprintf(stderr, "--- captured standard output ---\n%s--- end ---\n", captured.c_str());
    }
    restore();
    ::unlink(m_path.c_str());
}

void StdoutCapture::restore() {
    if (m_saved_fd >= 0) {
        std::fflush(stdout);
        ::dup2(m_saved_fd, 1);
        ::close(m_saved_fd);
        m_saved_fd = -1;
    }
}

std::string StdoutCapture::finish() {
    std::string result = text();
    restore();
    return result;
}

std::string StdoutCapture::text() {
    std::fflush(stdout);
    std::ifstream in(m_path);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

ProcessRun run_command(const std::string& command) {
    FILE* pipe = ::popen(("timeout 60 " + command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return {-1, "popen failed"};
    }
    std::string output;
    char buffer[4096];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        output.append(buffer, n);
    }
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

bool wait_until(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return pred();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace ecu::tavi::test
