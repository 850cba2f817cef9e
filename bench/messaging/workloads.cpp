#include "messaging/workloads.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "messaging/report.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = Peer::Seconds;

bool isWanted(char letter) {
  const char* letters = std::getenv("BENCH_ONLY");
  return !letters || std::strchr(letters, letter);
}

/// Of a line of /proc/<process>/status.
long statusOf(pid_t process, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(field + ":")) return std::stol(line.substr(field.size() + 1));
  throw std::runtime_error("no " + field + " of process " + std::to_string(process));
}

class Run {
 public:
  Run(const Kind& kind, std::uint16_t port, pid_t server)
      : kind_(kind), port_(port), server_(server) {}

  void all() {
    if (isWanted('F')) idleServer();
    if (isWanted('E') && kind_.reportInProcess) kind_.reportInProcess();
    if (isWanted('F')) connections();
    peer_ = connect();
    if (isWanted('A')) oneAtATime();
    if (isWanted('B')) inFlight();
    if (isWanted('C')) echoes();
    if (isWanted('D')) lists();
    if (isWanted('G')) clients();
  }

 private:
  using Peers = std::vector<std::unique_ptr<Peer>>;

  std::unique_ptr<Peer> connect() const { return kind_.connect(port_); }

  Peers connectAndCall(int count) const {
    Peers peers;
    for (int i = 0; i < count; ++i) addOne(*peers.emplace_back(connect()), i);
    return peers;
  }

  static void addOne(Peer& peer, int number) {
    if (peer.add(number, 2) != number + 2) throw std::runtime_error("a wrong sum");
  }

  void report(const char* workload, const std::string& metric, double value,
              const char* unit) const {
    bench::report(kind_.name, workload, metric.c_str(), value, unit);
  }
  void reportRate(const char* workload, const std::string& metric, double rate) const {
    if (rate > 0) report(workload, metric, rate, "calls/s");
  }

  void oneAtATime() {
    latencies("", [&](int i) { addOne(*peer_, i); });
    if (!peer_->addUntyped(1, 2)) return;
    latencies("untyped_", [&](int i) {
      if (!peer_->addUntyped(i, 2)) throw std::runtime_error("a wrong sum");
    });
  }

  void latencies(const std::string& how, const std::function<void(int)>& call) const {
    const int calls = std::max(100, static_cast<int>(20000 * scale()));
    for (int i = 0; i < calls / 10; ++i) call(i);
    std::vector<double> microseconds;
    auto last = Clock::now();
    for (int i = 0; i < calls; ++i) {
      call(i);
      const auto now = Clock::now();
      microseconds.push_back(Seconds(now - last).count() * 1e6);
      last = now;
    }
    std::sort(microseconds.begin(), microseconds.end());
    report("A", how + "p50", microseconds[microseconds.size() / 2], "us");
    report("A", how + "p99", microseconds[microseconds.size() * 99 / 100], "us");
  }

  void inFlight() {
    reportRate("B", "inflight64", peer_->addInFlight(Seconds(scale())));
    reportRate("B", "queued64", peer_->addQueued(Seconds(scale())));
    constexpr int threads = 8;
    if (peer_->isShareable())
      reportRate("B", "threads8_one_connection",
                 rateOfThreads(threads, [this](int) -> Peer& { return *peer_; }));
  }

  void echoes() {
    for (const std::size_t kib : {1u, 64u, 1024u})
      reportRate("C", "echo" + std::to_string(kib) + "K", rateOf([&] {
                   if (peer_->echo(kib << 10) != kib << 10)
                     throw std::runtime_error("a wrong echo");
                 }));
  }

  void lists() {
    reportRate("D", "list100", rateOf([&] {
                 if (peer_->list() != Peer::listSize) throw std::runtime_error("a wrong list");
               }));
  }

  void clients() {
    for (const int count : {1, 4, 16, 64}) {
      const Peers peers = connectAndCall(count);
      reportRate("G", "threads" + std::to_string(count), rateOfThreads(count, [&](int i) -> Peer& {
                   return *peers[static_cast<std::size_t>(i)];
                 }));
    }
  }

  void idleServer() const {
    report("F", "server_idle_rss", static_cast<double>(statusOf(server_, "VmRSS")), "KiB");
    report("F", "server_idle_threads", static_cast<double>(statusOf(server_, "Threads")),
           "threads");
  }

  void connections() const {
    const int count = std::max(10, static_cast<int>(1000 * scale()));
    const auto residentKiB = [](pid_t process) { return statusOf(process, "VmRSS"); };
    const long server = residentKiB(server_), client = residentKiB(::getpid());
    const auto start = Clock::now();
    const Peers peers = connectAndCall(count);
    const Seconds took = Clock::now() - start;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto each = [count](double all) { return all / count; };
    report("F", "server_per_connection", each(static_cast<double>(residentKiB(server_) - server)),
           "KiB");
    report("F", "client_per_connection",
           each(static_cast<double>(residentKiB(::getpid()) - client)), "KiB");
    report("F", "connect_and_call", each(took.count() * 1e6), "us");
  }

  template <class Call>
  static double rateOf(Call call) {
    const Seconds time(0.7 * scale());
    for (const auto start = Clock::now(); Clock::now() - start < time / 7;) call();
    long calls = 0;
    const auto start = Clock::now();
    Seconds took{};
    for (; took < time; took = Clock::now() - start, ++calls) call();
    return static_cast<double>(calls) / took.count();
  }

  static double rateOfThreads(int count, const std::function<Peer&(int)>& peerOf) {
    std::atomic<bool> isOver{false};
    const auto start = Clock::now();
    std::vector<std::future<long>> threads;
    for (int i = 0; i < count; ++i)
      threads.push_back(std::async(std::launch::async, [&isOver, &peer = peerOf(i)] {
        long calls = 0;
        for (; !isOver.load(std::memory_order_relaxed); ++calls)
          addOne(peer, static_cast<int>(calls));
        return calls;
      }));
    std::this_thread::sleep_for(Seconds(scale()));
    isOver = true;
    long calls = 0;
    for (auto& thread : threads) calls += thread.get();
    return static_cast<double>(calls) / Seconds(Clock::now() - start).count();
  }

  const Kind& kind_;
  const std::uint16_t port_;
  const pid_t server_;
  std::unique_ptr<Peer> peer_;
};

}  // namespace

void runWorkloads(const Kind& kind, std::uint16_t port, pid_t server) {
  Run(kind, port, server).all();
}

void callOnly(const Kind& kind, std::uint16_t port, int calls) {
  const auto peer = kind.connect(port);
  for (int i = 0; i < calls; ++i)
    if (peer->add(i, 2) != i + 2) throw std::runtime_error("a wrong sum");
}

}  // namespace bench
