// Remote calls beside the sockets of the system; bench/run starts it.
//
//   messaging_bench gv|raw serve
//   messaging_bench gv|raw run <address> <workloads> <scale>
//   messaging_bench gv|raw call <address> <count>

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "messaging/workloads.h"

namespace {

void announce(const std::string& address) {
  std::cout << address << ' ' << ::getpid() << std::endl;
}

int run(const std::vector<std::string>& words) {
  const bench::Kind& kind = words.at(0) == "raw" ? bench::rawKind : bench::gvKind;
  if (words.at(1) == "serve") {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // an interrupted script leaves no server behind
    kind.serve(announce);
  } else if (words.at(1) == "run") {
    bench::runWorkloads(kind, words.at(2), words.at(3), std::stod(words.at(4)));
  } else {
    bench::callOnly(kind, words.at(2), std::stoi(words.at(3)));
  }
  return 0;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  try {
    return run({arguments + 1, arguments + argumentCount});
  } catch (const std::exception& error) {
    std::cerr << "messaging_bench: " << error.what() << '\n';
    return 1;
  }
}
