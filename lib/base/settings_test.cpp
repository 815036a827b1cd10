// Settings read line by line: a bad line costs only itself and says so in
// quorpkg.log, once per process; signatures fail closed.
#include "base/settings.h"

#include <gtest/gtest.h>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/operation_log.h"
#include "test_support.h"

namespace quor {
namespace {

namespace fs = std::filesystem;
using test::TempRoot;
using test::writeText;

// The log lines that name the settings file, without their time and pid.
std::vector<std::string> settingsLines() {
    std::vector<std::string> out;
    const std::string file = layout::settingsFile().string();
    for (const std::string& line : test::textLines(readFile(operationLogFile()).value_or("")))
        if (size_t at = line.find("] " + file); at != std::string::npos)
            out.push_back(line.substr(at + 2 + file.size()));
    return out;
}

TEST(Settings, EachBadLineIsSkippedAndLoggedOnceWhileTheOthersHold) {
    TempRoot root;
    writeText(layout::settingsFile(),
              "# copied from the example\n"
              "script_timeout=\"300\" # five minutes\n"
              "default_volume=\"/volume2\"\n"
              "auto_upgrade=\"yes\"\n"
              "lock_timeout=\"2m\"\n"
              "catalog_max_mib=\"0\"\n"
              "defualt_volume=\"/volume3\"\n"
              "parallel_jobs=\"4\" jobs\n"
              "fetch_timeout=30 # unquoted\n"
              "expiry_slack=\"99999999999999999999999\"\n"
              "phased_updates=\"off\"\n"
              "download_rate_kib=\"512\"\n"
              "script_timeout=\"10\"\n"
              "colour=\"blue\"\n"
              "arch=\"armv7l\"\n");
    for (int i = 0; i < 2; ++i) {
        const Settings s = loadSettings();
        EXPECT_EQ(s.script_timeout, 300);
        EXPECT_EQ(s.default_volume, "/volume2");
        EXPECT_EQ(s.auto_upgrade, "none");
        EXPECT_EQ(s.lock_timeout, 60);
        EXPECT_EQ(s.catalog_max_mib, 1);
        EXPECT_EQ(s.parallel_jobs, 0);
        EXPECT_EQ(s.fetch_timeout, 30);
        EXPECT_EQ(s.expiry_slack, 168);
        EXPECT_TRUE(s.phased_updates);
        EXPECT_EQ(s.download_rate_kib, 512);
        EXPECT_EQ(s.arch, "armv7l");
        EXPECT_EQ(s.require_signature, "");
    }
    const std::vector<std::string> expected = {
        ":4: auto_upgrade: \"yes\" is not none, important or all; the default none holds",
        ":5: lock_timeout: \"2m\" is not a whole number of seconds from 0 to 3600; the default "
        "60 holds",
        ":6: catalog_max_mib: \"0\" is less than 1 MiB; 1 holds",
        ":7: unknown setting defualt_volume (did you mean default_volume?); the line is skipped",
        ":8: text after the value's closing quote: jobs (a comment after a value starts with "
        "#); the line is skipped",
        ":10: expiry_slack: \"99999999999999999999999\" is more than 168 hours; 168 holds",
        ":11: phased_updates: \"off\" is not yes or no; the default yes holds",
        ":13: script_timeout is set again (first on line 2, which holds); the line is skipped",
        ":14: unknown setting colour (the settings are default_volume, auto_upgrade, "
        "script_timeout, lock_timeout, parallel_jobs, catalog_ttl, catalog_max_mib, "
        "fetch_timeout, expiry_slack, phased_updates, download_rate_kib, firmware_version, "
        "arch, require_signature); the line is skipped",
    };
    EXPECT_EQ(settingsLines(), expected);
}

TEST(Settings, ASignatureSettingThatCannotBeReadCountsAsYes) {
    TempRoot root;
    const std::pair<const char*, const char*> cases[] = {
        {"require_signature=\"no\"\n", "no"},
        {"", ""},
        {"require_signature=\"no\"\nrequire_signature=\"no\"\n", "no"},
        {"require_signature=\"yes\" # mandatory\n", "yes"},
        {"require_signature=\"no\" unless signed\n", "yes"},
        {"require_signature=\"off\"\n", "yes"},
        {"require_signature=\"no\n", "yes"},
        {"Require-Signatures=\"no\"\n", "yes"},
        {"require signature no\n", "yes"},
        {"\xEF\xBB\xBFrequire_signature=\"no\"\n", "yes"},
        {"require_signature=\"no\"\nrequire_signature=\"yes\"\n", "yes"},
    };
    for (const auto& [text, expected] : cases) {
        writeText(layout::settingsFile(), text);
        EXPECT_EQ(loadSettings().require_signature, expected) << text;
    }
    // A settings file that is there but cannot be read.
    fs::remove(layout::settingsFile());
    fs::create_directories(layout::settingsFile());
    EXPECT_EQ(loadSettings().require_signature, "yes");
    fs::remove(layout::settingsFile());
    EXPECT_EQ(loadSettings().require_signature, "");
}

}  // namespace
}  // namespace quor
