#include "ZVBenchNginx.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <curl/curl.h>
#include <fmt/format.h>

namespace zvbench {

namespace fs = std::filesystem;

std::string Placement::describe() const {
  if (clientCPU < 0) return "client and nginx placed by the scheduler";
  if (serverCPU == clientCPU)
    return fmt::format("one CPU: client and nginx both pinned to CPU {}", clientCPU);
  return fmt::format("client pinned to CPU {}, nginx to CPU {}", clientCPU, serverCPU);
}

Placement pinClientAndPickServerCPU() {
  Placement placement;
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return placement;
  int first = -1;
  int second = -1;
  for (int cpu = 0; cpu < CPU_SETSIZE && second < 0; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    (first < 0 ? first : second) = cpu;
  }
  if (first < 0) return placement;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(first, &one);
  if (sched_setaffinity(0, sizeof one, &one) != 0) return placement;
  placement.clientCPU = first;
  placement.serverCPU = second < 0 ? first : second;
  return placement;
}

namespace {

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::string readAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// A port that nothing listens on now; nginx binds it a moment later.
int freePort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    port = ntohs(address.sin_port);
  if (fd >= 0) close(fd);
  if (port == 0) throw std::runtime_error("no free loopback port");
  return port;
}

bool accepting(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  const bool ok =
      fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  if (fd >= 0) close(fd);
  return ok;
}

std::string nginxBinary() {
  for (const char* candidate : {"/usr/sbin/nginx", "/usr/local/sbin/nginx"})
    if (access(candidate, X_OK) == 0) return candidate;
  return "nginx";  // from PATH
}

std::string config(const fs::path& dir, int httpPort, int httpsPort, int workers) {
  const std::string d = dir.string();
  // Run as root, the worker would otherwise switch to "nobody", who may not
  // read a work directory made by mktemp.
  const std::string user = geteuid() == 0 ? "user root;\n" : "";
  return fmt::format(R"({user}worker_processes {workers};
daemon off;
pid {d}/nginx.pid;
events {{ worker_connections 1024; }}
http {{
  access_log off;
  client_body_temp_path {d}/tmp/body;
  proxy_temp_path {d}/tmp/proxy;
  fastcgi_temp_path {d}/tmp/fastcgi;
  uwsgi_temp_path {d}/tmp/uwsgi;
  scgi_temp_path {d}/tmp/scgi;
  # The clients keep their connections for the whole run.
  keepalive_timeout 600s;
  keepalive_requests 100000000;
  sendfile on;
  # A worker serves nothing else while it sends a chunk: at the 2m
  # default, a 14.6 MB answer held small ones for 7 to 9 ms at a time, a
  # stall of the server's that the latency figures would lay on the client.
  sendfile_max_chunk 256k;
  tcp_nopush on;
  tcp_nodelay on;
  default_type application/json;
  server {{
    listen 127.0.0.1:{httpPort};
    listen 127.0.0.1:{httpsPort} ssl http2;
    ssl_certificate {d}/cert.pem;
    ssl_certificate_key {d}/key.pem;
    root {d}/html;
    location = /api/v1/apps/bench/offers {{ try_files /offers-$arg_locale.json =404; }}
    location = /api/v1/apps/bench/orders {{ try_files /orders.json =404; }}
    location = /status {{ stub_status; }}
  }}
}}
)",
                     fmt::arg("user", user), fmt::arg("workers", workers), fmt::arg("d", d),
                     fmt::arg("httpPort", httpPort), fmt::arg("httpsPort", httpsPort));
}

}  // namespace

Nginx::Nginx(const std::string& dir, const std::map<std::string, std::string>& files, int cpu,
             int workers)
    : dir_(fs::absolute(dir).string()) {
  const fs::path root(dir_);
  fs::remove_all(root);
  fs::create_directories(root / "html");
  fs::create_directories(root / "tmp");
  for (const auto& [name, body] : files) writeFile(root / "html" / name, body);

  caFile_ = (root / "cert.pem").string();
  const std::string openssl = fmt::format(
      "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1 "
      "-addext subjectAltName=IP:127.0.0.1 -keyout {}/key.pem -out {} >/dev/null 2>&1",
      dir_, caFile_);
  if (std::system(openssl.c_str()) != 0)
    throw std::runtime_error("the openssl tool could not make a certificate");

  httpPort_ = freePort();
  httpsPort_ = freePort();
  while (httpsPort_ == httpPort_) httpsPort_ = freePort();
  const fs::path conf = root / "nginx.conf";
  writeFile(conf, config(root, httpPort_, httpsPort_, workers));

  const std::string binary = nginxBinary();
  const std::string log = (root / "error.log").string();
  {
    const std::string versionFile = (root / "version.txt").string();
    const std::string command = fmt::format("{} -v 2>{}", binary, versionFile);
    if (std::system(command.c_str()) == 0) {
      version_ = readAll(versionFile);
      const size_t at = version_.find("nginx/");
      version_ = at == std::string::npos ? "nginx" : version_.substr(at);
      while (!version_.empty() && (version_.back() == '\n' || version_.back() == ' '))
        version_.pop_back();
    }
  }

  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    // Leaves with the benchmark even when it dies.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (cpu >= 0) {
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(cpu, &one);
      sched_setaffinity(0, sizeof one, &one);
    }
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (out >= 0) {
      dup2(out, STDOUT_FILENO);
      dup2(out, STDERR_FILENO);
    }
    execlp(binary.c_str(), "nginx", "-p", dir_.c_str(), "-c", conf.c_str(), "-e", log.c_str(),
           static_cast<char*>(nullptr));
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!(accepting(httpPort_) && accepting(httpsPort_))) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_ || std::chrono::steady_clock::now() > deadline) {
      if (kill(pid_, 0) == 0) kill(pid_, SIGTERM);
      waitpid(pid_, &status, 0);
      pid_ = -1;
      throw std::runtime_error("nginx did not start:\n" + readAll(log));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

Nginx::~Nginx() {
  if (status_ != nullptr) curl_easy_cleanup(static_cast<CURL*>(status_));
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);  // fast shutdown: the master stops its worker and exits
  int status = 0;
  waitpid(pid_, &status, 0);
}

namespace {

size_t keep(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

}  // namespace

long Nginx::acceptedConnections() const {
  if (status_ == nullptr) {
    CURL* easy = curl_easy_init();
    if (easy == nullptr) return -1;
    curl_easy_setopt(easy, CURLOPT_URL,
                     fmt::format("http://127.0.0.1:{}/status", httpPort_).c_str());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, keep);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &statusText_);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    status_ = easy;
  }
  statusText_.clear();
  if (curl_easy_perform(static_cast<CURL*>(status_)) != CURLE_OK) return -1;
  // "Active connections: 1 \nserver accepts handled requests\n 16 16 31 \n..."
  std::istringstream in(statusText_);
  std::string line;
  std::getline(in, line);
  std::getline(in, line);
  long accepts = -1;
  in >> accepts;
  // This handle's own connection is counted once, when it is first opened.
  return accepts;
}

std::unique_ptr<Nginx> startNginx(const char* program, const std::string& dir,
                                  const std::map<std::string, std::string>& files, int cpu,
                                  int workers) {
  try {
    return std::make_unique<Nginx>(dir, files, cpu, workers);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", program, e.what());
    return nullptr;
  }
}

}  // namespace zvbench
