// Resuming downloads against a web server that honours range requests:
// nginx, started on 127.0.0.1 with a configuration, pid and logs of its own
// in a temporary folder. Skipped where nginx is not installed.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "pkg_server.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/installer.h"
#include "server_fixture.h"

namespace quor::test {
namespace {

using ServerRange = ServerTest;

TEST_F(ServerRange, AKeptPartIsContinuedWithARangeRequestToARealWebServer) {
    const std::string nginx = Nginx::binary();
    if (nginx.empty()) GTEST_SKIP() << "nginx is not installed";
    PackageSource source = packageSource("big");
    source.files["share/noise"] = noiseBytes(300000, 3);
    const fs::path file = publish(source);
    index();
    Nginx web(nginx, repo);
    ASSERT_TRUE(web.running())
        << readFile(web.accessLog().parent_path() / "error.log").value_or("");
    writeText(layout::sourcesFile(), sourcesLine(web.url()) + "\n");

    const std::string bytes = readFile(file).value();
    Json::Value entry;
    ASSERT_TRUE(QUORPackageServer::GetPackageInfoFromServer("big", entry, true, "enu", false));
    const fs::path part =
        layout::volumeTmpDir(volume1) / ("big-" + entry["md5"].asString() + ".zpk.part");
    auto transfers = [&] {
        std::vector<int> files;
        for (int status : web.statuses())
            if (status != 304) files.push_back(status);
        return files;
    };

    // The right first half: only the rest travels, as a partial answer.
    writeText(part, bytes.substr(0, bytes.size() / 2));
    Task task = installFromServer("big", "volume1");
    ASSERT_EQ(task.state, "done") << task.message;
    EXPECT_EQ(transfers().back(), 206);
    EXPECT_TRUE(staged(volume1).empty());

    // A wrong first half is continued too, then fails the checksum and is
    // dropped; the next try fetches the whole file.
    ASSERT_EQ(removePackages({"big"}, serviceHooks()), kOk);
    writeText(part, std::string(bytes.size() / 2, 'x'));
    task = installFromServer("big", "volume1");
    EXPECT_EQ(task.code, kChecksumMismatch);
    EXPECT_FALSE(fs::exists(part));
    task = installFromServer("big", "volume1");
    ASSERT_EQ(task.state, "done") << task.message;
    EXPECT_EQ(transfers().back(), 200);

    // A part longer than the file cannot be continued (416): it starts over.
    ASSERT_EQ(removePackages({"big"}, serviceHooks()), kOk);
    writeText(part, bytes + "more");
    const size_t before = transfers().size();
    task = installFromServer("big", "volume1");
    ASSERT_EQ(task.state, "done") << task.message;
    const std::vector<int> all = transfers();
    const std::vector<int> last(all.begin() + static_cast<long>(before), all.end());
    EXPECT_NE(std::find(last.begin(), last.end(), 416), last.end());
    EXPECT_EQ(last.back(), 200);
    EXPECT_TRUE(staged(volume1).empty());

    // A download cut off halfway keeps its part, and the next try, from
    // another server, continues it.
    ASSERT_EQ(removePackages({"big"}, serviceHooks()), kOk);
    Nginx slow(nginx, repo, "limit_rate_after 100k; limit_rate 2k;");
    ASSERT_TRUE(slow.running());
    writeText(layout::sourcesFile(), sourcesLine(slow.url()) + "\n");
    std::jthread cut([&] {
        std::error_code ec;
        for (int i = 0; i < 1000; ++i) {
            const uintmax_t have = fs::file_size(part, ec);
            if (!ec && have >= (100u << 10)) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        slow.stop(SIGKILL);
    });
    task = installFromServer("big", "volume1");
    cut.join();
    EXPECT_EQ(task.code, kDownloadFailed) << task.message;
    ASSERT_TRUE(fs::exists(part));
    EXPECT_GE(fs::file_size(part), 100u << 10);
    writeText(layout::sourcesFile(), sourcesLine(web.url()) + "\n");
    task = installFromServer("big", "volume1");
    ASSERT_EQ(task.state, "done") << task.message;
    EXPECT_EQ(transfers().back(), 206);
}

}  // namespace
}  // namespace quor::test
