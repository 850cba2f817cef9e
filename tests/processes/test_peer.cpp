// A process of a network of services, for tests. It ends when it is killed.
//
//   test_peer serve <name> <url> <ledger> [<directory>]
//       offers the service <name>, and one named "Other", as the directory of its own or connected
//       to the given one; says where it listens
//   test_peer call <directory> work|echo|hold
//       calls that method of "Server" all the while, "work" with rising numbers and "echo" with
//       many bytes; says so of each call that took more than a second, and of the one that failed
//   test_peer listen <directory>
//       listens to the signal "seen" of "Server"
//   test_peer find <directory> <name>
//       says how long it took to find a service and have it add

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <chrono>
#include <exception>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gvmessaging/session.h>
#include <gvtype/buffer.h>
#include <gvtype/dynamicobjectbuilder.h>

#include "ledger.h"

namespace {

using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

const boost::shared_ptr<gv::Session>& session() {
  static const auto instance = boost::make_shared<gv::Session>();
  return instance;
}

long millisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

void say(const std::string& line) {
  std::cout << line + "\n" << std::flush;
}

/// One level down is a call to the other process, whose next level comes back.
int descend(int levels, const std::string& own, const std::string& other) {
  if (levels == 0) return 0;
  const auto object = session()->service(other).value();
  return 1 + object.call<int>("descend", levels - 1, other, own);
}

/// Emits so many numbered signals of so many bytes, one each `paceMs` milliseconds; says how many
/// microseconds each took.
std::vector<int> emit(const gv::Object<gv::Empty>& object, int count, int size, int paceMs) {
  const std::string text(static_cast<std::size_t>(size), 'x');
  const gv::Buffer bytes(text.data(), text.size());
  std::vector<int> took;
  auto next = Clock::now();
  for (int number = 0; number < count; ++number) {
    std::this_thread::sleep_until(next += std::chrono::milliseconds(paceMs));
    const auto start = Clock::now();
    object.emit("seen", number, bytes);
    took.push_back(static_cast<int>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count()));
  }
  return took;
}

void serve(const Words& words) {
  static processes::Ledger ledger(words.at(2));
  static std::atomic<int> holding{0};
  gv::DynamicObjectBuilder server;
  server.advertiseMethod("add", [](int a, int b) { return a + b; });
  server.advertiseMethod("echo", [](const gv::Buffer& bytes) { return bytes; });
  server.advertiseMethod("make", [](int size) {
    const std::string bytes(static_cast<std::size_t>(size), 'x');
    return gv::Buffer(bytes.data(), bytes.size());
  });
  server.advertiseMethod(
      "doze", [](int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); });
  server.advertiseSignal<int, gv::Buffer>("seen");
  static gv::Object<gv::Empty> object;
  server.advertiseMethod(
      "emit", [](int count, int size, int paceMs) { return emit(object, count, size, paceMs); });
  server.advertiseMethod("descend", descend);
  server.advertiseMethod("work", [](int nonce) {
    ++ledger[nonce].begun;
    ++ledger.begun();
    std::this_thread::sleep_for(std::chrono::milliseconds(nonce % 8));
    ++ledger[nonce].ended;
    return nonce;
  });
  for (const char* name : {"hold", "keep", "stay"})
    server.advertiseMethod(name, [] {
      ++holding;
      for (;;) ::pause();
    });
  gv::DynamicObjectBuilder other;
  other.advertiseMethod("holding", [] { return holding.load(); });

  if (words.size() > 3) {
    session()->connect(words.at(3)).value();
    session()->listen(words.at(1)).value();
  } else {
    session()->listenStandalone(words.at(1)).value();
  }
  object = server.object();
  session()->registerService(words.at(0), object).value();
  if (words.size() == 3) session()->registerService("Other", other.object()).value();
  std::string line = "listening on";
  for (const gv::Url& url : session()->endpoints()) line += " " + url.str();
  say(line);
  for (;;) ::pause();
}

/// Throws where the call ends in error, or in another value than it must.
void callOnce(const gv::Object<gv::Empty>& server, const std::string& method, int nonce) {
  static const std::string bytes(8u << 20, 'x');
  static const gv::Buffer buffer(bytes.data(), bytes.size());
  if (method == "hold") {
    const auto held = server.async<void>(method);
    callOnce(server, "work", nonce);  // its answer brings acknowledgements of all that was sent
    say("acknowledged");
    held.value();
  }
  if (method == "work" && server.call<int>(method, nonce) != nonce)
    throw std::runtime_error("a wrong number");
  if (method == "echo" && server.call<gv::Buffer>(method, buffer) != buffer)
    throw std::runtime_error("wrong bytes");
}

void call(const Words& words) {
  session()->connect(words.at(0)).value();
  const auto server = session()->service("Server").value();
  say("calling");
  for (int nonce = 0;; ++nonce) {
    const auto start = Clock::now();
    const auto took = [&] { return std::to_string(millisecondsSince(start)) + " ms"; };
    try {
      callOnce(server, words.at(1), nonce);
    } catch (const std::exception& error) {
      return say("failed after " + took() + ": " + error.what());
    }
    if (millisecondsSince(start) > 1000) say("answered after " + took());
  }
}

void listen(const Words& words) {
  session()->connect(words.at(0)).value();
  const auto server = session()->service("Server").value();
  server.connect("seen", [](int, const gv::Buffer&) {}).value();
  say("subscribed");
  for (;;) ::pause();
}

void find(const Words& words) {
  session()->connect(words.at(0)).value();
  const auto start = Clock::now();
  const int sum = session()->service(words.at(1)).value().call<int>("add", 1, 2);
  say("found after " + std::to_string(millisecondsSince(start)) + " ms: " + std::to_string(sum));
}

}  // namespace

int main(int argumentCount, char** arguments) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves nobody behind
  try {
    const std::string role = arguments[1];
    const Words words(arguments + 2, arguments + argumentCount);
    const std::map<std::string, void (*)(const Words&)> roles = {
        {"serve", serve}, {"call", call}, {"listen", listen}, {"find", find}};
    roles.at(role)(words);
    return 0;
  } catch (const std::exception& error) {
    say(std::string("cannot: ") + error.what());
    return 1;
  }
}
