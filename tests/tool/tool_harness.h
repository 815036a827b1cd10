// Runs the tool in process against the fake platform and captures what it
// writes to standard output.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake_platform.h"

namespace tooltest {

using fake::PackageInfo;

struct Outcome {
    int status;
    std::string out;
};

// Runs the tool with exactly this argument vector (argv[0] included). Fails
// the test if anything reaches standard error.
Outcome runArgv(const std::vector<std::string>& argv);

// Runs `quorpkg` followed by these words.
Outcome run(std::vector<std::string> words);

// The calls that the command made: the shared manager's construction, init()
// and destruction around them are checked and left out.
std::vector<std::string> commandCalls();

// Runs `quorpkg <words>` on a platform scripted as `script`; checks the
// output, the exit status and the command's calls. The run's records stay
// in fake::platform() for further checks.
void expectCase(const std::vector<std::string>& words, fake::Platform script,
                const std::string& out, int status, const std::vector<std::string>& calls);

class ToolTest : public ::testing::Test {
protected:
    void SetUp() override { fake::reset(); }
};

}  // namespace tooltest
