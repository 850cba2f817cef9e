// A process whose object calls those of others, for tests. It ends when it is killed.
//
//   test_chain <name> [<directory>]
//       offers the service <name>, as the directory of its own or connected to the given one; says
//       where it listens. One call of its object runs at a time.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include <gvmessaging/session.h>
#include <gvtype/dynamicobjectbuilder.h>

namespace {

const boost::shared_ptr<gv::Session>& session() {
  static const auto instance = boost::make_shared<gv::Session>();
  return instance;
}

/// Calls the first of the services with the others; without one, waits for ever.
void through(std::vector<std::string> names) {
  if (names.empty()) return gv::Promise<void>().future().wait(), void();
  const auto next = session()->service(names.front()).value();
  names.erase(names.begin());
  next.call<void>("through", names);
}

void serve(const std::string& name, const char* directory) {
  gv::DynamicObjectBuilder builder;
  builder.setThreadingModel(gv::ObjectThreadingModel::SingleThread);
  builder.advertiseMethod("through", through);
  const gv::Url url("tcp://127.0.0.1:0");
  if (directory) {
    session()->connect(directory).value();
    session()->listen(url).value();
  } else {
    session()->listenStandalone(url).value();
  }
  session()->registerService(name, builder.object()).value();
  std::cout << "listening on " + session()->endpoints().at(0).str() + "\n" << std::flush;
  for (;;) ::pause();
}

}  // namespace

int main(int argumentCount, char** arguments) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves nobody behind
  try {
    serve(arguments[1], argumentCount > 2 ? arguments[2] : nullptr);
  } catch (const std::exception& error) {
    std::cout << std::string("cannot: ") + error.what() + "\n" << std::flush;
  }
  return 1;
}
