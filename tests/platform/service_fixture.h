// What the service tests share: a temporary device with one volume, packages
// laid out as the store installs them, and service scripts that record each
// action in one trace file so that tests can check the order of events.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "test_support.h"

namespace quor::test {

class ServiceTest : public ::testing::Test {
protected:
    ~ServiceTest() override {
        // Daemons that scripts started outlive their scripts: end them.
        for (const std::string& line : traceLines())
            if (line.rfind("pid ", 0) == 0) ::kill(std::stoi(line.substr(4)), SIGKILL);
    }

    // Lays the package out as an install leaves it: manifest, scripts,
    // payload on volume1 behind the target link.
    void install(const PackageSource& pkg, bool enabled = false) {
        const fs::path source = root.path() / ".source" / pkg.name;
        writePackageSource(source, pkg);
        const fs::path dir = layout::packageDir(pkg.name);
        const fs::path payload = layout::appstoreDir(volume, pkg.name);
        fs::create_directories(dir / "var");
        fs::create_directories(payload.parent_path());
        fs::copy(source / "INFO", dir / "INFO");
        fs::copy(source / "package", payload, fs::copy_options::recursive);
        if (fs::exists(source / "scripts"))
            fs::copy(source / "scripts", dir / "scripts", fs::copy_options::recursive);
        fs::create_symlink(payload.lexically_relative(dir), layout::targetLink(pkg.name));
        if (enabled) writeText(layout::enabledFlag(pkg.name), "");
        fs::remove_all(source);
    }

    // A package whose service is a state file; every action is traced as
    // "<action> <name> [event] [param]".
    PackageSource service(const std::string& name, std::vector<std::string> requires_ = {},
                          const std::string& startExtra = "") {
        PackageSource pkg;
        pkg.name = name;
        std::string deps;
        for (const std::string& r : requires_) deps += (deps.empty() ? "" : ":") + r;
        if (!deps.empty()) pkg.info.emplace_back("install_dep_packages", deps);
        pkg.scripts["start-stop-status"] =
            "#!/bin/sh\n"
            "trace() { echo \"$*\" >> '" +
            tracePath().string() +
            "'; }\n"
            "state=\"$QUOR_PKG_VAR/running\"\n"
            "case \"$1\" in\n"
            "start) " +
            startExtra +
            "\n"
            "  trace start $QUOR_PKG_NAME $QUOR_PKG_EVENT $QUOR_PKG_PARAM; touch \"$state\";;\n"
            "stop) trace stop $QUOR_PKG_NAME $QUOR_PKG_EVENT; rm -f \"$state\";;\n"
            "status) [ -f \"$state\" ] && exit 0; exit 3;;\n"
            "esac\n";
        return pkg;
    }

    fs::path tracePath() const { return root.path() / "trace"; }

    std::vector<std::string> traceLines() const {
        return textLines(readFile(tracePath()).value_or(""));
    }

    // The trace lines of one action ("start", "stop"), in order.
    std::vector<std::string> traced(const std::string& action) const {
        std::vector<std::string> names;
        for (const std::string& line : traceLines())
            if (line.rfind(action + " ", 0) == 0) names.push_back(line.substr(action.size() + 1));
        return names;
    }

    static bool exists(const fs::path& path) {
        std::error_code ec;
        return fs::exists(fs::symlink_status(path, ec));
    }

    TempRoot root;
    fs::path volume = root.addVolume(1);
};

}  // namespace quor::test
