// Brokers that cannot be made: each says why within a bounded time and leaves nothing behind.

#include <gtest/gtest.h>

#include <future>
#include <string>

#include <jxcommon/jxbrokermanager.h>
#include <jxcommon/jxproxy.h>

#include "conversation.h"
#include "robotprocess.h"
#include "support/faultproxy.h"
#include "support/rawpeer.h"
#include "support/sanitized.h"
#include "support/watchdog.h"

namespace processes {
namespace {

void createChild(int parentPort) {
  JX::JXBroker::createBroker("refused", "127.0.0.1", 0, "127.0.0.1", parentPort, 0, "", true);
}

std::string cannotConnect(int port) {
  return "Cannot connect to tcp://127.0.0.1:" + std::to_string(port);
}

class RefusedBroker : public testing::Test {
 protected:
  ~RefusedBroker() override {
    EXPECT_FALSE(JX::JXBrokerManager::getInstance()->getBrokerByName("refused"));
  }
  house::Watchdog watchdog{"a broker refused"};
};

TEST_F(RefusedBroker, AParentThatNeverSpeaksIsGivenFiveSeconds) {
  const house::RawListener silent;  // the system accepts for it
  const auto start = Clock::now();
  EXPECT_EQ(errorOf([&] { createChild(silent.port()); }), cannotConnect(silent.port()));
  EXPECT_GE(millisecondsSince(start), 4900);
  EXPECT_LT(millisecondsSince(start), 15000);
}

TEST_F(RefusedBroker, AParentThatSpeaksSomethingElseIsKnownAtOnce) {
  house::RawListener other;
  auto answer = std::async(std::launch::async, [&] {
    house::RawPeer peer = other.accept();
    peer.send("HTTP/1.1 400 Bad Request\r\nConnection: keep-alive\r\n\r\n");
    peer.receiveToTheEnd();
  });
  const auto start = Clock::now();
  EXPECT_EQ(errorOf([&] { createChild(other.port()); }), cannotConnect(other.port()));
  EXPECT_LT(millisecondsSince(start), 4000);
  answer.get();
}

TEST_F(RefusedBroker, AParentThatEndsAnywhereInItsAnswerIsKnownAtOnce) {
  std::string answer;
  {
    RobotProcess robot;
    house::FaultProxy between(robot.port());
    auto recording = between.recordNext();
    JX::JXBroker::createBroker("recorded", "127.0.0.1", 0, "127.0.0.1", between.port())->shutdown();
    answer = recording.get().toClient;
  }
  // The greeting and the directory's description: without both it is no parent.
  const auto frames = framesOf(answer);
  ASSERT_GE(frames.size(), 2u);
  const std::size_t needed = frames[0].bytes().size() + frames[1].bytes().size();
  house::RawListener parent;
  const auto start = Clock::now();
  int rounds = 0;
  for (std::size_t cut = 0; cut < needed; cut += house::isSanitized ? 61 : 7, ++rounds) {
    auto error = std::async(std::launch::async, errorOf, [&parent] { createChild(parent.port()); });
    house::RawPeer peer = parent.accept();
    EXPECT_FALSE(peer.receive().empty());  // its greeting
    peer.send(std::string_view(answer).substr(0, cut));
    peer.close();
    ASSERT_EQ(error.get(), cannotConnect(parent.port())) << "ended after " << cut << " bytes";
  }
  EXPECT_LT(millisecondsSince(start), rounds * 1000);
}

}  // namespace
}  // namespace processes
