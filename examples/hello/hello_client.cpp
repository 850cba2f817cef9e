// A client that joins the robot's network and calls its module "Greeter": with typed arguments,
// with dynamic ones, and wrongly, to show the errors. Ends with 0 when all came back as expected.

#include <chrono>
#include <functional>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>
#include <jxvalue/jxvalue.h>

#include "arguments.h"

namespace {

using Names = std::vector<std::string>;
using Numbers = std::vector<double>;

/// Prints what was called, what came back and how long it took, one line a call, and remembers
/// whether all came back as expected.
class Report {
 public:
  void title(const std::string& text) { std::cout << '\n' << text << '\n'; }

  /// A call that must bring exactly this result, shown as JSON.
  void returns(const std::string& what, const JX::JXValue& expected,
               const std::function<JX::JXValue()>& call) {
    run(what, call, [&expected](const std::string& result, bool isError) {
      return !isError && result == expected.toJson();
    });
  }

  /// A call that must fail with an error that contains this text.
  void fails(const std::string& what, const std::string& expected,
             const std::function<JX::JXValue()>& call) {
    run(what, call, [&expected](const std::string& result, bool isError) {
      return isError && result.find(expected) != std::string::npos;
    });
  }

  bool allAsExpected() const { return allAsExpected_; }

 private:
  using Clock = std::chrono::steady_clock;

  void run(const std::string& what, const std::function<JX::JXValue()>& call,
           const std::function<bool(const std::string&, bool)>& isExpected) {
    std::string result;
    bool isError = false;
    const Clock::time_point start = Clock::now();
    Clock::time_point end;
    try {
      const JX::JXValue value = call();
      end = Clock::now();
      result = value.toJson();
    } catch (const JX::JXError& error) {
      end = Clock::now();
      result = error.description();
      isError = true;
    }
    print(what, result, isError, end - start);
    if (isExpected(result, isError)) return;
    allAsExpected_ = false;
    std::cout << "    ^ this is not what was expected\n";
  }

  static void print(const std::string& what, const std::string& result, bool isError,
                    Clock::duration duration) {
    std::cout << "  " << std::left << std::setw(34) << what << std::right << std::setw(9)
              << durationText(duration) << "   " << (isError ? "error: " : "") << result << '\n';
  }

  static std::string durationText(Clock::duration duration) {
    const std::chrono::duration<double, std::micro> micros = duration;
    std::ostringstream text;
    text << std::fixed << std::setprecision(1);
    if (micros.count() < 1000)
      text << micros.count() << " us";
    else
      text << micros.count() / 1000 << " ms";
    return text.str();
  }

  bool allAsExpected_ = true;
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
  const auto call = [&](const std::string& method, const std::vector<JX::JXValue>& arguments) {
    return [&greeter, method, arguments] { return greeter.genericCall(method, arguments); };
  };
  report.returns("greet(\"Grace\")", "Hello, Grace!", call("greet", {"Grace"}));
  report.returns("add(2000000000, 2000000000)", std::int64_t{4000000000},
                 call("add", {2000000000, 2000000000}));
  report.returns("sorted([\"b\", \"a\"])", Names{"a", "b"}, call("sorted", {Names{"b", "a"}}));
}

void callWrongly(const boost::shared_ptr<JX::JXBroker>& broker, JX::JXProxy& greeter,
                 Report& report) {
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

bool callAll(const hello::Address& address) {
  const auto broker =
      JX::JXBroker::createBroker("client", "", 0, address.host, address.port, 0, "", true);
  std::cout << "connected to tcp://" << broker->getIP() << ':' << broker->getPort() << '\n';
  Report report;
  try {
    JX::JXProxy greeter(broker, "Greeter", 0, 0);
    callTyped(greeter, report);
    callUntyped(greeter, report);
    callWrongly(broker, greeter, report);
  } catch (...) {
    broker->shutdown();
    throw;
  }
  broker->shutdown();
  std::cout << '\n'
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
    return callAll(*address) ? 0 : 1;
  } catch (const JX::JXError& error) {
    std::cerr << "hello_client: " << error.description() << '\n';
    return 1;
  }
}
