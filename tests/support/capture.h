// Test helpers: capture what the process writes to standard output, and wait for a
// condition with a deadline instead of sleeping.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace ecu::tavi::test {

// Redirects file descriptor 1 (standard output) into a temporary file for its lifetime;
// text() returns everything written so far.
class StdoutCapture {
public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;

    // Everything written so far; capturing goes on.
    std::string text();
    // Ends the capture (standard output is restored, so test failures are visible again)
    // and returns everything written.
    std::string finish();

private:
    void restore();

    int m_saved_fd;
    std::string m_path;
};

// Runs a call and returns what it wrote to standard output; assertions belong outside,
// so that their messages reach the test output.
template <typename Call>
std::string log_of(Call&& call) {
    StdoutCapture out;
    call();
    return out.finish();
}

struct ProcessRun {
    int exit_code;       // -1 when the process did not exit normally
    std::string output;  // standard output and error together
};

// Runs a shell command (with a 60 s watchdog) and collects what it printed.
ProcessRun run_command(const std::string& command);

// Polls pred until it is true or the deadline passes; returns its last value.
bool wait_until(const std::function<bool()>& pred,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace ecu::tavi::test
