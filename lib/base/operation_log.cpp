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

// The line, stamped, in the file; the same words in the system log.
void writeLine(const std::string& line, int priority) {
    const std::filesystem::path file = operationLogFile();
    // A root that does not exist is refused, never created, not even by its log.
    if (rootExists()) {
        std::error_code ec;
        std::filesystem::create_directories(file.parent_path(), ec);
        appendCapped(file,
                     formatUtc(nowSeconds()) + " [" + std::to_string(::getpid()) + "] " + line +
                         "\n",
                     kOperationLogCap);
    }
    // No openlog: its name and options are the process's, and the tool's own
    // lines keep theirs.
    ::syslog(priority | LOG_USER, "%s", line.c_str());
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
    writeLine(operationLine(name, package, outcome), outcome.code == kOk ? LOG_INFO : LOG_WARNING);
}

void logPackageChange(const std::string& name, const std::string& what) {
    try {
        writeLine("package " + printable(name) + ": " + printable(what), LOG_NOTICE);
    } catch (...) {
        // The history is worth a line, never a failed change.
    }
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
    writeLine(text, LOG_WARNING);
}

}  // namespace quor
