// A client that joins the robot's network and goes through all ways to use its module "Greeter":
// calls with typed and with dynamic values, posted calls, notifications, calls in both directions,
// what can be asked of any module, and the errors. Ends with 0 when all came back as expected.

#include <algorithm>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>
#include <boost/make_shared.hpp>

#include "arguments.h"
#include "report.h"

namespace {

using hello::Report;
using Broker = boost::shared_ptr<JX::JXBroker>;
using Arguments = std::vector<JX::JXValue>;
using Names = std::vector<std::string>;
using Numbers = std::vector<double>;

/// A module of the client, which the robot calls.
class Guest : public JX::JXModule {
 public:
  Guest(Broker broker, const std::string& name) : JX::JXModule(broker, name) {
    functionName("fullName", getName(), "Who the guest is.");
    bindMethod(JX::makeFunctor([] { return std::string("Grace Hopper"); }));
  }
};

void callTyped(JX::JXProxy& greeter, Report& report) {
  report.title("Typed calls");
  report.returns("greet(\"Ada\")", "Hello, Ada!",
                 [&] { return greeter.call<std::string>("greet", "Ada"); });
  report.returns("add(19, 23)", 42, [&] { return greeter.call<int>("add", 19, 23); });
  report.returns("sorted([\"Grace\", \"Ada\"])", Names{"Ada", "Grace"}, [&] {
    return greeter.call<Names>("sorted", Names{"Grace", "Ada"});
  });
  report.returns("mean([1, 2, 4.5])", 2.5, [&] {
    return greeter.call<double>("mean", Numbers{1, 2, 4.5});
  });
}

void callUntyped(JX::JXProxy& greeter, Report& report) {
  report.title("Untyped calls, of dynamic values");
  const auto call = [&](const std::string& method, const Arguments& arguments) {
    return [&greeter, method, arguments] { return greeter.genericCall(method, arguments); };
  };
  report.returns("greet(\"Grace\")", "Hello, Grace!", call("greet", {"Grace"}));
  report.returns("add(2000000000, 2000000000)", std::int64_t{4000000000},
                 call("add", {2000000000, 2000000000}));
  report.returns("sorted([\"b\", \"a\"])", Names{"a", "b"}, call("sorted", {Names{"b", "a"}}));
}

void callWrongly(const Broker& broker, JX::JXProxy& greeter, Report& report) {
  report.title("Calls that fail");
  report.fails("mean([])", "the mean of no numbers is not defined",
               [&] { return greeter.call<double>("mean", Numbers{}); });
  report.fails("fly()", "fly", [&] {
    greeter.call<void>("fly");
    return JX::JXValue();
  });
  report.fails("add(\"one\", 2)", "add(ii)", [&] { return greeter.call<int>("add", "one", 2); });
  report.fails("a proxy on \"Nobody\"", "Can't find service: Nobody", [&] {
    JX::JXProxy nobody(broker, "Nobody", 0, 0);
    return JX::JXValue();
  });
}

void post(JX::JXProxy& greeter, Report& report) {
  report.title("A posted call, followed and stopped");
  int task = 0;
  report.returns("pCall(\"count\", 1000000) gives an id", true, [&] {
    task = greeter.pCall("count", 1'000'000);
    return task > 0;
  });
  for (int looks = 0; looks < 3 && greeter.wait(task, 20); ++looks)
    report.line("... it runs, and has counted to " + std::to_string(greeter.call<int>("counted")));
  report.returns("isRunning(id)", true, [&] { return greeter.isRunning(task); });
  report.returns("stop(id)", JX::JXValue(), [&] {
    greeter.stop(task);
    return JX::JXValue();
  });
  report.returns("wait(id, 0)", false, [&] { return greeter.wait(task, 0); });
  report.returns("counted() < 1000000", true,
                 [&] { return greeter.call<int>("counted") < 1'000'000; });
}

void notify(JX::JXProxy& greeter, Report& report) {
  report.title("Notifications, and results that come later");
  std::pair<int, int> cache;
  Names visitors = greeter.call<Names>("visitors", 0);  // of clients before this one
  for (const char* name : {"Ada", "Grace"}) {
    visitors.emplace_back(name);
    const int count = static_cast<int>(visitors.size());
    report.returns("pCallNotify(\"onVisitor\", \"" + visitors.back() + "\")", 0, [&] {
      return greeter.pCallNotify("onVisitor", name, JX::JXValue(), JX::JXValue(), &cache);
    });
    report.returns("visitors(" + std::to_string(count) + ")", visitors,
                   [&] { return greeter.call<Names>("visitors", count); });
  }
}

Names modulesOf(JX::JXBroker& broker) {
  const auto infos = boost::make_shared<std::vector<JX::JXModuleInfo>>();
  broker.getGlobalModuleList(infos);
  Names names;
  for (const JX::JXModuleInfo& info : *infos) names.push_back(info.name);
  std::sort(names.begin(), names.end());
  return names;
}

/// Those of its methods that not every module has.
Names ownMethods(JX::JXProxy& module, JX::JXProxy& other) {
  Names all = module.call<Names>("getMethodList"), common = other.call<Names>("getMethodList");
  std::sort(all.begin(), all.end());
  std::sort(common.begin(), common.end());
  Names own;
  std::set_difference(all.begin(), all.end(), common.begin(), common.end(),
                      std::back_inserter(own));
  return own;
}

void lookAround(const Broker& broker, JX::JXProxy& greeter, Report& report) {
  report.title("Who is there, and what they do");
  report.returns("the network's modules", Names{"Greeter", "Guest", "ServiceDirectory"},
                 [&] { return modulesOf(*broker); });
  JX::JXProxy guest(broker, "Guest");
  report.returns("the Greeter's own methods",
                 Names{"add", "count", "counted", "greet", "greetGuest", "mean", "onVisitor",
                       "sorted", "visitors"},
                 [&] { return ownMethods(greeter, guest); });
  report.returns("getMethodHelp(\"greet\")", JX::JXValue::fromJson(R"(["greet", "Greets somebody.",
                     [["who", "The name to greet."]], "", "The greeting."])"),
                 [&] { return greeter.genericCall("getMethodHelp", Arguments{"greet"}); });
  report.returns("version()", "2.1.4", [&] { return greeter.version(); });
  report.returns("ping()", true, [&] { return greeter.call<bool>("ping"); });
}

void beCalled(JX::JXProxy& greeter, Report& report) {
  report.title("A call that calls back: the robot asks the client's module \"Guest\"");
  report.returns("greetGuest(\"Guest\")", "Hello, Grace Hopper!",
                 [&] { return greeter.call<std::string>("greetGuest", "Guest"); });
}

void withdraw(const Broker& broker, Report& report) {
  report.title("A module that goes");
  JX::JXProxy guest(broker, "Guest");
  report.returns("fullName()", "Grace Hopper", [&] { return guest.call<std::string>("fullName"); });
  broker->getModuleByName("Guest")->exit();
  report.fails("fullName() after its exit()", "module destroyed",
               [&] { return guest.call<std::string>("fullName"); });
  report.fails("a proxy on \"Guest\"", "Can't find service: Guest", [&] {
    JX::JXProxy nobody(broker, "Guest");
    return JX::JXValue();
  });
}

void goThroughAll(const Broker& broker, Report& report) {
  JX::createModule<Guest>(broker, "Guest");
  JX::JXProxy greeter(broker, "Greeter");
  callTyped(greeter, report);
  callUntyped(greeter, report);
  post(greeter, report);
  notify(greeter, report);
  beCalled(greeter, report);
  lookAround(broker, greeter, report);
  callWrongly(broker, greeter, report);
  withdraw(broker, report);
}

bool join(const hello::Address& address) {
  // A robot of this machine reaches the client's module at the same address.
  const std::string own = address.host == "127.0.0.1" ? address.host : "";
  const Broker broker =
      JX::JXBroker::createBroker("client", own, 0, address.host, address.port, 0, "", true);
  std::cout << "connected to tcp://" << broker->getIP() << ':' << broker->getPort() << '\n';
  Report report;
  try {
    goThroughAll(broker, report);
  } catch (...) {
    broker->shutdown();
    throw;
  }
  broker->shutdown();
  std::cout << "\nshut down; "
            << (report.allAsExpected() ? "all came back as expected"
                                       : "not all came back as expected")
            << std::endl;
  return report.allAsExpected();
}

}  // namespace

int main(int argumentCount, char** arguments) {
  const auto address = hello::readAddress(argumentCount, arguments, 1);
  if (!address) {
    std::cerr << "usage: hello_client <address> <port>, those that hello_robot listens on\n";
    return 1;
  }
  try {
    return join(*address) ? 0 : 1;
  } catch (const JX::JXError& error) {
    std::cerr << "hello_client: " << error.description() << '\n';
    return 1;
  }
}
