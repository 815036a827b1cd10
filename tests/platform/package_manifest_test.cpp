// Manifests, versions and the package record made from a manifest.
#include <gtest/gtest.h>

#include "base/result.h"
#include "quorpkg/api/package_record.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/package/version.h"

namespace quor {
namespace {

int parse(const std::string& text, Manifest& out) {
    return parseManifest(text, out);
}

std::vector<ManifestProblem> errorsOf(const std::string& text) {
    std::vector<ManifestProblem> errors;
    for (ManifestProblem& problem : checkManifest(text))
        if (!problem.warning) errors.push_back(std::move(problem));
    return errors;
}

TEST(PackageManifest, ReadsFieldsDefaultsAndUnknownKeys) {
    Manifest m;
    ASSERT_EQ(
        parse("# comment\n\npackage=\"web-cam_2\"\nversion=\"1.2-0003\"\n"
              "description=\"says \\\"hi\\\" \\\\ bye\"\nadmin_port=\"8080\"\n"
              "beta=\"yes\"\ninstall_dep_packages=\"pgsql>=9.6:php7 : nginx\"\n"
              "install_conflict_packages=\"old<2\"\ninstall_dep_services=\" pgsql  smb \"\n"
              "firmware=\"7.1\"\narch=\"x86_64\"\nchecksum=\"0123456789ABCDEF0123456789abcdef\"\n"
              "vendor_key=\"kept\"\n",
              m),
        kOk);
    EXPECT_EQ(m.name, "web-cam_2");
    EXPECT_EQ(m.displayname, "web-cam_2");  // defaults to the name
    EXPECT_EQ(m.description, "says \"hi\" \\ bye");
    EXPECT_EQ(m.admin_port, 8080);
    EXPECT_TRUE(m.beta);
    ASSERT_EQ(m.depends.size(), 3u);
    EXPECT_EQ(m.depends[0].name, "pgsql");
    EXPECT_EQ(m.depends[0].op, ">=");
    EXPECT_EQ(m.depends[0].version, "9.6");
    EXPECT_EQ(m.depends[1].name, "php7");
    EXPECT_EQ(m.depends[1].op, "");
    EXPECT_EQ(m.depends[2].name, "nginx");
    ASSERT_EQ(m.conflicts.size(), 1u);
    EXPECT_EQ(m.conflicts[0].op, "<");
    EXPECT_EQ(m.services, (std::vector<std::string>{"pgsql", "smb"}));
    EXPECT_EQ(m.checksum, "0123456789abcdef0123456789abcdef");
    ASSERT_NE(findValue(m.pairs, "vendor_key"), nullptr);
    EXPECT_EQ(*findValue(m.pairs, "vendor_key"), "kept");

    // Written back, it reads the same.
    Manifest again;
    ASSERT_EQ(parse(formatManifest(m), again), kOk);
    EXPECT_EQ(again.description, m.description);
    EXPECT_EQ(again.pairs, m.pairs);

    Manifest minimal;
    ASSERT_EQ(parse("package=\"a\"\nversion=\"1\"\ndisplayname=\"Nice A\"\n", minimal), kOk);
    EXPECT_EQ(minimal.displayname, "Nice A");
    EXPECT_EQ(minimal.admin_port, 0);
    EXPECT_FALSE(minimal.beta);
    EXPECT_TRUE(minimal.depends.empty());
}

TEST(PackageManifest, RefusesInvalidManifests) {
    const std::string v = "version=\"1.0\"\n";
    const std::string p = "package=\"demo\"\n";
    const char* bad[] = {
        "",                    // nothing
        "version=\"1.0\"\n",   // no name
        "package=\"demo\"\n",  // no version
        "package=\"-demo\"\nversion=\"1\"\n",
        "package=\"de mo\"\nversion=\"1\"\n",
        "package=\"de/mo\"\nversion=\"1\"\n",
        "package=\"../x\"\nversion=\"1\"\n",
        "package=\"demo\"\nversion=\"1 0\"\n",
        "package=\"demo\"\nversion=\"1:0\"\n",
        "package=\"demo\"\nversion=\"1\"\npackage=\"other\"\n",  // key twice
        "package=\"demo\nversion=\"1\"\n",                       // open quote
        "package=\"demo\"\nversion=\"1\"\nadmin_port=\"80a\"\n",
        "package=\"demo\"\nversion=\"1\"\nadmin_port=\"70000\"\n",
        "package=\"demo\"\nversion=\"1\"\nbeta=\"maybe\"\n",
        "package=\"demo\"\nversion=\"1\"\ninstall_dep_packages=\"a::b\"\n",
        "package=\"demo\"\nversion=\"1\"\ninstall_dep_packages=\"a=>1\"\n",
        "package=\"demo\"\nversion=\"1\"\ninstall_dep_packages=\"a>=\"\n",
        "package=\"demo\"\nversion=\"1\"\ninstall_conflict_packages=\">=1\"\n",
        "package=\"demo\"\nversion=\"1\"\nchecksum=\"abc\"\n",
        "package=\"demo\"\nversion=\"1\"\nfirmware=\"7 1\"\n",
        "package=\"demo\"\nversion=\"1\"\narch=\"x86 64\"\n",
        "\xEF\xBB\xBFpackage=\"demo\"\nversion=\"1\"\n",  // saved with a byte-order mark
        "package=\"demo\"\nversion=\"1\"\ninstall_dep_packages=\"a (>= 1), b\"\n",
        "package=\"demo\"\nversion=\"1\"\ndescription=\"a \"b\" c\"\n",
    };
    for (const char* text : bad) {
        Manifest m;
        std::string error;
        EXPECT_EQ(parseManifest(text, m, &error), kBadManifest) << text;
        EXPECT_FALSE(error.empty()) << text;
        EXPECT_FALSE(errorsOf(text).empty()) << text;  // the authors' check agrees
    }
    // A device names the mark, not a missing key.
    Manifest marked;
    std::string error;
    parseManifest("\xEF\xBB\xBF" + p + v, marked, &error);
    EXPECT_EQ(error,
              "invalid manifest: line 1: the file starts with a byte-order mark (bytes EF BB BF): "
              "save it as UTF-8 without one");
    Manifest m;
    EXPECT_EQ(parse(p + v + "install_dep_packages=\"\"\n", m), kOk);  // empty list
    EXPECT_TRUE(errorsOf(p + v + "install_dep_packages=\"\"\nvendor_key=\"x\"\n").empty());
}

TEST(PackageManifest, PackageNameRules) {
    EXPECT_TRUE(isValidPackageName("a"));
    EXPECT_TRUE(isValidPackageName("Z9.x_y+z-1"));
    EXPECT_TRUE(isValidPackageName(std::string(64, 'n')));
    EXPECT_FALSE(isValidPackageName(std::string(65, 'n')));
    EXPECT_FALSE(isValidPackageName(""));
    EXPECT_FALSE(isValidPackageName(".hidden"));
    EXPECT_FALSE(isValidPackageName("_x"));
    EXPECT_FALSE(isValidPackageName("a b"));
    EXPECT_FALSE(isValidPackageName("a\n"));
    EXPECT_FALSE(isValidPackageName("caf\xc3\xa9"));
    EXPECT_TRUE(isValidVersion("1.0~beta1+git_2-3"));
    EXPECT_FALSE(isValidVersion(""));
    EXPECT_FALSE(isValidVersion("1/2"));
}

TEST(PackageManifest, FillsRecordAndReadsDependenciesBack) {
    Manifest m;
    ASSERT_EQ(
        parse("package=\"app\"\nversion=\"2.0\"\nmaintainer=\"Me\"\nmanager_url=\"http://x\"\n"
              "ui_dir=\"ui\"\nadmin_port=\"81\"\ninstall_dep_packages=\"db>=1.2:cache\"\n"
              "install_conflict_packages=\"legacy\"\ninstall_dep_services=\"pgsql\"\n"
              "arch=\"noarch\"\nextra=\"e\"\n",
              m),
        kOk);
    QUORPackageTool::PackageInfo info;
    info.extra.fields = {{"stale", "x"}};
    fillPackageInfo(m, kStartStopStatus, info);
    EXPECT_EQ(info.name, "app");
    EXPECT_EQ(info.version, "2.0");
    EXPECT_EQ(info.displayname, "app");
    EXPECT_EQ(info.maintainer, "Me");
    EXPECT_EQ(info.manager_url, "http://x");
    EXPECT_EQ(info.ui_dir, "ui");
    EXPECT_EQ(info.admin_port, 81);
    EXPECT_EQ(info.script_mask, kStartStopStatus);
    EXPECT_EQ(info.list_a, std::vector<std::string>{"pgsql"});
    ASSERT_EQ(info.basic_list_a.size(), 2u);
    EXPECT_EQ(info.basic_list_a[0].basic_text_a, "db");
    EXPECT_EQ(info.basic_list_a[0].basic_text_b, ">=1.2");
    EXPECT_EQ(info.basic_list_a[1].basic_text_b, "");
    ASSERT_EQ(info.basic_list_b.size(), 1u);
    EXPECT_EQ(info.basic_list_b[0].basic_text_a, "legacy");
    using Fields = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(info.extra.fields, (Fields{{"arch", "noarch"}, {"extra", "e"}}));

    std::vector<Dependency> deps = dependenciesOf(info);
    ASSERT_EQ(deps.size(), 2u);
    EXPECT_EQ(deps[0].name, "db");
    EXPECT_EQ(deps[0].op, ">=");
    EXPECT_EQ(deps[0].version, "1.2");
    EXPECT_EQ(deps[1].op, "");

    // A constraint that cannot be read is kept, and never met.
    info.basic_list_a[1].basic_text_b = "~>3";
    deps = dependenciesOf(info);
    ASSERT_EQ(deps.size(), 2u);
    EXPECT_EQ(deps[1].name, "cache");
    EXPECT_FALSE(versionSatisfies("3", deps[1].op, deps[1].version));
}

TEST(PackageManifest, PlatformFit) {
    Settings settings;
    settings.arch = "aarch64";
    settings.firmware_version = "7.1-0042";
    // arch, firmware, the fit.
    const struct {
        const char* arch;
        const char* firmware;
        int code;
    } cases[] = {{"", "", kOk},         {"noarch", "", kOk},
                 {"aarch64", "", kOk},  {"x86_64", "", kWrongArch},
                 {"", "7.1-0042", kOk}, {"", "7.1-0100", kFirmwareTooOld},
                 {"", "7.0", kOk}};
    for (const auto& c : cases) {
        Manifest m;
        m.arch = c.arch;
        m.firmware = c.firmware;
        EXPECT_EQ(checkPlatformFit(m, settings), c.code) << c.arch << " " << c.firmware;
    }
}

}  // namespace
}  // namespace quor
