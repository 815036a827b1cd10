// Running lifecycle scripts: environment, working directory, output, time
// limit and what is left behind.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "quorpkg/store/package_scripts.h"
#include "service_fixture.h"

namespace quor::test {
namespace {

// Whether a process is still alive (a zombie is not: nobody may reap it).
bool alive(pid_t pid) {
    std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat").value_or("");
    size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z' &&
           stat[close + 2] != 'X';
}

TEST_F(ServiceTest, ScriptGetsCleanEnvironmentPackageFolderAndLogsItsOutput) {
    PackageSource pkg;
    pkg.name = "envy";
    pkg.scripts["postinst"] =
        "#!/bin/sh\n"
        "env | sort > \"$QUOR_PKG_VAR/env\"\n"
        "pwd > \"$QUOR_PKG_VAR/cwd\"\n"
        "if [ -e /proc/self/fd/57 ]; then echo leaked > \"$QUOR_PKG_VAR/fd\"; fi\n"
        "echo to-stdout; echo to-stderr >&2\n";
    install(pkg);
    ::setenv("QUOR_TEST_SECRET", "x", 1);
    // A descriptor opened without O_CLOEXEC must not reach the script.
    int leaky = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(::dup2(leaky, 57), 0);

    ScriptRun base;
    base.event = "boot";
    base.oldVersion = "0.9";
    base.lockHeld = false;
    EXPECT_EQ(runPackageScript("envy", "postinst", {}, base), kOk);
    ::close(57);
    ::close(leaky);
    ::unsetenv("QUOR_TEST_SECRET");

    const fs::path var = layout::varDir("envy");
    const std::string root_ = root.path().string();
    EXPECT_EQ(readFile(var / "env").value_or(""),
              "PATH=/usr/sbin:/usr/bin:/sbin:/bin\n"
              "PWD=" +
                  root_ +
                  "/var/packages/envy\n"
                  "QUOR_PKG_CONF=" +
                  root_ +
                  "/var/packages/envy/conf\n"
                  "QUOR_PKG_EVENT=boot\n"
                  "QUOR_PKG_LOG=" +
                  root_ +
                  "/var/log/packages/envy.log\n"
                  "QUOR_PKG_NAME=envy\n"
                  "QUOR_PKG_OLD_VERSION=0.9\n"
                  "QUOR_PKG_PARAM=\n"
                  "QUOR_PKG_TARGET=" +
                  root_ +
                  "/var/packages/envy/target\n"
                  "QUOR_PKG_VAR=" +
                  root_ +
                  "/var/packages/envy/var\n"
                  "QUOR_PKG_VERSION=1.0-0001\n"
                  "QUOR_ROOT=" +
                  root_ + "\n");
    EXPECT_EQ(readFile(var / "cwd").value_or(""), root_ + "/var/packages/envy\n");
    EXPECT_FALSE(exists(var / "fd"));
    const std::string log = readFile(layout::logFile("envy")).value_or("");
    EXPECT_NE(log.find("to-stdout\nto-stderr\n"), std::string::npos) << log;

    // Held by default; captured stdout stays out of the log.
    pkg.scripts["postinst"] = "#!/bin/sh\necho \"held=$QUOR_PKG_LOCK_HELD\"\n";
    writeText(layout::scriptsDir("envy") / "postinst", pkg.scripts["postinst"], 0755);
    ScriptRun capture;
    capture.script = layout::scriptsDir("envy") / "postinst";
    capture.packageName = "envy";
    capture.captureStdout = true;
    ScriptOutcome outcome = runScript(capture);
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.output, "held=1\n");
    EXPECT_EQ(readFile(layout::logFile("envy")).value_or(""), log);
}

TEST_F(ServiceTest, ScriptFailuresMapToResultCodes) {
    PackageSource pkg;
    pkg.name = "fails";
    pkg.scripts["preinst"] = "#!/bin/sh\nexit 7\n";
    pkg.scripts["postinst"] = "no interpreter line\n";
    pkg.scripts["preuninst"] = "#!/bin/sh\nkill -TERM $$\n";
    install(pkg);
    EXPECT_EQ(runPackageScript("fails", "postuninst", {}), kOk);  // absent: nothing to do
    EXPECT_EQ(runPackageScript("fails", "preinst", {}), kScriptFailed);
    EXPECT_EQ(runPackageScript("fails", "postinst", {}), kScriptFailed);

    ScriptRun run;
    run.packageName = "fails";
    run.script = layout::scriptsDir("fails") / "preuninst";
    EXPECT_EQ(runScript(run).exitCode, 128 + SIGTERM);
    run.script = layout::scriptsDir("fails") / "postinst";
    EXPECT_FALSE(runScript(run).launched);
}

TEST_F(ServiceTest, ScriptPastItsLimitIsKilledWithEverythingItStarted) {
    appendSetting("script_timeout=\"1\"");
    PackageSource pkg;
    pkg.name = "hangs";
    // The grandchild ignores TERM and hangs up; only the group kill ends it.
    pkg.scripts["start-stop-status"] =
        "#!/bin/sh\n"
        "sh -c 'trap \"\" TERM HUP; echo $$ > \"$QUOR_PKG_VAR/grandchild\"; exec sleep 600' &\n"
        "while [ ! -s \"$QUOR_PKG_VAR/grandchild\" ]; do sleep 0.01; done\n"
        "echo $$ > \"$QUOR_PKG_VAR/script\"\n"
        "sleep 600\n";
    install(pkg);
    EXPECT_EQ(runPackageScript("hangs", "start-stop-status", {"start"}), kScriptTimeout);
    const fs::path var = layout::varDir("hangs");
    pid_t grandchild = std::stoi(readFile(var / "grandchild").value_or("0"));
    pid_t script = std::stoi(readFile(var / "script").value_or("0"));
    ASSERT_GT(grandchild, 0);
    ASSERT_GT(script, 0);
    EXPECT_FALSE(alive(grandchild));
    EXPECT_FALSE(alive(script));
    EXPECT_NE(readFile(layout::logFile("hangs")).value_or("").find("timed out"), std::string::npos);
}

}  // namespace
}  // namespace quor::test
