#include "tool_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace quor::e2e {

pid_t startProgram(const std::string& program, const std::vector<std::string>& args,
                   const fs::path& workDir, int outFd) {
    std::vector<std::string> words = {program};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        const int devNull = ::open("/dev/null", O_WRONLY);
        ::dup2(outFd >= 0 ? outFd : devNull, STDOUT_FILENO);
        ::dup2(devNull, STDERR_FILENO);
        if (outFd >= 0) ::close(outFd);
        if (::chdir(workDir.c_str()) != 0) ::_exit(127);
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    return pid;
}

RunResult runProgram(const std::string& program, const std::vector<std::string>& args,
                     const fs::path& workDir) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    const pid_t pid = startProgram(program, args, workDir, pipeFds[1]);
    ::close(pipeFds[1]);
    RunResult result;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0) result.out.append(buffer, n);
    ::close(pipeFds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    return result;
}

Device::Device() {
    root_.addVolume(1);
    root_.addVolume(2);
}

RunResult Device::quorpkg(const std::vector<std::string>& args) const {
    return runProgram(QUORPKG_BINARY, args, files_.path());
}

RunResult Device::crashableQuorpkg(const std::vector<std::string>& args) const {
    return runProgram(QUORPKG_FAILPOINTS_BINARY, args, files_.path());
}

void Device::expect(const std::vector<std::string>& args, const std::string& out,
                    int status) const {
    const RunResult result = quorpkg(args);
    const std::string command = ::testing::PrintToString(args);
    EXPECT_EQ(result.out, out) << command;
    EXPECT_EQ(result.status, status) << command;
}

std::string Device::package(const test::PackageSource& pkg) const {
    const std::string name = pkg.name + "-" + pkg.version + ".zpk";
    const fs::path source = files_.path() / ("src-" + pkg.name + "-" + pkg.version);
    fs::remove_all(source);
    test::writePackageSource(source, pkg);
    RunResult built = runProgram(ZPK_BINARY, {"build", source.string(), "-o", name}, files_.path());
    if (built.status != 0) throw std::runtime_error("zpk build failed for " + name);
    fs::remove_all(source);
    return name;
}

}  // namespace quor::e2e
