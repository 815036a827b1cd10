#include "quorpkg/scripts/process_group.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>

namespace quor {
namespace {

using Clock = std::chrono::steady_clock;

// Output kept from a captured stream; the rest is read and dropped so that
// the child never blocks on a full pipe.
constexpr size_t kCaptureLimit = 64 * 1024;

// How long killGroup waits for the members to die before giving up on
// processes the kernel cannot kill (stuck in uninterruptible sleep).
constexpr auto kKillGrace = std::chrono::seconds(10);

int exitCodeOf(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 255;
}

// Reads what is available on a non-blocking descriptor. False at end of
// file or on error.
bool drain(int fd, std::string* out) {
    char buffer[4096];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
            if (out && out->size() < kCaptureLimit)
                out->append(buffer, std::min(static_cast<size_t>(n), kCaptureLimit - out->size()));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
}

// Whether a process of group `pgid` is still alive (zombies are dead: the
// reaper of an orphan may be slow or absent in a container).
bool groupHasLiveMember(pid_t pgid) {
    if (::access("/proc/self/stat", R_OK) != 0) return ::kill(-pgid, 0) == 0;
    for (const std::string& name : entriesOfType("/proc", S_IFDIR)) {
        if (name[0] < '0' || name[0] > '9') continue;
        std::optional<ProcessState> process = liveProcess(std::stoi(name));
        if (process && process->group == pgid) return true;
    }
    return false;
}

std::vector<char*> pointers(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (const auto& s : strings) out.push_back(const_cast<char*>(s.c_str()));
    out.push_back(nullptr);
    return out;
}

// Puts `from` (or /dev/null when it is negative) on descriptor `to`.
bool placeDescriptor(int from, int to, int nullFlags) {
    if (from < 0) {
        int fd = ::open("/dev/null", nullFlags);
        if (fd < 0) return false;
        if (fd == to) return true;
        from = fd;
    }
    // dup2 onto itself would keep close-on-exec.
    if (from == to) return ::fcntl(to, F_SETFD, 0) == 0;
    return ::dup2(from, to) == to;
}

// Closes every descriptor from 3 up but `keep`.
void closeOthers(int keep) {
    if (::close_range(3, keep - 1, 0) == 0 && ::close_range(keep + 1, ~0U, 0) == 0) return;
    rlimit limit{};
    const rlim_t top = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 1024;
    for (rlim_t fd = 3; fd < top && fd < (1 << 20); ++fd)
        if (static_cast<int>(fd) != keep) ::close(static_cast<int>(fd));
}

// An errno sent on `report` tells the parent that the program never ran.
[[noreturn]] void failChild(int report, int err) {
    ssize_t sent = ::write(report, &err, sizeof err);
    (void)sent;
    ::_exit(127);
}

// What the child runs between fork and exec: system calls only, nothing that
// allocates or locks, since another thread of the parent may have held a
// lock at the fork.
[[noreturn]] void execChild(const SpawnRequest& request, char* const* argv, char* const* env,
                            pid_t parent, int report, int go) {
    auto fail = [report](int err) { failChild(report, err); };
    if (::setpgid(0, 0) != 0) fail(errno);
    // The script dies with the thread that started it: when the process
    // running a change is killed, its script does not go on alone.
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) fail(errno);
    if (::getppid() != parent) ::_exit(127);
    // The parent's word that it is ready for the program to run.
    char byte = 0;
    ssize_t got;
    while (go >= 0 && (got = ::read(go, &byte, 1)) != 1)
        if (got == 0 || errno != EINTR) ::_exit(127);
    struct sigaction defaults {};
    defaults.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) ::sigaction(sig, &defaults, nullptr);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    if (!placeDescriptor(-1, 0, O_RDONLY) || !placeDescriptor(request.stdoutFd, 1, O_WRONLY) ||
        !placeDescriptor(request.stderrFd, 2, O_WRONLY))
        fail(errno);
    // Descriptors other threads opened without O_CLOEXEC must not leak into
    // the child either.
    closeOthers(report);
    if (!request.workDir.empty() && ::chdir(request.workDir.c_str()) != 0) fail(errno);
    ::execve(request.program.c_str(), argv, env);
    failChild(report, errno);
}

}  // namespace

std::optional<ProcessState> liveProcess(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return std::nullopt;
    char buffer[1024];
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer - 1);
    if (n <= 0) return std::nullopt;
    buffer[n] = '\0';
    // "pid (comm) state ppid pgrp ... starttime (the 22nd field)": comm may
    // hold anything, so parse from the last parenthesis.
    const char* close = std::strrchr(buffer, ')');
    char state = 0;
    ProcessState process{};
    if (!close || std::sscanf(close + 1,
                              " %c %*d %d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d "
                              "%*d %*d %llu",
                              &state, &process.group, &process.startTime) != 3)
        return std::nullopt;
    if (state == 'Z' || state == 'X') return std::nullopt;
    return process;
}

std::optional<ProcessGroup> ProcessGroup::spawn(const SpawnRequest& request, int& error) {
    // Everything the child needs is made before the fork.
    std::vector<char*> argv = pointers(request.argv);
    std::vector<char*> env = pointers(request.env);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        error = errno;
        return std::nullopt;
    }
    UniqueFd reportRead(ends[0]), reportWrite(ends[1]);
    // The child places descriptors 0 to 2 before it closes the rest.
    if (reportWrite.get() < 3)
        reportWrite = UniqueFd(::fcntl(reportWrite.get(), F_DUPFD_CLOEXEC, 3));
    if (!reportWrite) {
        error = errno;
        return std::nullopt;
    }
    UniqueFd goRead, goWrite;
    if (request.beforeRun) {
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            error = errno;
            return std::nullopt;
        }
        goRead = UniqueFd(ends[0]);
        goWrite = UniqueFd(ends[1]);
    }
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) {
        error = errno;
        return std::nullopt;
    }
    if (pid == 0)
        execChild(request, argv.data(), env.data(), parent, reportWrite.get(), goRead.get());
    // Set here too, so that the group exists whichever of the two runs first.
    ::setpgid(pid, pid);
    ProcessGroup child(pid);
    reportWrite = UniqueFd();
    if (request.beforeRun) {
        request.beforeRun(pid);
        const char go = 1;
        if (::write(goWrite.get(), &go, 1) != 1) {
            error = errno;
            return std::nullopt;
        }
    }
    // The report closes unread once the program is running.
    int childError = 0;
    ssize_t n;
    while ((n = ::read(reportRead.get(), &childError, sizeof childError)) < 0 && errno == EINTR) {
    }
    if (n == static_cast<ssize_t>(sizeof childError)) {
        error = childError;
        return std::nullopt;  // the group is killed and reaped with `child`
    }
    return child;
}

ProcessGroup::ProcessGroup(ProcessGroup&& other) noexcept : pid_(other.pid_) {
    other.pid_ = -1;
}

ProcessGroup::~ProcessGroup() {
    if (pid_ > 0) killGroup();
}

std::optional<int> ProcessGroup::wait(std::chrono::milliseconds limit, int captureFd,
                                      std::string* captured) {
    if (pid_ <= 0) return std::nullopt;
    if (captureFd >= 0) ::fcntl(captureFd, F_SETFL, ::fcntl(captureFd, F_GETFL) | O_NONBLOCK);
    // A pidfd turns "the child ended" into a readable descriptor that poll
    // can wait on together with the output pipe.
    UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    const auto deadline = Clock::now() + limit;
    bool captureOpen = captureFd >= 0;
    for (;;) {
        int status = 0;
        pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done != 0 && !(done < 0 && errno == EINTR)) {
            pid_ = -1;
            if (captureOpen) drain(captureFd, captured);
            return done > 0 ? exitCodeOf(status) : 255;
        }
        int step = -1;
        if (limit.count() > 0) {
            auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) return std::nullopt;
            step = static_cast<int>(std::min<long long>(left.count(), 60'000));
        }
        // Without a pidfd, poll doubles as the timer of a polling loop.
        if (!pidfd) step = step < 0 ? 20 : std::min(step, 20);
        pollfd fds[2];
        nfds_t count = 0;
        if (pidfd) fds[count++] = {pidfd.get(), POLLIN, 0};
        if (captureOpen) fds[count++] = {captureFd, POLLIN, 0};
        ::poll(fds, count, step);
        if (captureOpen && !drain(captureFd, captured)) captureOpen = false;
    }
}

void ProcessGroup::killGroup() {
    if (pid_ <= 0) return;
    const pid_t pgid = pid_;
    ::kill(-pgid, SIGKILL);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    // Members that forked before the kill may have been missed by it.
    endProcessGroup(pgid);
}

bool endProcessGroup(pid_t pgid) {
    bool found = false;
    const auto giveUp = Clock::now() + kKillGrace;
    while (groupHasLiveMember(pgid) && Clock::now() < giveUp) {
        found = true;
        ::kill(-pgid, SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return found;
}

}  // namespace quor
