// zv_bench_transport: request rate through ZVGenericRequestManager against a
// loopback server, beside raw libcurl against the same server in the same
// run: a multi loop with 16 requests in flight, and one reused easy handle
// for sequential requests. Both sides send the same request and keep the
// answer's body; ours also parses it and runs the completion handler. The two
// sides take turns within every iteration, a batch each, so that they meet
// the same speed of a shared machine. Plain HTTP/1.1 against a minimal
// server, HTTPS (HTTP/1.1) against a TLS server with a self-signed
// certificate, and HTTPS over HTTP/2 against the test suite's nghttp2 server,
// where both sides multiplex their requests over one connection. Prints one
// line per pair with the ratio and how many connections the server saw during
// a batch (reuse keeps it at the number in flight over HTTP/1.1, at one over
// HTTP/2).
//
// Sequential pairs run with every thread of the process on one CPU. One
// request at a time is a ping-pong between two threads, client and server,
// and on a 2-CPU virtual machine its cost depends mostly on where the
// scheduler puts them: forced onto two CPUs, each exchange took about four
// times as long as on one, for raw libcurl and for us alike, and left free
// the pair flips between the two placements from one batch to the next. On
// one CPU both sides meet the same placement, so the ratio measures the work
// each does per request. The same pairs with placement left to the scheduler
// are printed beside them.
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sched.h>
#include <sys/types.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fmt/format.h>
#include <httplib.h>

#include <ZorvaneCoreKit/Zorvane.h>
#include "http/ZVGenericRequest.h"
#include "http/ZVGenericRequestManager.h"

#include "ZVBenchReport.h"
#include "ZVBenchSupport.h"
#include "ZVHTTP2Server.h"

namespace {

constexpr int kInFlight = 16;
constexpr int kBatch = 512;  // requests per benchmark iteration
constexpr const char* kBody = R"({"status":"ok","offers":[]})";
constexpr const char* kPath = "/api/v1/apps/bench/offers";

// A loopback server that answers every offers request with a small body and
// counts the connections it was reached on.
class Server {
 public:
  Server(bool tls, const std::string& certFile, const std::string& keyFile) {
    if (tls)
      server_ = std::make_unique<httplib::SSLServer>(certFile.c_str(), keyFile.c_str());
    else
      server_ = std::make_unique<httplib::Server>();
    // One worker per kept-alive connection: the default pool of 8 would leave
    // half of 16 clients waiting for an idle connection to time out.
    server_->new_task_queue = [] { return new httplib::ThreadPool(64); };
    server_->set_keep_alive_max_count(1000000);
    // Kept open while the other side's runs take their turn, so that no run
    // opens its connections again in a burst.
    server_->set_keep_alive_timeout(600);
    server_->set_tcp_nodelay(true);  // else headers and body wait on delayed ACKs
    server_->Get(kPath, [this](const httplib::Request& request, httplib::Response& response) {
      {
        std::lock_guard lock(mutex_);
        ports_.insert(request.remote_port);
      }
      response.set_content(kBody, "application/json");
    });
    port_ = server_->bind_to_any_port("127.0.0.1");
    // Bound and listening already: connections queue until the loop accepts them.
    thread_ = std::thread([this] { server_->listen_after_bind(); });
  }
  ~Server() {
    server_->stop();
    thread_.join();
  }
  int port() const { return port_; }
  size_t takeConnections() {
    std::lock_guard lock(mutex_);
    const size_t n = ports_.size();
    ports_.clear();
    return n;
  }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
  std::mutex mutex_;
  std::set<int> ports_;  // guarded by mutex_
};

struct Target {
  std::string scheme;
  int port = 0;
  std::string caFile;
  bool http2 = false;  // HTTP/2 over TLS, requests multiplexed on a connection
  // Distinct connections that served requests since the last call.
  std::function<size_t()> takeConnections;
  std::string url() const {
    return fmt::format("{}://127.0.0.1:{}{}?locale=en_CA", scheme, port, kPath);
  }
};

// The raw side keeps the body as a client must before it can read it; the
// SDK does the same and then parses it.
size_t keepBody(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

// One raw easy handle with the body it receives and the same request headers
// as the SDK sends, so that the server does the same work for both sides.
struct RawHandle {
  CURL* easy = nullptr;
  std::string body;
  curl_slist* headers = nullptr;
};

void setUp(RawHandle& raw, const Target& target, const std::string& url) {
  raw.easy = curl_easy_init();
  CURL* easy = raw.easy;
  for (const char* line : {"Accept: application/json", "Authorization: Bearer bench-token",
                           "User-Agent: ZorvaneRewardsKit/3.0.0", "Expect:"})
    raw.headers = curl_slist_append(raw.headers, line);
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, raw.headers);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, keepBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &raw.body);
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &raw.body);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  if (target.http2) {
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2TLS);
    // Waits for the connection being opened rather than opening another.
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
  } else {
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
  }
  if (!target.caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, target.caFile.c_str());
}

// Raw libcurl handles kept for the whole program, as the SDK keeps its
// transport: warm-up and every run reuse the same connections.
struct RawMulti {
  CURLM* multi = nullptr;
  std::vector<RawHandle> handles;
};

int64_t rawBatch(RawMulti& raw, int width, int total);

std::map<const Target*, RawMulti> rawMultis;
std::map<std::pair<const Target*, bool>, RawHandle> rawEasies;

// Closes every connection to the servers, so that they stop at once instead
// of waiting for kept-alive connections to time out.
void closeConnections() {
  auto free = [](RawHandle& handle) {
    curl_easy_cleanup(handle.easy);
    curl_slist_free_all(handle.headers);
  };
  for (auto& [target, raw] : rawMultis) {
    for (RawHandle& handle : raw.handles) free(handle);
    curl_multi_cleanup(raw.multi);
  }
  rawMultis.clear();
  for (auto& [key, handle] : rawEasies) free(handle);
  rawEasies.clear();
  // Drops the SDK's transport, and its connections with it.
  ZVGenericRequestManager::instance()->setTransport(nullptr);
}

RawMulti& rawMultiFor(const Target& target) {
  RawMulti& raw = rawMultis[&target];
  if (raw.multi == nullptr) {
    raw.multi = curl_multi_init();
    curl_multi_setopt(raw.multi, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(kInFlight));
    // Keeps the connections while no handle is attached between iterations.
    curl_multi_setopt(raw.multi, CURLMOPT_MAXCONNECTS, static_cast<long>(2 * kInFlight));
    curl_multi_setopt(raw.multi, CURLMOPT_PIPELINING,
                      target.http2 ? CURLPIPE_MULTIPLEX : CURLPIPE_NOTHING);
    raw.handles.resize(kInFlight);
    for (RawHandle& handle : raw.handles) setUp(handle, target, target.url());
    // Opens the connections a few at a time: the server's listen backlog is
    // small, and a burst of 16 connects loses SYNs to a one-second retry.
    for (int width = 4; width <= kInFlight; width += 4) rawBatch(raw, width, width);
  }
  return raw;
}

// Runs `total` requests with `width` in flight; returns the failures.
int64_t rawBatch(RawMulti& raw, int width, int total) {
  int64_t failures = 0;
  int started = 0;
  int finished = 0;
  for (int i = 0; i < width; ++i) {
    raw.handles[i].body.clear();
    curl_multi_add_handle(raw.multi, raw.handles[i].easy);
    ++started;
  }
  while (finished < total) {
    int running = 0;
    curl_multi_perform(raw.multi, &running);
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(raw.multi, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      CURL* easy = message->easy_handle;
      if (message->data.result != CURLE_OK) ++failures;
      curl_multi_remove_handle(raw.multi, easy);
      ++finished;
      if (started < total) {
        std::string* body = nullptr;
        curl_easy_getinfo(easy, CURLINFO_PRIVATE, &body);
        body->clear();
        curl_multi_add_handle(raw.multi, easy);
        ++started;
      }
    }
    if (finished < total) curl_multi_poll(raw.multi, nullptr, 0, 1000, nullptr);
  }
  return failures;
}

void rawEasy(benchmark::State& state, const Target* target) {
  const bool reuse = state.range(0) != 0;
  RawHandle& raw = rawEasies[{target, reuse}];
  if (raw.easy == nullptr) {
    setUp(raw, *target, target->url());
    if (!reuse) curl_easy_setopt(raw.easy, CURLOPT_FORBID_REUSE, 1L);
  }
  int64_t failures = 0;
  for (auto _ : state) {
    raw.body.clear();
    if (curl_easy_perform(raw.easy) != CURLE_OK) ++failures;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["connections"] = static_cast<double>(target->takeConnections());
  if (failures != 0) state.SkipWithError("requests failed");
}

// Confines every thread of the process to the CPU the caller runs on, for
// its lifetime; then each thread gets its CPUs back, and threads started in
// the meantime get the caller's.
class OneCPU {
 public:
  OneCPU() {
    const int cpu = sched_getcpu();
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu < 0 ? 0 : cpu, &one);
    sched_getaffinity(0, sizeof callerMask_, &callerMask_);
    for (const pid_t tid : threads()) {
      cpu_set_t mask;
      if (sched_getaffinity(tid, sizeof mask, &mask) == 0 &&
          sched_setaffinity(tid, sizeof one, &one) == 0)
        saved_[tid] = mask;
    }
  }
  ~OneCPU() {
    for (const pid_t tid : threads()) {
      const auto found = saved_.find(tid);
      const cpu_set_t& mask = found != saved_.end() ? found->second : callerMask_;
      sched_setaffinity(tid, sizeof mask, &mask);
    }
  }
  OneCPU(const OneCPU&) = delete;
  OneCPU& operator=(const OneCPU&) = delete;

 private:
  static std::vector<pid_t> threads() {
    std::vector<pid_t> tids;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task", ec))
      tids.push_back(static_cast<pid_t>(std::stol(entry.path().filename().string())));
    return tids;
  }
  cpu_set_t callerMask_;
  std::map<pid_t, cpu_set_t> saved_;
};

// Completion counting shared with the transport's thread.
struct Tally {
  std::mutex mutex;
  std::condition_variable cv;
  int done = 0;      // guarded by mutex
  int failures = 0;  // guarded by mutex
};

void configure(const Target& target) {
  ZVConfiguration config;
  config.serviceHost = fmt::format("{}://127.0.0.1:{}", target.scheme, target.port);
  config.allowInsecureHTTP = true;
  config.appID = "bench";
  config.accessToken = "bench-token";
  config.caFile = target.caFile;
  Zorvane::configure(config);
}

std::shared_ptr<ZVGenericRequest> offersRequest() {
  auto builder =
      ZVGenericRequestBuilder::requestBuilderWithMethod(ZVRequestMethodRead, "kind.bench.offers");
  builder->setBaseURL("https://:host/api/v1/apps/:appid/offers");
  builder->params().setObject("locale", "en_CA");
  return builder->build();
}

// Opens the SDK's connections a few at a time, as for the raw loop.
void primeSDK(const Target& target) {
  static std::set<const Target*> primed;
  if (!primed.insert(&target).second) return;
  ZVGenericRequestManager* manager = ZVGenericRequestManager::instance();
  const auto request = offersRequest();
  for (int width = 4; width <= kInFlight; width += 4) {
    Tally tally;
    for (int i = 0; i < width; ++i)
      manager->sendRequest(request, [&](const std::string&, std::shared_ptr<ZVGenericResponse>,
                                        ZVErrorPtr, ZVDictionaryPtr) {
        std::lock_guard lock(tally.mutex);
        ++tally.done;
        tally.cv.notify_one();
      });
    std::unique_lock lock(tally.mutex);
    tally.cv.wait(lock, [&] { return tally.done == width; });
  }
}

// Sends `total` requests through the SDK with `width` in flight; each answer
// sends the next request from the transport's thread, as the raw loop re-adds
// a handle (or calls curl_easy_perform again) as soon as one finishes. A
// width of 1 is the sequential case: each request counts from its send to its
// handler having run. Returns the failures.
int sdkBatch(const std::shared_ptr<ZVGenericRequest>& request, int width, int total) {
  ZVGenericRequestManager* manager = ZVGenericRequestManager::instance();
  Tally tally;
  std::atomic<int> sent{0};
  std::function<void()> sendOne;
  sendOne = [&] {
    manager->sendRequest(request, [&](const std::string&, std::shared_ptr<ZVGenericResponse>,
                                      ZVErrorPtr error, ZVDictionaryPtr) {
      if (sent.fetch_add(1) + width < total) sendOne();
      std::lock_guard lock(tally.mutex);
      if (error) ++tally.failures;
      if (++tally.done == total) tally.cv.notify_one();
    });
  };
  for (int i = 0; i < width; ++i) sendOne();
  std::unique_lock lock(tally.mutex);
  tally.cv.wait(lock, [&] { return tally.done == total; });
  return tally.failures;
}

// Ours and raw libcurl take turns within each iteration, a batch each, in a
// rotating order: on a shared machine whose speed drifts from second to
// second, both sides of the ratio then meet the same conditions. With 16 in
// flight the raw side is a multi loop; sequential, one reused easy handle.
// Each repetition reports both rates, their ratio and the most connections
// the server saw during one batch of either side.
void paired(benchmark::State& state, const Target* target, int width, bool oneCPU) {
  std::optional<OneCPU> pinned;
  if (oneCPU) pinned.emplace();
  configure(*target);
  RawMulti* multi = nullptr;
  RawHandle* easy = nullptr;
  if (width > 1) {
    primeSDK(*target);
    multi = &rawMultiFor(*target);
  } else {
    easy = &rawEasies[{target, true}];
    if (easy->easy == nullptr) setUp(*easy, *target, target->url());
  }
  const auto request = offersRequest();
  target->takeConnections();   // what the set-up opened
  double seconds[2] = {0, 0};  // ours, raw
  size_t connections[2] = {0, 0};
  int64_t failures = 0;
  int turn = 0;
  for (auto _ : state) {
    const double before = seconds[0] + seconds[1];
    for (int part = 0; part < 2; ++part) {
      const int side = (turn + part) % 2;
      const auto start = std::chrono::steady_clock::now();
      if (side == 0) {
        failures += sdkBatch(request, width, kBatch);
      } else if (multi != nullptr) {
        failures += rawBatch(*multi, kInFlight, kBatch);
      } else {
        for (int i = 0; i < kBatch; ++i) {
          easy->body.clear();
          if (curl_easy_perform(easy->easy) != CURLE_OK) ++failures;
        }
      }
      seconds[side] +=
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      connections[side] = std::max(connections[side], target->takeConnections());
    }
    ++turn;
    state.SetIterationTime(seconds[0] + seconds[1] - before);
  }
  const double requests = static_cast<double>(state.iterations() * kBatch);
  state.counters["sdk_rps"] = requests / seconds[0];
  state.counters["raw_rps"] = requests / seconds[1];
  state.counters["ratio"] = seconds[1] / seconds[0];
  state.counters["sdk_connections"] = static_cast<double>(connections[0]);
  state.counters["raw_connections"] = static_cast<double>(connections[1]);
  if (failures != 0) state.SkipWithError("requests failed");
}

// One request at a time from a thread that waits for each answer: adds the
// wakeup of that thread by the handler, which the raw loop does not have.
// Printed beside the sequential figure, not held against the target.
void sdkSequentialWaiting(benchmark::State& state, const Target* target) {
  configure(*target);
  ZVGenericRequestManager* manager = ZVGenericRequestManager::instance();
  const auto request = offersRequest();
  Tally tally;
  for (auto _ : state) {
    manager->sendRequest(request, [&](const std::string&, std::shared_ptr<ZVGenericResponse>,
                                      ZVErrorPtr error, ZVDictionaryPtr) {
      std::lock_guard lock(tally.mutex);
      if (error) ++tally.failures;
      ++tally.done;
      tally.cv.notify_one();
    });
    std::unique_lock lock(tally.mutex);
    tally.cv.wait(lock, [&] { return tally.done > 0; });
    tally.done = 0;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["connections"] = static_cast<double>(target->takeConnections());
  if (tally.failures != 0) state.SkipWithError("requests failed");
}

// A self-signed certificate for 127.0.0.1, made with the openssl tool.
bool makeCertificate(const std::string& dir, std::string& cert, std::string& key) {
  cert = dir + "/cert.pem";
  key = dir + "/key.pem";
  const std::string command = fmt::format(
      "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
      "-addext subjectAltName=IP:127.0.0.1 -keyout {} -out {} >/dev/null 2>&1",
      key, cert);
  return std::system(command.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> args(argv, argv + argc);
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  args.insert(args.begin() + 1, interleave);  // a later flag on the command line still wins
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  zvbench::quietSDK();
  curl_global_init(CURL_GLOBAL_DEFAULT);

  Server plain(false, "", "");
  Target http{"http", plain.port(), "", false, [&] { return plain.takeConnections(); }};

  std::error_code ec;
  const auto dir = std::filesystem::temp_directory_path() / fmt::format("zv-bench-{}", getpid());
  std::filesystem::create_directories(dir, ec);
  std::string cert, key;
  std::unique_ptr<Server> secure;
  Target https;
  if (makeCertificate(dir.string(), cert, key)) {
    secure = std::make_unique<Server>(true, cert, key);
    https = {"https", secure->port(), cert, false, [&] { return secure->takeConnections(); }};
  } else {
    fmt::print(stderr, "zv_bench_transport: no openssl tool; HTTPS not measured\n");
  }

  zvtest::ZVHTTP2Server multiplexing(kBody);
  Target h2{"https", multiplexing.port(), multiplexing.caFile(), true,
            [&] { return multiplexing.takeServingConnections(); }};

  std::vector<std::pair<std::string, const Target*>> targets = {{"http1", &http}};
  if (secure) targets.emplace_back("https1", &https);
  targets.emplace_back("h2", &h2);
  // Short repetitions, medians kept; the pairs and the side figures run in
  // a shuffled order.
  auto measure = [](benchmark::internal::Benchmark* bench) {
    return bench->MinTime(0.4)->MinWarmUpTime(0.05)->Repetitions(15)->ReportAggregatesOnly(true);
  };
  for (const auto& [name, target] : targets) {
    measure(benchmark::RegisterBenchmark(("inflight16/" + name).c_str(), paired, target, kInFlight,
                                         false))
        ->UseManualTime();
    measure(benchmark::RegisterBenchmark(("sequential/" + name).c_str(), paired, target, 1, true))
        ->UseManualTime();
    measure(benchmark::RegisterBenchmark(("sequential_unpinned/" + name).c_str(), paired, target, 1,
                                         false))
        ->UseManualTime();
    measure(benchmark::RegisterBenchmark(("sdk_sequential_waiting/" + name).c_str(),
                                         sdkSequentialWaiting, target))
        ->UseRealTime();
  }
  if (secure)
    benchmark::RegisterBenchmark("raw_easy_new_connection/https1", rawEasy, &https)
        ->Arg(0)
        ->UseRealTime();

  // The table goes to stderr so that stdout holds only the result lines.
  zvbench::CollectingReporter reporter;
  reporter.SetOutputStream(&std::cerr);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  closeConnections();

  auto rate = [&](const std::string& name) {
    return reporter.counter(name + "/real_time", "items_per_second");
  };
  for (const auto& [name, target] : targets) {
    auto pair = [&](const std::string& pattern, const char* counter) {
      return reporter.counter(pattern + "/" + name + "/manual_time", counter);
    };
    fmt::print(
        "transport {} inflight=16 sdk_rps={:.0f} raw_multi_rps={:.0f} ratio={:.3f} "
        "sdk_connections={:.0f} raw_connections={:.0f}\n",
        name, pair("inflight16", "sdk_rps"), pair("inflight16", "raw_rps"),
        pair("inflight16", "ratio"), pair("inflight16", "sdk_connections"),
        pair("inflight16", "raw_connections"));
    const double easy = pair("sequential", "raw_rps");
    // The waiting thread runs with placement left to the scheduler.
    const double unpinnedEasy = pair("sequential_unpinned", "raw_rps");
    const double waiting = rate("sdk_sequential_waiting/" + name);
    fmt::print(
        "transport {} sequential sdk_rps={:.0f} raw_easy_rps={:.0f} ratio={:.3f} "
        "sdk_connections={:.0f} raw_connections={:.0f} unpinned_sdk_rps={:.0f} "
        "unpinned_raw_easy_rps={:.0f} unpinned_ratio={:.3f} sdk_waiting_thread_rps={:.0f} "
        "waiting_ratio={:.3f}\n",
        name, pair("sequential", "sdk_rps"), easy, pair("sequential", "ratio"),
        pair("sequential", "sdk_connections"), pair("sequential", "raw_connections"),
        pair("sequential_unpinned", "sdk_rps"), pair("sequential_unpinned", "raw_rps"),
        pair("sequential_unpinned", "ratio"), waiting,
        unpinnedEasy > 0 ? waiting / unpinnedEasy : 0.0);
  }
  if (secure)
    fmt::print("transport https1 new_connection_per_request raw_easy_rps={:.0f}\n",
               rate("raw_easy_new_connection/https1/0"));
  std::filesystem::remove_all(dir, ec);
  return 0;
}
