#include "SoakSwitchProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <sstream>
#include <thread>

namespace soak {

namespace {

using Clock = std::chrono::steady_clock;

const char kStartLine[] = "tavro-switchsim: listening on";
const char kStopLine[] = "tavro-switchsim: stopped;";

std::string statusText(int status)
{
    std::ostringstream os;
    if (WIFEXITED(status))
        os << "exit status " << WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        os << "signal " << WTERMSIG(status) << " (" << strsignal(WTERMSIG(status)) << ")";
    else
        os << "status " << status;
    return os.str();
}

// Only async-signal-safe calls: the parent has many threads.
[[noreturn]] void execChild(int out, int in, pid_t parent, char* const* argv, int maxFd)
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    // Dies with the parent's starting thread, and keeps the terminal's
    // Ctrl-C to the parent, which stops it in order.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    setpgid(0, 0);
    if (dup2(in, 0) < 0 || dup2(out, 1) < 0) _exit(127);
        // The library's sockets are not close-on-exec; the child must not hold
        // a copy of any of them.
#ifdef SYS_close_range
    if (syscall(SYS_close_range, 3u, ~0u, 0u) != 0)
#endif
        for (int fd = 3; fd < maxFd; ++fd) close(fd);
    execv(argv[0], argv);
    _exit(127);
}

} // namespace

bool parseSwitchCounters(const std::string& line, SwitchCounters& out)
{
    if (line.compare(0, sizeof kStopLine - 1, kStopLine) != 0) return false;
    std::map<std::string, std::uint64_t*> fields = {
        {"connections", &out.connections}, {"received", &out.received},     {"sent", &out.sent},
        {"dropped", &out.dropped},         {"commands", &out.commands},     {"answered", &out.answered},
        {"unanswered", &out.unanswered},   {"unexpected", &out.unexpected},
    };
    std::istringstream words(line.substr(sizeof kStopLine - 1));
    std::string word;
    std::size_t seen = 0;
    while (words >> word) {
        const auto eq = word.find('=');
        if (eq == std::string::npos) continue;
        auto it = fields.find(word.substr(0, eq));
        if (it == fields.end()) continue;
        const std::string value = word.substr(eq + 1);
        if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos) return false;
        *it->second = std::stoull(value);
        it->second = nullptr;
        ++seen;
    }
    for (const auto& f : fields)
        if (f.second != nullptr) return false;
    return seen == fields.size();
}

SwitchProcess::SwitchProcess(std::string program) : program_(std::move(program)) {}

SwitchProcess::~SwitchProcess()
{
    if (running()) reap(true);
}

bool SwitchProcess::start(const std::vector<std::string>& args, unsigned waitMs, std::string* error)
{
    auto fail = [&](const std::string& what) {
        if (error) *error = what;
        return false;
    };
    if (running()) return fail("the simulator is already running");
    std::vector<std::string> all{program_};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(&a[0]);
    argv.push_back(nullptr);

    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return fail(std::string("pipe: ") + std::strerror(errno));
    const int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (devNull < 0) {
        close(pipeFds[0]);
        close(pipeFds[1]);
        return fail(std::string("/dev/null: ") + std::strerror(errno));
    }
    rlimit lim{};
    const int maxFd = getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < 65536 ? int(lim.rlim_cur) : 65536;
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) execChild(pipeFds[1], devNull, parent, argv.data(), maxFd);
    const int forkErr = errno;
    close(pipeFds[1]);
    close(devNull);
    if (pid < 0) {
        close(pipeFds[0]);
        return fail(std::string("fork: ") + std::strerror(forkErr));
    }
    pid_ = pid;
    out_ = pipeFds[0];
    pending_.clear();

    std::string line;
    while (readLine(line, waitMs)) {
        if (line.compare(0, sizeof kStartLine - 1, kStartLine) == 0) return true;
    }
    const bool ended = out_ < 0;
    const int status = reap(!ended);
    if (ended)
        return fail(program_ + " ended with " + statusText(status) +
                    " before it listened (its error, if any, is above)");
    return fail(program_ + " did not start listening within " + std::to_string(waitMs) + " ms; killed");
}

bool SwitchProcess::freeze()
{
    const pid_t pid = pid_;
    return pid > 0 && kill(pid, SIGSTOP) == 0;
}

bool SwitchProcess::unfreeze()
{
    const pid_t pid = pid_;
    return pid > 0 && kill(pid, SIGCONT) == 0;
}

void SwitchProcess::killNow()
{
    const pid_t pid = pid_;
    if (pid > 0) kill(pid, SIGKILL);
}

bool SwitchProcess::readLine(std::string& line, unsigned waitMs)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(waitMs);
    while (true) {
        const auto nl = pending_.find('\n');
        if (nl != std::string::npos) {
            line = pending_.substr(0, nl);
            pending_.erase(0, nl + 1);
            return true;
        }
        if (out_ < 0) return false;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        pollfd p{out_, POLLIN, 0};
        const int n = poll(&p, 1, int(left));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        char buf[512];
        const ssize_t r = read(out_, buf, sizeof buf);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            close(out_);
            out_ = -1;
            continue; // a last line without its line feed is dropped
        }
        pending_.append(buf, std::size_t(r));
    }
}

int SwitchProcess::reap(bool killFirst)
{
    const pid_t pid = pid_;
    if (pid <= 0) return 0;
    int status = 0;
    // A child that closed its output is given a moment to end by itself.
    const auto deadline = Clock::now() + std::chrono::seconds(killFirst ? 0 : 2);
    pid_t done;
    while ((done = waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (done != pid) {
        kill(pid, SIGKILL);
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    pid_ = -1;
    if (out_ >= 0) close(out_);
    out_ = -1;
    return status;
}

bool SwitchProcess::stop(unsigned waitMs, SwitchCounters* counters, std::string* error)
{
    const pid_t pid = pid_;
    if (pid <= 0) {
        if (error) *error = "the simulator is not running";
        return false;
    }
    kill(pid, SIGCONT);
    kill(pid, SIGTERM);
    const auto deadline = Clock::now() + std::chrono::milliseconds(waitMs);
    auto leftMs = [&] {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        return left > 0 ? unsigned(left) : 0u;
    };
    bool parsed = false;
    std::string line;
    while (!parsed && readLine(line, leftMs())) {
        SwitchCounters c;
        if (parseSwitchCounters(line, c)) {
            parsed = true;
            if (counters) *counters = c;
        }
    }
    int status = 0;
    pid_t done = 0;
    while ((done = waitpid(pid, &status, WNOHANG)) == 0 && leftMs() > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (done != pid) {
        reap(true);
        if (error) *error = "the simulator did not end within " + std::to_string(waitMs) + " ms; killed";
        return false;
    }
    pid_ = -1;
    if (out_ >= 0) close(out_);
    out_ = -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        if (error) *error = "the simulator ended with " + statusText(status);
        return false;
    }
    if (!parsed) {
        if (error) *error = "the simulator ended without its counters line";
        return false;
    }
    return true;
}

} // namespace soak
