#include "base/package_log.h"

#include <ctime>
#include <fstream>
#include <system_error>

#include "base/layout.h"

namespace quor {

void logPackageEvent(const std::string& name, std::string_view message) {
    const auto path = layout::logFile(name);
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::ofstream out(path, std::ios::app);
    out << stamp << ' ' << message << '\n';
}

}  // namespace quor
