#include "messaging/workloads.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

class Run {
 public:
  Run(const Kind& kind, const std::string& address, double scale)
      : kind_(kind), address_(address), scale_(scale), peer_(kind.connect(address)) {}

  void oneAtATime() {
    const int calls = static_cast<int>(20000 * scale_);
    for (int i = 0; i < calls / 10; ++i) addOne(*peer_, i);
    std::vector<double> microseconds;
    auto last = Clock::now();
    for (int i = 0; i < calls; ++i) {
      addOne(*peer_, i);
      const auto now = Clock::now();
      microseconds.push_back(Seconds(now - last).count() * 1e6);
      last = now;
    }
    std::sort(microseconds.begin(), microseconds.end());
    report("A", "p50", microseconds[microseconds.size() / 2], "us");
    report("A", "p99", microseconds[microseconds.size() * 99 / 100], "us");
  }

  void inFlight() { report("B", "inflight64", peer_->addInFlight(Seconds(scale_)), "calls/s"); }

  void echoes() {
    for (const std::size_t kib : {1u, 64u, 1024u}) {
      const std::string bytes(kib << 10, 'x');
      const gv::Buffer buffer(bytes.data(), bytes.size());
      report("C", "echo" + std::to_string(kib) + "K", rateOf([&] {
               if (peer_->echo(buffer) != buffer.size()) throw std::runtime_error("a wrong echo");
             }),
             "calls/s");
    }
  }

  void lists() {
    report("D", "list100", rateOf([&] {
             if (peer_->list() != Peer::listSize) throw std::runtime_error("a wrong list");
           }),
           "calls/s");
  }

  void clients() {
    for (const int count : {1, 4, 16, 64})
      report("G", "clients" + std::to_string(count), rateOfClients(count), "calls/s");
  }

 private:
  static void addOne(Peer& peer, int number) {
    if (peer.add(number, 2) != number + 2) throw std::runtime_error("a wrong sum");
  }

  void report(const char* workload, const std::string& metric, double value, const char* unit) {
    std::printf("%s %s %s %.3f %s\n", kind_.name, workload, metric.c_str(), value, unit);
  }

  template <class Call>
  double rateOf(Call call) const {
    const Seconds time(0.7 * scale_);
    for (const auto start = Clock::now(); Clock::now() - start < time / 7;) call();
    long calls = 0;
    const auto start = Clock::now();
    Seconds took{};
    for (; took < time; took = Clock::now() - start, ++calls) call();
    return static_cast<double>(calls) / took.count();
  }

  double rateOfClients(int count) const {
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < count; ++i) peers.push_back(kind_.connect(address_));
    std::atomic<bool> isOver{false};
    const auto start = Clock::now();
    std::vector<std::future<long>> clients;
    for (const auto& peer : peers)
      clients.push_back(std::async(std::launch::async, [&isOver, &peer] {
        long calls = 0;
        for (; !isOver.load(std::memory_order_relaxed); ++calls)
          addOne(*peer, static_cast<int>(calls));
        return calls;
      }));
    std::this_thread::sleep_for(Seconds(scale_));
    isOver = true;
    long calls = 0;
    for (auto& client : clients) calls += client.get();
    return static_cast<double>(calls) / Seconds(Clock::now() - start).count();
  }

  const Kind& kind_;
  const std::string& address_;
  const double scale_;
  const std::unique_ptr<Peer> peer_;
};

}  // namespace

void runWorkloads(const Kind& kind, const std::string& address, const std::string& letters,
                  double scale) {
  Run run(kind, address, scale);
  for (const char letter : letters) {
    if (letter == 'A') run.oneAtATime();
    if (letter == 'B') run.inFlight();
    if (letter == 'C') run.echoes();
    if (letter == 'D') run.lists();
    if (letter == 'G') run.clients();
    std::fflush(stdout);
  }
}

void callOnly(const Kind& kind, const std::string& address, int calls) {
  const auto peer = kind.connect(address);
  for (int i = 0; i < calls; ++i)
    if (peer->add(i, 2) != i + 2) throw std::runtime_error("a wrong sum");
}

}  // namespace bench
