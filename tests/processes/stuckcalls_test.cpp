// Methods that do not return, and calls that call back without end.

#include <gmock/gmock.h>

#include <boost/make_shared.hpp>
#include <memory>
#include <string>
#include <vector>

#include <gvmessaging/session.h>

#include "ledger.h"
#include "observe.h"
#include "support/child_process.h"
#include "support/link.h"
#include "support/sanitized.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr int guardMs = 20'000;
constexpr int promptMs = 2000;

class StuckCalls : public testing::Test {
 protected:
  using Process = std::unique_ptr<house::ChildProcess>;

  ~StuckCalls() override { client->close().wait(guardMs); }

  /// Starts a server with so many threads at most; its directory is its own or the given one.
  Process start(const std::string& name, const std::string& threads, const std::string& url = {}) {
    std::vector<std::string> words{"serve", name, "tcp://127.0.0.1:0", ledger.path()};
    if (!url.empty()) words.push_back(url);
    return std::make_unique<house::ChildProcess>(
        TEST_PEER, words, std::vector<std::string>{"GV_EVENTLOOP_MAX_THREADS=" + threads});
  }

  static boost::shared_ptr<gv::Session> connectTo(const std::string& url) {
    auto session = boost::make_shared<gv::Session>();
    session->connect(url).value(promptMs);
    return session;
  }

  house::Watchdog watchdog{"stuck calls"};
  Ledger ledger;
  boost::shared_ptr<gv::Session> client = boost::make_shared<gv::Session>();
};

TEST_F(StuckCalls, OfEveryMethodOfAnObjectHoldUpNeitherOtherObjectsNorTheDirectoryNorAnEnding) {
  const Process process = start("Server", "512");
  const house::Link link(portIn(process->waitForLine("listening on ")));
  const std::string url = link.url();
  client->connect(url).value(guardMs);
  const auto server = client->service("Server").value(guardMs);
  const auto other = client->service("Other").value(guardMs);
  constexpr int callers = 64;
  const char* const methods[] = {"hold", "keep", "stay"};
  std::vector<gv::Future<void>> stuck;
  for (int i = 0; i < callers; ++i) stuck.push_back(server.async<void>(methods[i % 3]));
  ASSERT_TRUE(becomesTrue([&] { return other.call<int>("holding") == callers; }));

  auto start = Clock::now();
  EXPECT_EQ(other.async<int>("holding").value(promptMs), callers);
  EXPECT_EQ(client->services().value(promptMs).size(), 3u);
  const auto newcomer = connectTo(url);
  EXPECT_EQ(newcomer->service("Other").value(promptMs).async<int>("holding").value(promptMs),
            callers);
  EXPECT_EQ(newcomer->close().wait(promptMs), gv::FutureState::FinishedWithValue);
  EXPECT_EQ(client->close().wait(promptMs), gv::FutureState::FinishedWithValue);
  for (const auto& call : stuck)
    EXPECT_EQ(call.errorState(promptMs), gv::FutureException::State::ConnectionLost);
  EXPECT_LT(millisecondsSince(start), promptMs);
  RecordProperty("milliseconds", millisecondsSince(start));
}

TEST_F(StuckCalls, ThatNestDeeperThanTheThreadsGoEndInTheErrorThatNamesTheCeiling) {
  const Process first = start("First", "16");
  const house::Link link(portIn(first->waitForLine("listening on ")));
  const std::string url = link.url();
  const Process second = start("Second", "16", url);
  second->waitForLine("listening on ");
  client->connect(url).value(guardMs);
  const auto object = client->service("First").value(guardMs);
  const auto descend = [&](int levels) {
    return object.async<int>("descend", levels, std::string("First"), std::string("Second"));
  };
  EXPECT_EQ(descend(10).value(guardMs), 10);
  const auto deep = descend(200);
  if (deep.hasError(guardMs)) {
    EXPECT_THAT(deep.error(), AllOf(HasSubstr("GV_EVENTLOOP_MAX_THREADS"), HasSubstr("16")));
  } else {
    EXPECT_EQ(deep.value(), 200);
  }
  RecordProperty("end", deep.hasError() ? deep.error() : "a value");
  EXPECT_EQ(descend(10).value(guardMs), 10) << "what was held up goes on";
}

TEST_F(StuckCalls, ThatTakeEveryThreadHaveOthersRefusedAndTheirArgumentsDoNotPileUp) {
  constexpr int limitMiB = 256, sizeMiB = 44;
  const Process process = start("Server", "4");
  client
      ->connect("tcp://127.0.0.1:" + std::to_string(portIn(process->waitForLine("listening on "))))
      .value(guardMs);
  const auto server = client->service("Server").value(guardMs);
  std::vector<gv::Future<void>> stuck;
  for (int i = 0; i < 16; ++i) stuck.push_back(server.async<void>("hold"));
  EXPECT_THAT(stuck.back().error(guardMs), HasSubstr("GV_EVENTLOOP_MAX_THREADS (4)"));

  const std::string text(sizeMiB << 20, 'x');
  const gv::Buffer bytes(text.data(), text.size());
  for (int round = 0; round < 2; ++round) {
    std::vector<gv::Future<gv::Buffer>> refused;
    for (int i = 0; i < limitMiB / sizeMiB; ++i)
      refused.push_back(server.async<gv::Buffer>("echo", bytes));
    for (const auto& call : refused) EXPECT_THAT(call.error(guardMs), HasSubstr("MAX_THREADS (4)"));
  }
  if (!house::isSanitized) {
    EXPECT_LT(figuresOf(process->pid()).residentKiB, limitMiB << 10);
  }
}

}  // namespace
}  // namespace processes
