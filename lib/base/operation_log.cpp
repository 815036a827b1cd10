#include "base/operation_log.h"

#include <syslog.h>
#include <unistd.h>

#include <mutex>
#include <set>
#include <system_error>

#include "base/capped_file.h"
#include "base/result.h"
#include "base/system_root.h"
#include "base/utc_time.h"

namespace quor {
namespace {

// One line per operation, whatever a package name or a script said.
std::string printable(std::string text) {
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
    return text;
}

std::string stampedLine(const std::string& line) {
    return formatUtc(nowSeconds()) + " [" + std::to_string(::getpid()) + "] " + line + "\n";
}

}  // namespace

std::filesystem::path operationLogFile() {
    return hostPath("/var/log/quorpkg.log");
}

std::string operationLine(const std::string& name, const std::string& package,
                          const Outcome& outcome) {
    return printable(name) + " " + (package.empty() ? "-" : printable(package)) + ": " +
           std::to_string(outcome.code) + " " + printable(outcome.reason);
}

void logOperation(const std::string& name, const std::string& package, const Outcome& outcome) {
    const std::string line = operationLine(name, package, outcome);
    const std::filesystem::path file = operationLogFile();
    // A root that does not exist is refused, never created, not even by its log.
    if (rootExists()) {
        std::error_code ec;
        std::filesystem::create_directories(file.parent_path(), ec);
        appendCapped(file, stampedLine(line), kOperationLogCap);
    }
    // No openlog: its name and options are the process's, and the tool's own
    // lines keep theirs.
    ::syslog((outcome.code == kOk ? LOG_INFO : LOG_WARNING) | LOG_USER, "%s", line.c_str());
}

void logFileProblem(const std::filesystem::path& file, size_t line, const std::string& message) {
    const std::string text =
        printable(file.string() + (line > 0 ? ":" + std::to_string(line) : "") + ": " + message);
    {
        static std::mutex mutex;
        static std::set<std::string> logged;
        std::lock_guard<std::mutex> lock(mutex);
        if (!logged.insert(text).second) return;
    }
    // A bad line of a configuration file is worth its log line even while
    // reading: the administrator must learn that it was skipped.
    const std::filesystem::path log = operationLogFile();
    std::error_code ec;
    if (rootExists() && (std::filesystem::create_directories(log.parent_path(), ec), !ec))
        appendCapped(log, stampedLine(text), kOperationLogCap);
    ::syslog(LOG_WARNING | LOG_USER, "%s", text.c_str());
}

}  // namespace quor
