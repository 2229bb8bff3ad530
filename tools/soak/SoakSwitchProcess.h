#pragma once

// The switch simulator as a child process: a peer that can be frozen with
// SIGSTOP, which an in-process simulator cannot be. Started with --quiet, so
// its standard output carries only the start line and the counters line it
// prints when it stops.

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace soak {

// The counters the simulator prints when it stops.
struct SwitchCounters {
    std::uint64_t connections = 0; // accepted
    std::uint64_t received = 0;    // frames, link tests excluded
    std::uint64_t sent = 0;
    std::uint64_t dropped = 0;  // answers swallowed on purpose
    std::uint64_t commands = 0; // switch-initiated, asking for an answer
    std::uint64_t answered = 0;
    std::uint64_t unanswered = 0; // lost with their connection
    std::uint64_t unexpected = 0; // answers to no open command
};

// Reads "tavro-switchsim: stopped; connections=1 received=..." into out.
// False unless the line is the stop line and carries every counter.
bool parseSwitchCounters(const std::string& line, SwitchCounters& out);

class SwitchProcess {
public:
    explicit SwitchProcess(std::string program);
    ~SwitchProcess(); // kills a child that is still there
    SwitchProcess(const SwitchProcess&) = delete;
    SwitchProcess& operator=(const SwitchProcess&) = delete;

    // Starts the simulator with args and waits (up to waitMs) for it to
    // listen. The child dies with the thread that started it.
    bool start(const std::vector<std::string>& args, unsigned waitMs, std::string* error);
    bool freeze();   // SIGSTOP
    bool unfreeze(); // SIGCONT
    // Resumes, asks it to stop (SIGTERM), reads its counters and reaps it;
    // false, with the reason, when it does not end cleanly within waitMs.
    bool stop(unsigned waitMs, SwitchCounters* counters, std::string* error);
    // Last resort, from any thread: SIGKILL, no reaping.
    void killNow();
    bool running() const { return pid_.load() > 0; }

private:
    bool readLine(std::string& line, unsigned waitMs);
    int reap(bool kill); // the wait status

    const std::string program_;
    std::atomic<pid_t> pid_{-1};
    int out_ = -1; // the child's standard output
    std::string pending_;
};

} // namespace soak
