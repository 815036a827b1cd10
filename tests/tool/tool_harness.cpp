#include "tool_harness.h"

#include <unistd.h>

#include <cstdio>

#include "main/entry.h"

namespace tooltest {
namespace {

// Points one descriptor at a temporary file until finish().
class Redirect {
public:
    explicit Redirect(int target) : target_(target) {
        std::fflush(nullptr);
        file_ = std::tmpfile();
        saved_ = dup(target_);
        dup2(fileno(file_), target_);
    }
    Redirect(const Redirect&) = delete;
    Redirect& operator=(const Redirect&) = delete;
    ~Redirect() { finish(); }

    std::string finish() {
        if (file_ == nullptr) return {};
        std::fflush(nullptr);
        dup2(saved_, target_);
        close(saved_);
        std::string captured;
        std::rewind(file_);
        char chunk[4096];
        for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, file_)) > 0;) {
            captured.append(chunk, n);
        }
        std::fclose(file_);
        file_ = nullptr;
        return captured;
    }

private:
    int target_;
    int saved_ = -1;
    std::FILE* file_ = nullptr;
};

}  // namespace

Outcome runArgv(const std::vector<std::string>& argv) {
    std::vector<std::string> storage(argv);
    std::vector<char*> pointers;
    for (std::string& word : storage) pointers.push_back(word.data());
    pointers.push_back(nullptr);

    Redirect err(STDERR_FILENO);
    Redirect out(STDOUT_FILENO);
    fake::platform().capturing = true;
    const int status = quorpkg::quorpkgMain(static_cast<int>(argv.size()), pointers.data());
    fake::platform().capturing = false;
    Outcome result{status, out.finish()};
    const std::string errText = err.finish();
    EXPECT_EQ(errText, "") << "nothing may reach standard error";
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

void expectCase(const std::vector<std::string>& words, const std::set<std::string>& failing,
                int result, const std::string& out, int status,
                const std::vector<std::string>& calls) {
    fake::reset();
    fake::platform().failing = failing;
    fake::platform().result = result;
    const Outcome r = run(words);
    const std::string label = ::testing::PrintToString(words);
    EXPECT_EQ(r.out, out) << label;
    EXPECT_EQ(r.status, status) << label;
    EXPECT_EQ(commandCalls(), calls) << label;
}

}  // namespace tooltest
