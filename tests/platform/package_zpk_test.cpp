// The zpk tool, run as a program.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>

#include "base/file_util.h"
#include "test_support.h"

namespace quor {
namespace {

namespace fs = std::filesystem;

// Runs a shell command line; its exit status and what it wrote.
struct Output {
    int status;
    std::string out, err;
};

Output run(const fs::path& dir, const std::string& command) {
    std::string line =
        command + " >" + (dir / "stdout").string() + " 2>" + (dir / "stderr").string();
    int raw = std::system(line.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, readFile(dir / "stdout").value_or(""),
            readFile(dir / "stderr").value_or("")};
}

class PackageZpk : public ::testing::Test {
protected:
    // zpk <args>, run in the test's folder.
    Output zpk(const std::string& args) const { return run(dir.path(), ZPK_BINARY " " + args); }

    test::TempDir dir;
};

TEST_F(PackageZpk, BuildsAndShowsPackages) {
    test::PackageSource pkg;
    pkg.name = "tool";
    pkg.version = "3.0";
    pkg.info = {{"description", "A tool"}, {"admin_port", "5000"}, {"beta", "yes"}};
    pkg.scripts = {{"start-stop-status", "#!/bin/sh\n"}};
    fs::path source = dir.path() / "src";
    test::writePackageSource(source, pkg);
    fs::path file = dir.path() / "tool.zpk";

    Output built = zpk("build " + source.string() + " -o " + file.string() + " --zstd");
    ASSERT_EQ(built.status, 0) << built.err;
    Output info = zpk("info " + file.string());
    ASSERT_EQ(info.status, 0) << info.err;
    for (const char* expected :
         {"package:     tool\n", "version:     3.0\n", "description: A tool\n",
          "admin_port:  5000\n", "beta:        yes\n", "script_mask: 64 (start-stop-status)\n",
          "payload:     package.tzst\n", "  scripts/start-stop-status\n"})
        EXPECT_NE(info.out.find(expected), std::string::npos) << expected << "\n" << info.out;
    EXPECT_TRUE(info.err.empty());

    Output missing = zpk("info " + (dir.path() / "none.zpk").string());
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(missing.out.empty());
    EXPECT_NE(missing.err.find("zpk: "), std::string::npos);
    fs::remove(source / "INFO");
    Output bad = zpk("build " + source.string() + " -o " + file.string());
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("INFO"), std::string::npos);
    EXPECT_EQ(zpk("build " + source.string()).status, 2);  // no -o
    EXPECT_EQ(zpk("frobnicate").status, 2);
}

// The slips authors make most, each reported with its file and line, all in
// one run; a build refuses the same folder and writes nothing.
TEST_F(PackageZpk, CheckReportsEveryAuthorMistakeAtOnce) {
    const fs::path src = dir.path() / "src";
    test::writeText(src / "INFO",
                    "package=\"my tool\"\nversion=\"1.0\"\nversion=\"2\"\n"
                    "install_dep_packages=\"base>=1.0:web>=\"\n"
                    "install_conflict_packages=\"old=>2\"\nbeta=\"maybe\"\npakage=\"x\"\n"
                    "no equals sign\n");
    test::writeText(src / "package/bin/tool", "#!/bin/sh\n", 0755);
    fs::create_symlink("../../../etc/passwd", src / "package/bin/passwd");
    test::writeText(src / "scripts/start-stop-status", "#!/bin/sh\r\nexit 0\r\n", 0755);
    test::writeText(src / "scripts/postinst", "#!/bin/sh\nexit 0\n", 0644);
    test::writeText(src / "scripts/preinst", "exit 0\n", 0755);
    test::writeText(src / "scripts/install", "#!/bin/sh\n", 0755);
    test::writeText(src / "script/preuninst", "#!/bin/sh\n", 0755);
    const std::string s = src.string();
    const std::string expected =
        s + "/INFO:1: invalid package name: my tool\n" + s +
        "/INFO:3: duplicate key: version (first on line 2)\n" + s +
        "/INFO:4: invalid install_dep_packages: item 2 \"web>=\": no version after >=\n" + s +
        "/INFO:5: invalid install_conflict_packages: item 1 \"old=>2\": invalid version: >2 "
        "(operators are >=, <=, >, < and =)\n" +
        s + "/INFO:6: beta must be yes or no\n" + s +
        "/INFO:7: unknown key: pakage, did you mean package? (devices ignore unknown keys)\n" + s +
        "/INFO:8: expected key=\"value\"\n" + s +
        "/package/bin/passwd: symbolic link leaves the payload: ../../../etc/passwd\n" + s +
        "/scripts/install: not a package script (known scripts: preinst, postinst, "
        "preuninst, postuninst, preupgrade, postupgrade, start-stop-status)\n" +
        s + "/scripts/postinst: not executable (chmod +x)\n" + s +
        "/scripts/preinst:1: no #! line: the script cannot be run\n" + s +
        "/scripts/start-stop-status:1: the #! line ends in a carriage return (CRLF line "
        "endings): the interpreter will not be found\n" +
        s + "/script: unknown folder, left out of the package (did you mean scripts/?)\n";
    Output checked = zpk("check " + s);
    EXPECT_EQ(checked.status, 1);
    EXPECT_EQ(checked.err, expected + "zpk: " + s + ": 13 problems\n");
    EXPECT_TRUE(checked.out.empty());
    const fs::path file = dir.path() / "tool.zpk";
    Output built = zpk("build " + s + " -o " + file.string());
    EXPECT_EQ(built.status, 1);
    EXPECT_EQ(built.err, expected + "zpk: " + s + ": 13 problems, nothing built\n");
    EXPECT_FALSE(fs::exists(file));

    // Put right, the same folder checks clean (a warning alone passes) and builds.
    test::writeText(src / "INFO", "package=\"tool\"\nversion=\"1.0\"\nhomepage=\"x\"\n");
    fs::remove(src / "package/bin/passwd");
    fs::remove(src / "scripts/install");
    fs::remove_all(src / "script");
    test::writeText(src / "scripts/start-stop-status", "#!/bin/sh\nexit 0\n", 0755);
    fs::permissions(src / "scripts/postinst", fs::perms::owner_exec, fs::perm_options::add);
    test::writeText(src / "scripts/preinst", "#!/bin/sh\nexit 0\n", 0755);
    checked = zpk("check " + s);
    EXPECT_EQ(checked.status, 0) << checked.err;
    EXPECT_EQ(checked.err, s + "/INFO:3: warning: unknown key: homepage\n");
    ASSERT_EQ(zpk("build " + s + " -o " + file.string()).status, 0);
    checked = zpk("check " + file.string());
    EXPECT_EQ(checked.status, 0) << checked.err;
    // What the build added (checksum, sha256) is known; only the author's typo warns.
    EXPECT_EQ(checked.err.find("sha256"), std::string::npos) << checked.err;
    EXPECT_NE(checked.err.find("unknown key: homepage"), std::string::npos) << checked.err;
}

// The slips that read as something else: each message says what to write.
// A device refuses the same manifest (but for the key slip, which it keeps
// as an unknown key) with the same words in its log.
TEST_F(PackageZpk, CheckSaysWhatToWriteInstead) {
    const fs::path src = dir.path() / "src";
    test::writeText(src / "INFO",
                    "\xEF\xBB\xBFpackage=\"tool\"\nversion=\"1.0\"\n"
                    "description=\"says \"hi\" to you\"\n"
                    "install_dep_package=\"base\"\n"
                    "install_dep_packages=\"base (>= 1.0), web (<< 2)\"\n"
                    "install_conflict_packages=\"old, older\"\n"
                    "ui_dir=\"/www\"\n"
                    "displayname=\"Tool\n");
    test::writeText(src / "package/bin/tool", "#!/bin/sh\n", 0755);
    const std::string s = src.string();
    Output checked = zpk("check " + s);
    EXPECT_EQ(checked.status, 1);
    EXPECT_EQ(checked.err,
              s +
                  "/INFO:1: the file starts with a byte-order mark (bytes EF BB BF): save it as "
                  "UTF-8 without one\n" +
                  s +
                  "/INFO:3: a quote inside the value must be written \\\": write "
                  "description=\"says \\\"hi\\\" to you\"\n" +
                  s +
                  "/INFO:4: unknown key: install_dep_package, did you mean "
                  "install_dep_packages? (devices ignore unknown keys)\n" +
                  s +
                  "/INFO:5: invalid install_dep_packages: a Debian-style list; items are "
                  "joined by ':' and written name>=version, without parentheses: write "
                  "\"base>=1.0:web<2\"\n" +
                  s +
                  "/INFO:6: invalid install_conflict_packages: a Debian-style list; items "
                  "are joined by ':' and written name>=version, without parentheses: write "
                  "\"old:older\"\n" +
                  s +
                  "/INFO:7: ui_dir \"/www\" must name a folder inside package/, without a "
                  "leading / or ..: for package/ui write ui_dir=\"ui\"\n" +
                  s +
                  "/INFO:8: the value has no closing quote: write displayname=\"value\", "
                  "with \\\" for a quote inside it\n" +
                  "zpk: " + s + ": 7 problems\n");
    test::writeText(src / "INFO", "package=\"tool\"\nversion=\"1.0\"\nui_dir=\"ui\"\n");
    checked = zpk("check " + s);
    EXPECT_EQ(checked.err, s +
                               "/INFO:3: ui_dir \"ui\": package/ui is not a folder: put the web "
                               "page there, or write the folder of package/ that holds it\n" +
                               "zpk: " + s + ": 1 problem\n");
    fs::create_directories(src / "package/ui");
    EXPECT_EQ(zpk("check " + s).status, 0);
}

// A package file made by hand: what an install would refuse is named, and
// `contents` still lists every payload entry.
TEST_F(PackageZpk, ChecksAndListsAPackageFile) {
    const std::string payload = test::tarBytes(
        {test::dirEntry("bin"), test::fileEntry("bin/tool", "#!/bin/sh\n", 0755),
         test::symlinkEntry("bin/sh", "../../bin/sh"), test::fileEntry("../escape", "x")},
        test::TarFilter::kGzip);
    const fs::path file = dir.path() / "hand.zpk";
    test::writeTar(file, {test::fileEntry("INFO",
                                          "package=\"hand\"\nversion=\"1 0\"\n"
                                          "checksum=\"" +
                                              std::string(32, '0') + "\"\nui_dir=\"www\"\n"),
                          test::fileEntry("package.tgz", payload),
                          test::fileEntry("scripts/postinst", "#!/bin/sh\r\n")});
    const std::string f = file.string();
    Output checked = zpk("check " + f);
    EXPECT_EQ(checked.status, 1);
    EXPECT_EQ(checked.err,
              f + "/INFO:2: invalid version: 1 0\n" + f +
                  "/scripts/postinst:1: the #! line ends in a carriage return (CRLF line "
                  "endings): the interpreter will not be found\n" +
                  f + "/package.tgz: refused entry: symbolic link leaves its tree: bin/sh\n" + f +
                  "/package.tgz: refused entry: unsafe entry name: ../escape\n" + f +
                  "/INFO:4: ui_dir \"www\": package/www is not a folder: put the web page there, "
                  "or write the folder of package/ that holds it\n" +
                  "zpk: " + f + ": 5 problems\n");

    Output listed = zpk("contents " + f);
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_NE(listed.out.find("-rwxr-xr-x         10 "), std::string::npos) << listed.out;
    EXPECT_NE(listed.out.find(" bin/sh -> ../../bin/sh\n"), std::string::npos) << listed.out;
    EXPECT_NE(listed.out.find(" ../escape\n"), std::string::npos) << listed.out;
    EXPECT_EQ(zpk("contents " + (dir.path() / "none.zpk").string()).status, 1);
    EXPECT_EQ(zpk("contents").status, 2);
}

// Building the same folder twice gives the same bytes; with
// SOURCE_DATE_EPOCH set, even a copy with other file times does.
TEST_F(PackageZpk, BuildsAreReproducible) {
    test::PackageSource pkg;
    pkg.files = {{"bin/b", "b"}, {"bin/a", "a"}, {"share/z/y", "y"}, {"etc/conf", "c"}};
    pkg.scripts = {{"start-stop-status", "#!/bin/sh\nexit 0\n"}};
    pkg.conf = {{"resource", "{}"}};
    const fs::path src = dir.path() / "src";
    test::writePackageSource(src, pkg);
    auto build = [&](const fs::path& from, const std::string& name, const std::string& env) {
        const fs::path out = dir.path() / name;
        Output built = run(dir.path(), env + ZPK_BINARY " build " + from.string() + " -o " +
                                           out.string() + " --zstd");
        EXPECT_EQ(built.status, 0) << built.err;
        return readFile(out).value_or("");
    };
    const std::string first = build(src, "1.zpk", "");
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(build(src, "2.zpk", ""), first);

    const fs::path copy = dir.path() / "copy";
    fs::copy(src, copy, fs::copy_options::recursive);
    fs::last_write_time(copy / "package/bin/a",
                        fs::file_time_type::clock::now() + std::chrono::hours(1));
    const std::string epoch = "SOURCE_DATE_EPOCH=1700000000 ";
    const std::string pinned = build(src, "3.zpk", epoch);
    EXPECT_EQ(build(copy, "4.zpk", epoch), pinned);
    EXPECT_NE(build(copy, "5.zpk", ""), pinned);  // the newest file time counts
    Output listed = zpk("contents " + (dir.path() / "3.zpk").string());
    EXPECT_NE(listed.out.find(" 2023-11-14 22:13 bin/a\n"), std::string::npos) << listed.out;
}

TEST_F(PackageZpk, HelpAndVersion) {
    Output version = zpk("--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("zpk ", 0), 0u) << version.out;
    for (const char* command : {"build", "info", "index", "check", "contents", "keygen", "sign"}) {
        Output help = zpk(std::string(command) + " --help");
        EXPECT_EQ(help.status, 0) << command;
        EXPECT_EQ(help.out.rfind(std::string("usage: zpk ") + command, 0), 0u) << help.out;
        EXPECT_EQ(zpk(std::string(command) + " --version").out, version.out);
        EXPECT_EQ(zpk(std::string(command) + " --bogus").status, 2) << command;
    }
}

}  // namespace
}  // namespace quor
