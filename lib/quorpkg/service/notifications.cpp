#include "quorpkg/service/notifications.h"

#include <fcntl.h>
#include <json/writer.h>
#include <unistd.h>

#include <ctime>
#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"

namespace quor {
namespace {

std::string jsonString(const std::string& text) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, Json::Value(text));
}

}  // namespace

bool appendNotification(const std::string& event, const std::string& package) {
    // jsoncpp sorts object members by name; the line keeps its documented
    // member order, so it is put together here from encoded values.
    std::string line = "{\"time\":" + std::to_string(std::time(nullptr)) +
                       ",\"event\":" + jsonString(event) + ",\"package\":" + jsonString(package) +
                       "}\n";
    const auto path = layout::notificationsFile();
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    // One write with O_APPEND keeps lines from concurrent senders whole.
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    return fd && ::write(fd.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

}  // namespace quor
