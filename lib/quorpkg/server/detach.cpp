#include "quorpkg/server/detach.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>

#include "base/file_util.h"
#include "base/system_root.h"

namespace quor {
namespace {

bool readAll(int fd, void* data, size_t size) {
    auto* bytes = static_cast<char*>(data);
    while (size > 0) {
        ssize_t n = ::read(fd, bytes, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Cuts the worker loose from what it inherited from its caller.
void becomeDaemon() {
    // Paths stay valid after the change of directory; the lock the caller
    // may hold is not the worker's to inherit.
    const std::string root = rootDir().string();
    if (std::getenv("QUOR_ROOT") != nullptr) ::setenv("QUOR_ROOT", root.c_str(), 1);
    ::unsetenv("QUOR_PKG_LOCK_HELD");
    if (::chdir("/") != 0) std::_Exit(1);
    // syslog keeps a descriptor of its own: let it forget it before closing.
    ::closelog();
    ::close_range(3, ~0U, 0);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGCHLD, SIG_DFL);
    ::signal(SIGPIPE, SIG_DFL);
    ::signal(SIGHUP, SIG_IGN);
}

// Whoever reads the caller's output must not wait for the worker too.
void releaseStandardStreams() {
    int null = ::open("/dev/null", O_RDWR);
    if (null < 0) std::_Exit(1);
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(null, STDERR_FILENO);
    if (null > STDERR_FILENO) ::close(null);
}

[[noreturn]] void runWorker(int goFd, const std::function<int()>& work) {
    releaseStandardStreams();
    char go = 0;
    if (!readAll(goFd, &go, 1) || go != 'g') std::_Exit(0);
    becomeDaemon();
    int code = 1;
    try {
        code = work();
    } catch (const std::exception&) {
        code = 1;
    }
    std::_Exit(code & 0xff);
}

}  // namespace

bool runDetached(const std::function<bool(pid_t)>& started, const std::function<int()>& work) {
    int pidPipe[2];
    int goPipe[2];
    if (::pipe2(pidPipe, O_CLOEXEC) != 0) return false;
    UniqueFd pidRead(pidPipe[0]), pidWrite(pidPipe[1]);
    if (::pipe2(goPipe, O_CLOEXEC) != 0) return false;
    UniqueFd goRead(goPipe[0]), goWrite(goPipe[1]);

    const pid_t child = ::fork();
    if (child < 0) return false;
    if (child == 0) {
        // The middle process: a new session, one more fork, report, leave.
        ::setsid();
        const pid_t worker = ::fork();
        if (worker == 0) {
            pidWrite = UniqueFd();
            goWrite = UniqueFd();
            runWorker(goRead.get(), work);
        }
        writeAll(pidWrite.get(),
                 std::string_view(reinterpret_cast<const char*>(&worker), sizeof worker));
        std::_Exit(0);
    }
    pidWrite = UniqueFd();
    goRead = UniqueFd();
    pid_t worker = -1;
    const bool gotPid = readAll(pidRead.get(), &worker, sizeof worker);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!gotPid || worker <= 0) return false;
    // Closing the pipe without the go byte sends the worker away unused.
    if (!started(worker)) return false;
    return writeAll(goWrite.get(), "g");
}

}  // namespace quor
