// What the package-server tests share: a real HTTP server (python3's
// http.server on 127.0.0.1, on a port the kernel picks) serving a folder of
// package files with its catalog, a temporary device with two volumes, and
// a bounded wait for background installations.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <signal.h>
#include <sys/types.h>

#include <optional>
#include <string>

#include "channel_fixture.h"
#include "quorpkg/package/package_signer.h"
#include "quorpkg/server/task_file.h"
#include "test_support.h"

namespace quor::test {

// python3 -m http.server serving `dir`, or another server `command` that
// prints "port <n>" once it listens on 127.0.0.1; stopped and reaped with
// the object.
class HttpServer {
public:
    explicit HttpServer(const fs::path& dir);
    explicit HttpServer(const std::vector<std::string>& command);
    // The hostile server of tests/platform: `dir` served, the files named
    // in `slow` at two bytes a second, those in `endless` without end.
    static std::vector<std::string> hostile(const fs::path& dir,
                                            const std::vector<std::string>& slow,
                                            const std::vector<std::string>& endless);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // http://127.0.0.1:<port>/
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
    // What the server logged: one line per request.
    std::string log() const;

private:
    void stop();

    TempDir logDir_;
    pid_t pid_ = -1;
    int port_ = 0;
};

// Whether something accepts connections on the local port.
bool accepts(int port);

// A local port that refuses connections for the object's life: bound, never
// listening.
class ClosedPort {
public:
    ClosedPort();
    ~ClosedPort();
    ClosedPort(const ClosedPort&) = delete;
    ClosedPort& operator=(const ClosedPort&) = delete;
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
    // Free again once the object is gone.
    int port() const { return port_; }

private:
    int fd_ = -1;
    int port_ = 0;
};

// nginx in the foreground, one process, serving `dir` on 127.0.0.1 with a
// configuration, pid and logs of its own in a temporary folder; `extra` is
// added to its server block. Its access log has one line per request:
// "<connection> <status> <bytes sent, headers included> <request line>".
// Stopped and reaped with the object.
class Nginx {
public:
    // The installed nginx, or "" when there is none.
    static std::string binary();

    Nginx(const std::string& binary, const fs::path& dir, const std::string& extra = "");
    ~Nginx() { stop(SIGTERM); }
    // SIGKILL drops every connection halfway, as a crash or a cut cable does.
    void stop(int signal);
    Nginx(const Nginx&) = delete;
    Nginx& operator=(const Nginx&) = delete;

    bool running() const { return accepts(port_); }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
    fs::path accessLog() const { return home_.path() / "access.log"; }

    struct Request {
        long connection = 0;
        int status = 0;
        uint64_t bytes = 0;
        std::string path;
    };
    // Every request so far, in order.
    std::vector<Request> requests() const;
    // The HTTP status of every request so far, in order.
    std::vector<int> statuses() const;

private:
    TempDir home_;
    int port_;
    pid_t pid_ = -1;
};

// Polls the task file until the task is done or failed (a bounded number of
// polls; an unfinished task fails the test).
Task waitForTask(const std::string& name);

class ServerTest : public ::testing::Test {
protected:
    void SetUp() override;

    // Builds the package into the served folder, signed by the source's
    // publisher key unless the source is unverified; returns the file.
    fs::path publish(const PackageSource& pkg);
    // A release of the served folder: of the trusted source, or for an
    // unverified one its catalog.json and catalog.hash.
    void index();
    // Rewrites the catalog.json and catalog.hash of a folder, and its
    // catalog.json.sig when a key is given: an unverified source.
    static void index(const fs::path& dir, const SigningKey* key = nullptr);
    // Indexes, starts the server and makes it the only source: trusted
    // through `channel`'s pinned root, or listed as unverified.
    void serve();
    void serveUnverified();
    // The sources line for the served folder at `url`.
    std::string sourcesLine(const std::string& url) const;
    static void setting(const std::string& line) { appendSetting(line); }

    // Installs a package file straight into the store (as a local install).
    void installLocal(const PackageSource& pkg);
    // The version a lookup finds, or "" with the code in lastResult().
    static std::string lookup(const std::string& name, bool fresh = true, bool beta = false,
                              const std::string& lang = "enu");

    // What the tool does for install_from_server, then the background
    // installation's outcome. Fails the test when it is refused.
    Task installFromServer(const std::string& name, const std::string& volume = "",
                           bool beta = false);

    // The names of the files in a volume's staging folder.
    std::vector<std::string> staged(const fs::path& volume) const;

    TempRoot root;
    TempDir files;
    fs::path repo;
    std::optional<TestSource> channel;  // none: the source is unverified
    fs::path volume1, volume2;
    std::optional<HttpServer> server;
};

}  // namespace quor::test
