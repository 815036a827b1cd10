#include "tool_harness.h"

#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>

#include "main/entry.h"

namespace tooltest {
namespace {

// Runs `body` with descriptor `fd` pointed at a temporary file and gives
// what was written there.
std::string capture(int fd, const std::function<void()>& body) {
    std::fflush(nullptr);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
    const int saved = dup(fd);
    dup2(fileno(file.get()), fd);
    body();
    std::fflush(nullptr);
    dup2(saved, fd);
    close(saved);
    std::rewind(file.get());
    std::string text;
    for (int c; (c = std::fgetc(file.get())) != EOF;) text += static_cast<char>(c);
    return text;
}

}  // namespace

Outcome runArgv(const std::vector<std::string>& argv) {
    std::vector<std::string> storage(argv);
    std::vector<char*> pointers;
    for (std::string& word : storage) pointers.push_back(word.data());
    pointers.push_back(nullptr);

    Outcome result{};
    fake::platform().capturing = true;
    const std::string err = capture(STDERR_FILENO, [&] {
        result.out = capture(STDOUT_FILENO, [&] {
            result.status = quorpkg::quorpkgMain(static_cast<int>(argv.size()), pointers.data());
        });
    });
    fake::platform().capturing = false;
    EXPECT_EQ(err, "") << "nothing may reach standard error";
    return result;
}

Outcome run(std::vector<std::string> words) {
    words.insert(words.begin(), "/usr/bin/quorpkg");
    return runArgv(words);
}

std::vector<std::string> commandCalls() {
    const std::vector<std::string>& calls = fake::platform().calls;
    const bool framed = calls.size() >= 3 && calls[0] == "m1.PackageManager()" &&
                        calls[1] == "m1(uninit).init()" && calls.back() == "m1.~PackageManager()";
    if (!framed) {
        ADD_FAILURE() << "the shared manager was not built, initialised and destroyed around "
                         "the command";
        return calls;
    }
    return {calls.begin() + 2, calls.end() - 1};
}

void expectCase(const std::vector<std::string>& words, fake::Platform script,
                const std::string& out, int status, const std::vector<std::string>& calls) {
    fake::platform() = std::move(script);
    const Outcome r = run(words);
    const std::string label = ::testing::PrintToString(words);
    EXPECT_EQ(r.out, out) << label;
    EXPECT_EQ(r.status, status) << label;
    EXPECT_EQ(commandCalls(), calls) << label;
}

}  // namespace tooltest
