// Remote calls, of robots' modules (jx), of the framework's objects (gv) and over plain sockets
// (raw); bench/run starts it.
//
//   messaging_bench <kind> server <port>         writes "READY <port> <pid>", serves until its end
//
//   messaging_bench <kind> client <port> <pid>   runs the workloads against that server
//
//   messaging_bench <kind> calls <port> <count>  makes so many calls
//
// Port 0 is any free one. BENCH_ONLY, BENCH_SCALE and BENCH_SUFFIX: see messaging/.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "messaging/workloads.h"

namespace {

void announce(int port) {
  std::cout << "READY " << port << ' ' << ::getpid() << std::endl;
}

const bench::Kind& kindNamed(const std::string& name) {
  if (name == "raw") return bench::rawKind;
  if (name == "gv") return bench::gvKind;
  if (name == "jx") return bench::jxKind;
  throw std::runtime_error("there is no kind " + name);
}

void run(const std::vector<std::string>& words) {
  const bench::Kind& kind = kindNamed(words.at(0));
  const auto port = static_cast<std::uint16_t>(std::stoi(words.at(2)));
  if (words.at(1) == "server") {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // an interrupted script leaves no server behind
    kind.serve(port, announce);
  } else if (words.at(1) == "client") {
    bench::runWorkloads(kind, port, std::stoi(words.at(3)));
  } else {
    bench::callOnly(kind, port, std::stoi(words.at(3)));
  }
}

}  // namespace

int main(int argumentCount, char** arguments) {
  try {
    run({arguments + 1, arguments + argumentCount});
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "messaging_bench: " << error.what() << '\n';
    return 1;
  }
}
