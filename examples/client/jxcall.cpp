// Lists, describes, calls and posts the modules of a robot from the command line.

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gv/eventloop.h>
#include <gvmessaging/session.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>
#include <jxvalue/jxvalue.h>
#include <boost/make_shared.hpp>

namespace {

constexpr const char* usage = R"(usage: jxcall [OPTION...] COMMAND

  list                              the services of the network, by id
  help MODULE METHOD                what a method takes and gives
  call MODULE METHOD [ARGUMENT...]  calls it, and prints the result as JSON
  post MODULE METHOD [ARGUMENT...]  starts it, prints the task's id, and waits for its end

An ARGUMENT is JSON; one that begins as no JSON does is a text. A list of pairs stands for a map.

  --address HOST:PORT  of the robot's master; 127.0.0.1:9559 if not given
  --key-file FILE      the keys that the robot asks for
  --timeout SECONDS    how long each step may take; 30 if not given
)";

/// A command line that says nothing to do; the text is what to tell the user.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Options {
  std::string address = "127.0.0.1:9559";
  std::string keyFile;
  int timeoutMs = 30'000;
  std::vector<std::string> command;
};

int millisecondsOf(const std::string& seconds) {
  double number = 0;
  const auto [end, error] =
      std::from_chars(seconds.data(), seconds.data() + seconds.size(), number);
  const bool isNumber = error == std::errc() && end == seconds.data() + seconds.size();
  if (!isNumber || !(number > 0 && number <= 1'000'000)) throw UsageError(usage);
  return static_cast<int>(std::ceil(number * 1000));
}

/// The options stand first; what follows the command is its own, "-1" too.
Options optionsOf(std::vector<std::string> arguments) {
  Options options;
  auto next = arguments.begin();
  for (; next != arguments.end() && next->starts_with("--"); next += 2) {
    if (next + 1 == arguments.end()) throw UsageError(usage);
    if (*next == "--address")
      options.address = next[1];
    else if (*next == "--key-file")
      options.keyFile = next[1];
    else if (*next == "--timeout")
      options.timeoutMs = millisecondsOf(next[1]);
    else
      throw UsageError(usage);
  }
  options.command.assign(next, arguments.end());
  return options;
}

/// The value that an argument of a call stands for.
JX::JXValue argumentOf(const std::string& text) {
  const bool isWord = text == "true" || text == "false" || text == "null";
  if (!isWord &&
      (text.empty() || std::string("[{\"-0123456789").find(text[0]) == std::string::npos))
    return text;
  try {
    return JX::JXValue::fromJson(text);
  } catch (const JX::JXError&) {
    throw UsageError("jxcall: this is no JSON of a value: " + text + "\n");
  }
}

/// Waits for a future, but not for ever.
template <class T>
T within(int timeoutMs, const std::string& what, const gv::Future<T>& future) {
  if (future.wait(timeoutMs) == gv::FutureState::Running)
    throw std::runtime_error(what + " takes more than " + std::to_string(timeoutMs) + " ms");
  return future.value();
}

/// What a call of a proxy gives. The call waits without limit, so it does that on the event loop.
template <class F>
auto within(int timeoutMs, const std::string& what, const F& call) {
  return within(timeoutMs, what, gv::getEventLoop()->async([call] {
    try {
      return call();
    } catch (const JX::JXError& error) {
      throw std::runtime_error(error.description());
    }
  }));
}

/// One module, found by name.
class Module {
 public:
  Module(gv::Session& session, const std::string& name, int timeoutMs)
      : name_(name),
        timeoutMs_(timeoutMs),
        object_(within(timeoutMs, "finding " + name, session.service(name))),
        proxy_(boost::make_shared<JX::JXProxy>(object_, name)) {}

  /// The methods of a name, or the one of a full signature like "add(ii)", by rising id.
  std::vector<gv::MetaMethod> named(const std::string& method) const {
    std::vector<gv::MetaMethod> found;
    for (const auto& [id, candidate] : object_.metaObject().methodMap())
      if (candidate.name() == method || candidate.toString() == method) found.push_back(candidate);
    if (found.empty()) throw std::runtime_error(name_ + " has no method '" + method + "'");
    return found;
  }

  JX::JXValue call(const std::string& method, const std::vector<JX::JXValue>& arguments) const {
    named(method);
    return within(timeoutMs_, name_ + "." + method,
                  [=, proxy = proxy_] { return proxy->genericCall(method, arguments); });
  }

  int post(const std::string& method, const std::vector<JX::JXValue>& arguments) const {
    named(method);
    named("pCall");
    return within(timeoutMs_, name_ + "." + method,
                  [=, proxy = proxy_] { return proxy->genericPCall(method, arguments); });
  }

  void wait(int task) const {
    within(timeoutMs_, name_ + ".wait", [task, proxy = proxy_] { return proxy->wait(task, 0); });
  }

 private:
  const std::string name_;
  const int timeoutMs_;
  const gv::Object<gv::Empty> object_;
  const boost::shared_ptr<JX::JXProxy> proxy_;
};

void showHelp(const std::vector<gv::MetaMethod>& methods) {
  for (const gv::MetaMethod& method : methods) {
    std::cout << method.toString() << " -> " << method.returnSignature().toString() << '\n';
    if (!method.description().empty()) std::cout << "  " << method.description() << '\n';
    for (const gv::MetaMethodParameter& parameter : method.parameters())
      std::cout << "  " << parameter.name() << ": " << parameter.description() << '\n';
    if (!method.returnDescription().empty())
      std::cout << "  result: " << method.returnDescription() << '\n';
  }
}

void run(gv::Session& session, const Options& options, const std::vector<JX::JXValue>& arguments) {
  within(options.timeoutMs, "connecting", session.connect("tcp://" + options.address));
  const std::vector<std::string>& words = options.command;
  if (words[0] == "list") {
    for (const auto& service : within(options.timeoutMs, "listing", session.services()))
      std::cout << std::setw(5) << service.serviceId() << ' ' << service.name() << '\n';
    return;
  }
  const Module module(session, words[1], options.timeoutMs);
  if (words[0] == "help") return showHelp(module.named(words[2]));
  if (words[0] == "call") {
    std::cout << module.call(words[2], arguments).toJson() << '\n';
    return;
  }
  const int task = module.post(words[2], arguments);
  std::cout << "task " << task << " runs" << std::endl;
  module.wait(task);
  std::cout << "task " << task << " has ended\n";
}

/// What follows the command's names; the command line is checked here, before anything is done.
std::vector<JX::JXValue> argumentsOf(const std::vector<std::string>& words) {
  const std::string command = words.empty() ? "" : words[0];
  const bool takesArguments = command == "call" || command == "post";
  const bool isRight = takesArguments ? words.size() >= 3
                                      : (command == "list" && words.size() == 1) ||
                                            (command == "help" && words.size() == 3);
  if (!isRight) throw UsageError(usage);
  std::vector<JX::JXValue> arguments;
  for (std::size_t i = 3; i < words.size(); ++i) arguments.push_back(argumentOf(words[i]));
  return arguments;
}

}  // namespace

int main(int count, char** words) {
  try {
    const Options options = optionsOf({words + 1, words + count});
    const auto arguments = argumentsOf(options.command);
    if (!options.keyFile.empty()) setenv("GV_AUTH_KEY_FILE", options.keyFile.c_str(), 1);
    const auto session = boost::make_shared<gv::Session>();
    run(*session, options, arguments);
    return 0;
  } catch (const UsageError& error) {
    std::cerr << error.what();
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "jxcall: " << error.what() << '\n';
    return 1;
  }
}
