// Script answers that collide with the platform's own result codes.
#include "pkg_manager.h"
#include "quorpkg/service/services.h"
#include "service_fixture.h"

namespace quor::test {
namespace {

TEST_F(ServiceTest, StatusAnswersThatLookLikePlatformCodesAreUnknownNotPassedOn) {
    PackageSource odd = service("odd");
    install(odd);
    auto answer = [&](int code) {
        writeText(layout::scriptsDir("odd") / "start-stop-status",
                  "#!/bin/sh\n[ \"$1\" = status ] && exit " + std::to_string(code) + "\nexit 0\n",
                  0755);
        return packageStatus("odd");
    };
    // 255 would read as "not installed", 102 as "locked", 131 as a time-out.
    for (int code : {100, 102, 131, 140, 160, 170, 254, 255}) EXPECT_EQ(answer(code), 4) << code;
    for (int code : {1, 2, 3, 4, 5, 99}) EXPECT_EQ(answer(code), code);
    EXPECT_EQ(answer(150), kBroken);
    EXPECT_EQ(answer(0), kOk);

    // Through the manager: an installed package never reads as absent.
    QUORPackageTool::PackageManager manager;
    bool running = true;
    answer(255);
    EXPECT_TRUE(manager.getServiceStatus("odd", running, true, true));
    EXPECT_FALSE(running);
    EXPECT_EQ(manager.getResult(), 4);
    writeText(layout::activeMark("odd"), "");
    EXPECT_TRUE(manager.getServiceStatus("odd", running, true, true));
    EXPECT_EQ(manager.getResult(), kStoppedButActive);

    // A start or stop that exits with such a code is a failed script.
    writeText(layout::scriptsDir("odd") / "start-stop-status",
              "#!/bin/sh\n[ \"$1\" = status ] && exit 3\nexit 255\n", 0755);
    fs::remove(layout::activeMark("odd"));
    EXPECT_EQ(startPackage("odd", {}), kScriptFailed);
}

}  // namespace
}  // namespace quor::test
