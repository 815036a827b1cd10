// Hardware control on our platform: each request is appended as one line,
// "<command> <value bytes in hex>", to /run/hwcontrol/requests, where the
// device's hardware service (or a test) reads it.
#include "hw_control.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/operation.h"
#include "base/result.h"

namespace {

// The helpers answer through their return value alone: their outcome goes
// to the platform log, never to a manager's getResult().
quor::ResultSlot& helperResults() {
    static quor::ResultSlot slot;
    return slot;
}

}  // namespace

int QUORHWExternalControl(int command, int length, const char* buffer) {
    quor::Operation operation("QUORHWExternalControl", std::to_string(command), helperResults(),
                              quor::LogPolicy::kAlways);
    if (length < 0 || (length > 0 && buffer == nullptr)) {
        quor::fail(quor::kBadArgument, "no request bytes given");
        return -1;
    }
    // The value is the text in the buffer: its bytes up to the terminator.
    std::string line = std::to_string(command) + ' ';
    for (int i = 0; i < length && buffer[i] != '\0'; ++i) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(buffer[i]));
        line += hex;
    }
    line += '\n';
    const auto path = quor::layout::hwRequestsFile();
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    // O_APPEND keeps concurrent writers' lines whole.
    quor::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    const bool written =
        fd && ::write(fd.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size());
    if (!written) {
        quor::fail(quor::kStoreUnusable, "cannot append to " + path.string());
        return -1;
    }
    return 0;
}
