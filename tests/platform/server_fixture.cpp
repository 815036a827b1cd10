// The package-server test fixture: a real HTTP server per test.
#include "server_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "pkg_manager.h"
#include "pkg_server.h"
#include "quor_core.h"
#include "quorpkg/package/catalog_index.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/installer.h"
#include "quorpkg/store/store.h"
#include "store_fixture.h"

namespace quor::test {
namespace {

// Bounded polling: the count is the limit, the pause only spares the CPU.
constexpr int kPolls = 3000;
constexpr auto kPause = std::chrono::milliseconds(20);

}  // namespace

bool accepts(int port) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return fd && ::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

HttpServer::HttpServer(const fs::path& dir)
    : HttpServer(std::vector<std::string>{"python3", "-u", "-m", "http.server", "0", "--bind",
                                          "127.0.0.1", "--directory", dir.string()}) {}

std::vector<std::string> HttpServer::hostile(const fs::path& dir,
                                             const std::vector<std::string>& slow,
                                             const std::vector<std::string>& endless) {
    std::vector<std::string> command = {"python3", "-u", HOSTILE_SERVER_SCRIPT, dir.string()};
    for (const std::string& name : slow) command.insert(command.end(), {"--slow", name});
    for (const std::string& name : endless) command.insert(command.end(), {"--endless", name});
    return command;
}

std::string HttpServer::log() const {
    return readFile(logDir_.path() / "http.log").value_or("");
}

HttpServer::HttpServer(const std::vector<std::string>& command) {
    const fs::path log = logDir_.path() / "http.log";
    std::vector<char*> argv;
    for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    // The server prints the port it got, then serves.
    static const std::regex kPortLine("port ([0-9]+)");
    for (int i = 0; i < kPolls && port_ == 0; ++i) {
        std::smatch match;
        const std::string text = readFile(log).value_or("");
        if (std::regex_search(text, match, kPortLine))
            port_ = std::stoi(match[1]);
        else
            std::this_thread::sleep_for(kPause);
    }
    for (int i = 0; port_ != 0 && i < kPolls && !accepts(port_); ++i)
        std::this_thread::sleep_for(kPause);
    if (port_ == 0 || !accepts(port_)) {
        stop();
        throw std::runtime_error("the HTTP server did not start: " + readFile(log).value_or(""));
    }
}

HttpServer::~HttpServer() {
    stop();
}

void HttpServer::stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

ClosedPort::ClosedPort() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("cannot bind a local port");
    port_ = ntohs(address.sin_port);
}

ClosedPort::~ClosedPort() {
    if (fd_ >= 0) ::close(fd_);
}

void ServerTest::SetUp() {
    volume1 = root.addVolume(1);
    volume2 = root.addVolume(2);
    repo = files.path() / "repo";
    fs::create_directories(repo);
    channel.emplace(repo);
    QUORPackageTool::PackageManager manager;
    ASSERT_TRUE(manager.init());
}

fs::path ServerTest::publish(const PackageSource& source) {
    const fs::path file = buildTestPackage(repo, source);
    if (channel) channel->sign(file);
    return file;
}

void ServerTest::index() {
    if (channel)
        channel->release();
    else
        index(repo);
}

void ServerTest::index(const fs::path& dir, const SigningKey* key) {
    Json::Value catalog;
    std::string error;
    ASSERT_EQ(buildCatalog(dir, catalog, &error), kOk) << error;
    ASSERT_EQ(writeCatalogFiles(dir, catalog, &error, key), kOk) << error;
}

void ServerTest::serve() {
    index();
    server.emplace(repo);
    writeText(layout::sourcesFile(), sourcesLine(server->url()) + "\n");
}

void ServerTest::serveUnverified() {
    channel.reset();
    serve();
}

std::string ServerTest::sourcesLine(const std::string& url) const {
    return channel ? channel->sourcesLine(url) : "quorserver " + url + " unverified";
}

void ServerTest::installLocal(const PackageSource& source) {
    ASSERT_EQ(installFile(buildTestPackage(files.path(), source)), kOk);
}

std::string ServerTest::lookup(const std::string& name, bool fresh, bool beta,
                               const std::string& lang) {
    Json::Value entry;
    if (!QUORPackageServer::GetPackageInfoFromServer(name, entry, fresh, lang, beta)) return "";
    return entry["version"].asString();
}

Task ServerTest::installFromServer(const std::string& name, const std::string& volume, bool beta) {
    Json::Value entry;
    EXPECT_TRUE(QUORPackageServer::GetPackageInfoFromServer(name, entry, true, "enu", beta))
        << lastResult();
    std::string target = volume;
    if (target.empty() && !QUORPackageTool::PMSGetPackageDefVol(target)) {
        EXPECT_TRUE(QUORPackageTool::PMSGetTmpDir(entry["size"].asUInt64(), target));
    }
    VOLUME_PATH_INFO info;
    std::memset(&info, 0, sizeof info);
    EXPECT_GE(VolumePathParseEx(target.c_str(), &info), 0) << target;
    const bool accepted = QUORPackageServer::BackgroundInstall(
        "admin", info.path, name.c_str(), entry["dname"].asCString(), nullptr,
        entry["type"].asInt() != 0, "enu", entry["size"].asUInt64(), entry["link"].asCString(),
        entry["md5"].asCString(), true, beta);
    EXPECT_TRUE(accepted) << lastResult();
    return accepted ? waitForTask(name) : Task{};
}

std::string Nginx::binary() {
    for (const char* candidate : {"/usr/sbin/nginx", "/usr/local/sbin/nginx", "/usr/bin/nginx"})
        if (::access(candidate, X_OK) == 0) return candidate;
    return {};
}

// Listens on a port the kernel has just handed out and that is free again.
Nginx::Nginx(const std::string& binary, const fs::path& dir, const std::string& extra)
    : port_(ClosedPort().port()) {
    const fs::path home = home_.path();
    fs::create_directories(home / "temp");
    std::string temps;
    for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        temps += std::string("  ") + kind + "_temp_path " + (home / "temp" / kind).string() + ";\n";
    writeText(home / "nginx.conf",
              "daemon off;\nmaster_process off;\nworker_processes 1;\n"
              "pid " +
                  (home / "nginx.pid").string() + ";\nerror_log " + (home / "error.log").string() +
                  ";\nevents { worker_connections 64; }\nhttp {\n"
                  "  log_format requests '$connection $status $bytes_sent \"$request\"';\n"
                  "  access_log " +
                  accessLog().string() + " requests;\n" + temps + "  server { listen 127.0.0.1:" +
                  std::to_string(port_) + "; root " + dir.string() + ";\n" + extra + "\n  }\n}\n");
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::execl(binary.c_str(), binary.c_str(), "-p", home.c_str(), "-e",
                (home / "error.log").c_str(), "-c", (home / "nginx.conf").c_str(), nullptr);
        ::_exit(127);
    }
    for (int i = 0; i < kPolls && !accepts(port_); ++i) std::this_thread::sleep_for(kPause);
}

void Nginx::stop(int signal) {
    if (pid_ > 0 && ::kill(pid_, signal) == 0) ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::vector<Nginx::Request> Nginx::requests() const {
    std::vector<Request> out;
    for (const std::string& line : textLines(readFile(accessLog()).value_or(""))) {
        std::istringstream words(line);
        Request request;
        std::string method;
        words >> request.connection >> request.status >> request.bytes >> method >> request.path;
        out.push_back(request);
    }
    return out;
}

std::vector<int> Nginx::statuses() const {
    std::vector<int> out;
    for (const Request& request : requests()) out.push_back(request.status);
    return out;
}

Task waitForTask(const std::string& name) {
    for (int i = 0; i < kPolls; ++i) {
        std::optional<Task> task = readTask(name);
        if (task && task->finished()) return *task;
        std::this_thread::sleep_for(kPause);
    }
    ADD_FAILURE() << "the installation of " << name << " did not finish";
    return readTask(name).value_or(Task{});
}

std::vector<std::string> ServerTest::staged(const fs::path& volume) const {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(layout::volumeTmpDir(volume), ec))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace quor::test
