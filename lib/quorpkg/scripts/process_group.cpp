#include "quorpkg/scripts/process_group.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
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
        std::string path = "/proc/" + name + "/stat";
        UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd) continue;
        char buffer[512];
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer - 1);
        if (n <= 0) continue;
        std::string stat(buffer, static_cast<size_t>(n));
        // "pid (comm) state ppid pgrp ...": comm may hold anything, so
        // parse from the last parenthesis.
        size_t close = stat.rfind(')');
        if (close == std::string::npos) continue;
        char state = 0;
        int ppid = 0, pgrp = 0;
        if (std::sscanf(stat.c_str() + close + 1, " %c %d %d", &state, &ppid, &pgrp) != 3) continue;
        if (pgrp == pgid && state != 'Z' && state != 'X') return true;
    }
    return false;
}

class SpawnActions {
public:
    SpawnActions() { ::posix_spawn_file_actions_init(&actions_); }
    ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions_); }
    posix_spawn_file_actions_t* get() { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

class SpawnAttributes {
public:
    SpawnAttributes() { ::posix_spawnattr_init(&attr_); }
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&attr_); }
    posix_spawnattr_t* get() { return &attr_; }

private:
    posix_spawnattr_t attr_;
};

std::vector<char*> pointers(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (const auto& s : strings) out.push_back(const_cast<char*>(s.c_str()));
    out.push_back(nullptr);
    return out;
}

}  // namespace

std::optional<ProcessGroup> ProcessGroup::spawn(const SpawnRequest& request, int& error) {
    SpawnActions actions;
    auto* fa = actions.get();
    int rc = ::posix_spawn_file_actions_addopen(fa, 0, "/dev/null", O_RDONLY, 0);
    for (auto [from, to] : {std::pair{request.stdoutFd, 1}, std::pair{request.stderrFd, 2}}) {
        if (rc != 0) break;
        rc = from >= 0 ? ::posix_spawn_file_actions_adddup2(fa, from, to)
                       : ::posix_spawn_file_actions_addopen(fa, to, "/dev/null", O_WRONLY, 0);
    }
    // Descriptors other threads opened without O_CLOEXEC must not leak into
    // the child either.
    if (rc == 0) rc = ::posix_spawn_file_actions_addclosefrom_np(fa, 3);
    if (rc == 0 && !request.workDir.empty())
        rc = ::posix_spawn_file_actions_addchdir_np(fa, request.workDir.c_str());

    SpawnAttributes attributes;
    auto* attr = attributes.get();
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    if (rc == 0) rc = ::posix_spawnattr_setpgroup(attr, 0);
    if (rc == 0) rc = ::posix_spawnattr_setsigmask(attr, &none);
    if (rc == 0) rc = ::posix_spawnattr_setsigdefault(attr, &all);
    if (rc == 0)
        rc = ::posix_spawnattr_setflags(
            attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    if (rc != 0) {
        error = rc;
        return std::nullopt;
    }
    std::vector<char*> argv = pointers(request.argv);
    std::vector<char*> env = pointers(request.env);
    pid_t pid = -1;
    rc = ::posix_spawn(&pid, request.program.c_str(), fa, attr, argv.data(), env.data());
    if (rc != 0) {
        error = rc;
        return std::nullopt;
    }
    return ProcessGroup(pid);
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
    // Members that forked before the kill may have been missed by it; keep
    // killing until none is left alive.
    const auto giveUp = Clock::now() + kKillGrace;
    while (groupHasLiveMember(pgid) && Clock::now() < giveUp) {
        ::kill(-pgid, SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace quor
