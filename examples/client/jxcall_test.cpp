// Both jxcall programs, in C++ and in Python, on the same network: the same commands print the
// same and end the same.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gvtype/buffer.h>
#include <gvtype/dynamicobjectbuilder.h>
#include <gvtype/struct.h>
#include <jxcommon/jxbroker.h>
#include <jxcommon/jxmodule.h>

#include "support/child_process.h"
#include "support/rawpeer.h"

namespace {

using house::ChildProcess;
constexpr const char* python = "/usr/bin/python3";
using Words = std::vector<std::string>;

struct Place {
  double x = 0;
  std::string name;
};
GV_STRUCT(Place, x, name)

/// A module of another process than the master's, which gives back values of all kinds.
class Values : public JX::JXModule {
 public:
  Values(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JX::JXModule(broker, name) {
    offer("any", [](const JX::JXValue& value) { return value; });
    offer("small", [](std::int8_t number) { return number; });
    offer("large", [](std::uint64_t number) { return number; });
    offer("single", [](float number) { return number; });
    offer("raw", [](const gv::Buffer& bytes) { return bytes; });
    offer("map", [](const std::map<std::string, std::vector<int>>& map) { return map; });
    offer("keys", [](const std::map<std::tuple<int, int>, bool>& map) { return map; });
    offer("tuple", [](const std::tuple<bool, int>& tuple) { return tuple; });
    offer("place", [](const Place& place) { return place; });
    offer("maybe", [](const std::optional<int>& number) { return number; });
    offer("nothing", [] {});
    offer("object", [] { return gv::DynamicObjectBuilder().object(); });
    offer("which", [](int) { return std::string("int"); });
    offer("which", [](double) { return std::string("double"); });
    offer("which", [](const std::vector<int>&) { return std::string("ints"); });
    offer("which", [](int, int) { return std::string("two ints"); });
  }

 private:
  template <class F>
  void offer(const std::string& name, F function) {
    functionName(name, getName(), "");
    bindMethod(JX::makeFunctor(function));
  }
};

struct Command {
  Words words;
  int exitCode;
  std::string output;
  std::string error = {};  // what the standard error output must contain
};

const std::string addHelp =
    "add(ii) -> x\n"
    "  Adds two whole numbers.\n"
    "  a: The first number.\n"
    "  b: The second number.\n"
    "  result: Their sum.\n";

Command value(const std::string& method, const std::string& json) {
  return {{"call", "Values", method, json}, 0, json + "\n"};
}

const std::vector<Command> commands = {
    {{"list"}, 0, "    1 ServiceDirectory\n    2 Greeter\n    3 Values\n"},
    {{"help", "Greeter", "add"}, 0, addHelp},
    {{"help", "Values", "which"},
     0,
     "which(i) -> s\nwhich(d) -> s\nwhich(ai) -> s\nwhich(ii) -> s\n"},
    {{"help", "Greeter", "fly"}, 1, "", "jxcall: Greeter has no method 'fly'\n"},
    {{"call", "Greeter", "greet", "Zoë"}, 0, "\"Hello, Zoë!\"\n"},
    {{"call", "Greeter", "greet", R"("\n\u0001\"Zo\u00eb\"")"},
     0,
     R"("Hello, \n\u0001\"Zoë\"!")"
     "\n"},
    {{"call", "Greeter", "greet", "\xff"},
     0,
     R"({"$text": "SGVsbG8sIP8h"})"
     "\n"},
    {{"call", "Greeter", "add", "-1", "2000000000"}, 0, "1999999999\n"},
    {{"call", "Greeter", "add(ii)", "true", "2.0"}, 0, "3\n"},
    {{"call", "Greeter", "add", "1", "2.5"}, 1, "", "2.5"},
    {{"call", "Greeter", "sorted", R"(["b", "ä", ""])"},
     0,
     R"(["", "b", "ä"])"
     "\n"},
    {{"call", "Greeter", "mean", "[1, 2, 4.5]"}, 0, "2.5\n"},
    {{"call", "Greeter", "mean", "[]"}, 1, "", "jxcall: the mean of no numbers is not defined\n"},
    {{"call", "Greeter", "fly"}, 1, "", "jxcall: Greeter has no method 'fly'\n"},
    {{"call", "Nobody", "greet"}, 1, "", "jxcall: there is no service 'Nobody'\n"},
    {{"post", "Greeter", "count", "50"}, 0, "task 1 runs\ntask 1 has ended\n"},
    {{"post", "Greeter", "count", "[]"}, 1, "", "count(i)"},
    {{"post", "ServiceDirectory", "services"},
     1,
     "",
     "jxcall: ServiceDirectory has no method 'pCall'\n"},
    {{"--timeout", "2", "call", "Greeter", "count", "60000"}, 1, "", "takes more than"},
    value("any", R"([null, true, 5, -3000000000, 18446744073709551615, 0.5, "a", [[]]])"),
    value("any", R"([{"$binary": "AP8="}, {"$text": "/w=="}, {"$float": "nan"}])"),
    value("any", "[0.001, 1.0e-04, 1000.0, 1.0e+22, 5.0e-324, 123456789012345680.0, -0.0]"),
    value("small", "-128"),
    {{"call", "Values", "small", "128"}, 1, "", "128"},
    value("large", "18446744073709551615"),
    value("single", "0.10000000149011612"),
    {{"call", "Values", "single", "0.1"}, 1, "", "0.1"},
    {{"call", "Values", "single", "16777217"}, 1, "", "16777217"},
    value("raw", R"({"$binary": "AAEC/w=="})"),
    {{"call", "Values", "raw", "abc"}, 1, "", "raw(r)"},
    value("map", R"([["a", [1, 2]], ["b", []]])"),
    {{"call", "Values", "map", R"([["a", []], ["a", []]])"}, 1, "", "jxcall: "},
    value("keys", "[[[1, 2], true]]"),
    value("tuple", "[false, 7]"),
    {{"call", "Values", "tuple", "[false]"}, 1, "", "tuple((bi))"},
    value("place", R"([0.5, "door"])"),
    value("maybe", "null"),
    value("maybe", "3"),
    {{"call", "Values", "nothing"}, 0, "null\n"},
    {{"call", "Values", "object"}, 1, "", "object"},
    {{"call", "Values", "which", "1"}, 0, "\"int\"\n"},
    {{"call", "Values", "which", "1.5"}, 0, "\"double\"\n"},
    {{"call", "Values", "which", "[1]"}, 0, "\"ints\"\n"},
    {{"call", "Values", "which", "1", "2"}, 0, "\"two ints\"\n"},
    {{"call", "Values", "which", "one"}, 1, "", "which(d)"},
    {{"call", "Greeter", "greet", "[1"}, 2, "", "jxcall: this is no JSON of a value: [1\n"},
    {{"call", "Greeter", "greet", "18446744073709551616"}, 2, "", "no JSON of a value"},
    {{"call", "Greeter", "greet", "\"\xff\""}, 2, "", "no JSON of a value"},
    {{"call", "Greeter", "greet", R"("\ud800")"}, 2, "", "no JSON of a value"},
    {{"call", "Greeter", "greet", R"({"a": 1})"}, 2, "", "no JSON of a value"},
    {{"call", "Greeter", "mean", "[1e999]"}, 2, "", "no JSON of a value"},
    {{"call", "Greeter"}, 2, "", "usage: jxcall"},
    {{"--timeout", "never", "list"}, 2, "", "usage: jxcall"},
};

std::string textOf(const Words& words) {
  std::string text;
  for (const std::string& word : words) text += word + ' ';
  return text;
}

/// The robot of the demo, on a port of its own.
class Robot {
 public:
  explicit Robot(const Words& environment = {})
      : process_(HELLO_ROBOT, {"127.0.0.1", "0"}, environment),
        ready_(process_.waitForLine("listening on tcp://127.0.0.1:")) {}
  std::string address() const { return ready_.substr(ready_.rfind("127.0.0.1:")); }
  int port() const { return std::stoi(ready_.substr(ready_.rfind(':') + 1)); }

 private:
  ChildProcess process_;
  const std::string ready_;
};

/// Runs the commands against a robot and a second process beside it, and checks what comes of them.
/// An error that is given up to its end must be the whole one.
void runAll(const std::string& program, const Words& first) {
  const Robot robot;
  const auto broker =
      JX::JXBroker::createBroker("values", "127.0.0.1", 0, "127.0.0.1", robot.port());
  JX::createModule<Values>(broker, "Values");
  for (const Command& command : commands) {
    SCOPED_TRACE(program + ' ' + textOf(command.words));
    Words words = first;
    words.insert(words.end(), {"--address", robot.address()});
    words.insert(words.end(), command.words.begin(), command.words.end());
    ChildProcess client(program, words);
    EXPECT_EQ(client.waitForExit().exitCode, command.exitCode);
    EXPECT_EQ(client.standardOutput(), command.output);
    const std::string error = client.standardError();
    if (command.error.empty() || command.error.ends_with('\n'))
      EXPECT_EQ(error, command.error);
    else
      EXPECT_NE(error.find(command.error), std::string::npos) << error;
  }
  broker->shutdown();
}

TEST(JxCall, PrintsWhatTheCommandsBring) {
  runAll(JXCALL, {});
}

const Words inPython = {"-W", "error", PYTHON_JXCALL};

TEST(JxCall, InPythonPrintsTheSame) {
  runAll(python, inPython);
}

/// A key file of that name and content.
std::string keyFile(const std::string& name, const std::string& lines) {
  const std::string path = KEY_FILES + name;
  std::ofstream(path) << lines;
  std::filesystem::permissions(
      path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  return path;
}

TEST(JxCall, ProvesItsKeyAndHasTheRobotProveIts) {
  const std::string ours = "one key of the robot", next = "the robot's next key";
  const Robot keyed({"GV_AUTH_KEY_FILE=" + keyFile("robot", next + '\n' + ours + '\n')});
  const Robot open;
  const std::string both = keyFile("both", "# ours\n\n " + ours + " \n" + next + '\n');
  const std::string old = keyFile("old", ours + '\n');
  const std::string foreign = keyFile("foreign", "a key that nobody has\n");
  const std::vector<std::tuple<const Robot&, Words, int>> cases = {
      {keyed, {"--key-file", both}, 0},
      {keyed, {"--key-file", old}, 1},  // the robot proves its first one
      {keyed, {"--key-file", foreign}, 1},
      {keyed, {"--key-file", keyFile("empty", "# none\n")}, 1},
      {keyed, {}, 1},
      {open, {"--key-file", both}, 1},
  };
  for (const auto& [robot, options, exitCode] : cases) {
    for (const bool isPython : {false, true}) {
      Words words = isPython ? inPython : Words();
      words.insert(words.end(), {"--address", robot.address()});
      words.insert(words.end(), options.begin(), options.end());
      words.insert(words.end(), {"call", "Greeter", "add", "1", "2"});
      SCOPED_TRACE(textOf(words));
      ChildProcess client(isPython ? python : JXCALL, words);
      EXPECT_EQ(client.waitForExit().exitCode, exitCode) << client.standardError();
      EXPECT_EQ(client.standardOutput(), exitCode == 0 ? "3\n" : "");
    }
  }
}

/// A header of that type, which announces a payload of so many bytes (four, little-endian).
std::string header(char type, const std::string& size) {
  return std::string("GVM\x01", 4) + type + std::string(3, '\0') + size + std::string(52, '\0');
}

TEST(JxCall, InPythonSaysWhatIsWrongWithAPeerAndEnds) {
  const std::string one("\x01\0\0\0", 4), four("\x04\0\0\0", 4), eight("\x08\0\0\0", 4),
      tooMuch("\x01\0\x01\0", 4);
  const std::string silence = "no answer";
  const std::vector<std::pair<std::string, std::string>> peers = {
      {"HTTP/1.1 400 Bad Request", "begin no frame"},
      {header(2, tooMuch), "a payload of 65537 bytes, 65536 at most"},
      {header(5, one) + "\xc0", "a frame of type 5 instead of a welcome"},
      {header(2, four) + "\xdd\x7f\xff\xff", "no MessagePack value"},
      {header(2, one) + "\x90", "signature '(ua{sv}ssu)'"},
      {header(8, one) + "\xc0", "the peer asks for a key"},
      {header(6, four) + "\xa3no!", "refuses: no!"},
      {header(2, eight) + "\x95\x01\x80\xa1s\xa1m\x01" + std::string(64, '\1'), "begin no frame"},
      {header(2, one), silence},
      {"", silence},
  };
  for (const auto& [sends, says] : peers) {
    SCOPED_TRACE(says);
    house::RawListener listener;
    Words words = inPython;
    const std::string timeout = says == silence ? "0.5" : "20";
    words.insert(words.end(),
                 {"--timeout", timeout, "--address", listener.url().substr(6), "list"});
    ChildProcess client(python, words);
    house::RawPeer peer = listener.accept();
    peer.send(sends);
    EXPECT_EQ(client.waitForExit().exitCode, 1);
    EXPECT_EQ(client.standardError().find("jxcall: "), 0u);
    EXPECT_NE(client.standardError().find(says), std::string::npos) << client.standardError();
  }
}

}  // namespace
