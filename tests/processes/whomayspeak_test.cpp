// Who gets in, by where it comes from, what the server asks for and what it can show.

#include <gmock/gmock.h>
#include <signal.h>

#include <string>
#include <vector>

#include "ledger.h"
#include "network.h"
#include "observe.h"
#include "support/certificates.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using Environment = std::vector<std::string>;

std::string repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += text;
  return all;
}

/// Clients on the server's machine, on its link, and beyond a router.
class WhoMaySpeak : public testing::Test {
 protected:
  struct Client {
    const char* place;
    Network::Side side;
    const char* host;
  };

  void SetUp() override {
    if (Network::isLeftOut()) GTEST_SKIP() << "network namespaces are left out";
    network = std::make_unique<Network>();
    network->ip(Network::Near, "link set lo up");
    network->addBeyond();
  }

  std::unique_ptr<house::ChildProcess> serve(const Environment& environment) const {
    return network->start(Network::Near, TEST_PEER,
                          {"serve", "Server", "tcp://0.0.0.0:0", ledger.path()}, environment);
  }
  /// "found ..." or why not.
  std::string find(const Client& client, const std::string& port,
                   const Environment& environment) const {
    const auto process = network->start(
        client.side, TEST_PEER,
        {"find", "tcp://" + std::string(client.host) + ":" + port, "Server"}, environment);
    process->waitForExit();
    said += process->standardOutput() + process->standardError();
    return process->standardOutput();
  }

  house::Watchdog watchdog{"who may speak", std::chrono::seconds(110)};
  house::TemporaryFolder folder;
  Ledger ledger;
  std::unique_ptr<Network> network;
  mutable std::string said;  // by all processes
};

TEST_F(WhoMaySpeak, IsDecidedByPlaceScopeAndKey) {
  const std::string right = "the key of this robot's fleet";
  const std::string wrong = "the key of some other fleet";
  const Environment noKey;
  const Environment rightKey{"GV_AUTH_KEY_FILE=" + folder.write("right", right + "\n")};
  const Environment wrongKey{"GV_AUTH_KEY_FILE=" + folder.write("wrong", wrong + "\n")};
  const Environment any{"GV_LISTEN_SCOPE=any"};
  Environment anyAndKey = any;
  anyAndKey.push_back(rightKey[0]);

  const Client clients[] = {{"on this machine", Network::Near, "127.0.0.1"},
                            {"on this machine, by its address", Network::Near, "10.77.0.1"},
                            {"on the link", Network::Far, "10.77.0.1"},
                            {"beyond a router", Network::Beyond, "10.77.0.1"}};
  const struct {
    const char* asks;
    Environment server;
    bool letsRoutedIn;
    bool asksForKey;
  } servers[] = {{"nothing", {}, false, false},
                 {"any", any, true, false},
                 {"a key", rightKey, true, true},
                 {"any, a key", anyAndKey, true, true}};
  for (const auto& row : servers) {
    const auto server = serve(row.server);
    const std::string url = urlIn(server->waitForLine("listening on "));
    const std::string port = url.substr(url.rfind(':') + 1);
    for (const Client& client : clients)
      for (const Environment* shown : {&noKey, &rightKey, &wrongKey}) {
        SCOPED_TRACE(std::string("asks for ") + row.asks + ", " + client.place + ", " +
                     (shown->empty() ? "no key" : shown->front()));
        const bool isFar = client.side == Network::Beyond;
        // Who has a key asks for it, too.
        const bool hasTheKey = row.asksForKey ? shown == &rightKey : shown == &noKey;
        const std::string answer = find(client, port, *shown);
        EXPECT_THAT(answer,
                    StartsWith(hasTheKey && (!isFar || row.letsRoutedIn) ? "found" : "cannot: "));
        if (answer.starts_with("cannot") && (!isFar || row.letsRoutedIn)) {
          EXPECT_THAT(answer, HasSubstr("key"));
        }
      }
    server->kill(SIGKILL);
    server->waitForExit();
    said += server->standardError();
    const bool warns = server->standardError().find("listening without a key") != std::string::npos;
    EXPECT_EQ(warns, !row.asksForKey) << row.asks;
  }
  for (const std::string& secret : {right, wrong}) EXPECT_THAT(said, Not(HasSubstr(secret)));
}

TEST_F(WhoMaySpeak, GetsNoByteReadFromBeyondARouter) {
  const auto server = serve({});
  const std::string url = urlIn(server->waitForLine("listening on "));
  const std::string port = url.substr(url.rfind(':') + 1);
  // A Hello of another version, which is answered with an error where anybody reads it.
  const std::string hello =
      "GVM\\x01\\x01\\0\\0\\0\\x08" + repeated("\\0", 55) + "\\x95\\x02\\x80\\xa1a\\xa1b\\x01";
  const auto bytesFor = [&](Network::Side side) {
    const auto stranger =
        network->start(side, "/bin/bash",
                       {"-c", "trap '' PIPE; exec 3<>/dev/tcp/10.77.0.1/" + port + "; printf '" +
                                  hello + "' >&3 2>/dev/null; cat <&3 2>/dev/null | wc -c"});
    stranger->waitForExit();
    return std::stoi(stranger->standardOutput());
  };
  EXPECT_GT(bytesFor(Network::Far), 64);
  EXPECT_EQ(bytesFor(Network::Beyond), 0);
  server->kill(SIGKILL);
  server->waitForExit();
  EXPECT_THAT(server->standardError(), HasSubstr("beyond a router"));
}

}  // namespace
}  // namespace processes
