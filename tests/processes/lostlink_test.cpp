// Links that swallow everything, links that come back, and peers that merely stand still.

#include <gmock/gmock.h>
#include <signal.h>

#include <string>
#include <thread>

#include "ledger.h"
#include "network.h"
#include "observe.h"
#include "support/rounds.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::Not;

/// The number in "failed after 3200 ms: ...".
int millisecondsIn(const std::string& line) {
  return std::stoi(line.substr(line.find("after ") + 6));
}

/// A server on the far side of a link, and callers on the near one.
struct Callers {
  /// Each side gives up a peer that is silent for so many milliseconds.
  explicit Callers(const std::string& timeoutMs) : environment{"GV_PEER_TIMEOUT_MS=" + timeoutMs} {
    server = serve("Server", "tcp://10.77.0.2:0", {});
    url = urlIn(server->waitForLine("listening on "));
  }

  Network::Process serve(const std::string& name, const std::string& listening,
                         const std::string& directory) const {
    std::vector<std::string> words{"serve", name, listening, ledger.path()};
    if (!directory.empty()) words.push_back(directory);
    return network.start(Network::Far, TEST_PEER, words, environment);
  }

  /// A process that calls this method of the server; when it has begun.
  Network::Process call(const std::string& method) const {
    auto process = network.start(Network::Near, TEST_PEER, {"call", url, method}, environment);
    process->waitForLine("calling");
    return process;
  }

  house::Watchdog watchdog{"lost links", std::chrono::seconds(110)};
  const std::vector<std::string> environment;
  Network network;
  Ledger ledger;
  Network::Process server;
  std::string url;
};

TEST(ALinkThatSwallowsEverything, EndsCallsWhenThePeerHasBeenSilentForTheBound) {
  if (Network::isLeftOut()) return;
  // The long run has the usual bound.
  const bool isLong = house::roundsFactor() > 1;
  const int boundMs = isLong ? 30'000 : 3000;
  const int mostMs = isLong ? 40'000 : 5000;
  Callers callers(std::to_string(boundMs));
  const auto quiet = callers.call("hold");
  quiet->waitForLine("acknowledged");
  const auto busy = callers.call("work");
  callers.network.ip(Network::Far, "route add blackhole 10.77.0.1/32");
  const auto cut = Clock::now();
  const std::string cause = "no sign of life for " + std::to_string(boundMs / 1000) + " s";
  const std::string failure = busy->waitForLine("failed after", 60s);
  EXPECT_THAT(failure, HasSubstr(cause));
  EXPECT_THAT(millisecondsIn(failure), AllOf(Ge(boundMs), Le(mostMs)));
  EXPECT_THAT(quiet->waitForLine("failed after", 60s), HasSubstr(cause));
  EXPECT_THAT(millisecondsSince(cut), AllOf(Ge(boundMs), Le(mostMs)));
}

TEST(APeerThatStandsStill, KeepsItsCallersWaitingAndThenAnswers) {
  if (Network::isLeftOut()) return;
  Callers callers("3000");
  // So small a window that it is closed nearly all the time while many bytes are sent.
  callers.network.ip(Network::Far, "route change 10.77.0.0/24 dev far src 10.77.0.2 window 30000");
  const auto quiet = callers.call("work");
  const auto busy = callers.call("echo");
  callers.server->kill(SIGSTOP);
  std::this_thread::sleep_for(6s);
  callers.server->kill(SIGCONT);
  for (const auto& caller : {quiet.get(), busy.get()}) {
    EXPECT_GE(millisecondsIn(caller->waitForLine("answered after", 60s)), 5000);
    EXPECT_THAT(caller->standardOutput(), Not(HasSubstr("failed")));
  }
}

TEST(ALinkThatComesBack, LosesNoCallAndRepeatsNone) {
  if (Network::isLeftOut()) return;
  Callers callers("30000");
  const auto small = callers.call("work");
  const auto large = callers.call("echo");
  callers.network.ip(Network::Near, "link set near down");
  std::this_thread::sleep_for(5s);
  callers.network.ip(Network::Near, "link set near up");
  for (const auto& caller : {small.get(), large.get()}) {
    EXPECT_GE(millisecondsIn(caller->waitForLine("answered after", 60s)), 4000);
    EXPECT_THAT(caller->standardOutput(), Not(HasSubstr("failed")));
  }
  int runs = 0;
  for (; callers.ledger[runs].ended > 0; ++runs) EXPECT_EQ(callers.ledger[runs].begun, 1);
  EXPECT_GT(runs, 0);
}

TEST(EndpointsThatSwallowEverything, DelayAConnectionByTwoSecondsAtMost) {
  if (Network::isLeftOut()) return;
  Callers callers("30000");
  const Network& network = callers.network;
  network.ip(Network::Far, "addr flush dev far");
  for (const char* hole : {"10.78.0.2", "10.79.0.2"}) {
    network.ip(Network::Far, std::string("addr add ") + hole + "/24 dev far");
    network.ip(Network::Near, std::string("route add ") + hole + "/32 dev near");
    // No machine has that address, so that nothing on the link takes what is sent there.
    network.ip(Network::Near,
               std::string("neigh add ") + hole + " lladdr 02:00:00:00:77:77 dev near");
  }
  network.ip(Network::Far, "addr add 10.77.0.2/24 dev far");
  const auto process = callers.serve("Elsewhere", "tcp://0.0.0.0:0", callers.url);
  EXPECT_THAT(process->waitForLine("listening on "),
              AllOf(HasSubstr("10.78.0.2"), HasSubstr("10.79.0.2"), HasSubstr("10.77.0.2")));
  const auto finder = network.start(Network::Near, TEST_PEER, {"find", callers.url, "Elsewhere"});
  const std::string found = finder->waitForLine(" after ", 60s);
  EXPECT_THAT(found, HasSubstr("found"));
  EXPECT_LE(millisecondsIn(found), 2500);
}

}  // namespace
}  // namespace processes
