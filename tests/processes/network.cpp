#include "network.h"

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace processes {
namespace {

const std::vector<std::string> stay = {"/bin/sh", "-c", "echo ready; exec sleep 600"};

std::vector<std::string> operator+(std::vector<std::string> words,
                                   const std::vector<std::string>& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

}  // namespace

bool Network::isLeftOut() {
  const char* const asked = std::getenv("HOUSE_WITHOUT_NAMESPACES");
  const bool isAsked = asked != nullptr && std::string(asked) == "1";
  if (isAsked) std::cout << "left out: HOUSE_WITHOUT_NAMESPACES is set\n";
  return isAsked;
}

Network::Network() {
  const std::vector<std::string> apart = {"--user", "--map-root-user", "--net"};
  holders_[Near] = std::make_unique<house::ChildProcess>("/usr/bin/unshare", apart + stay);
  holders_[Near]->waitForLine("ready");
  holders_[Far] = start(Near, "/usr/bin/unshare", std::vector<std::string>{"--net"} + stay);
  holders_[Far]->waitForLine("ready");
  ip(Near, "link add near type veth peer name far netns " + std::to_string(holders_[Far]->pid()));
  ip(Near, "addr add 10.77.0.1/24 dev near");
  ip(Near, "link set near up");
  ip(Far, "link set lo up");
  ip(Far, "addr add 10.77.0.2/24 dev far");
  ip(Far, "link set far up");
}

Network::Process Network::start(Side side, const std::string& program,
                                const std::vector<std::string>& arguments,
                                const std::vector<std::string>& environment) const {
  const std::vector<std::string> words = {"--target", std::to_string(holders_[side]->pid()),
                                          "--user",   "--preserve-credentials",
                                          "--net",    program};
  return std::make_unique<house::ChildProcess>("/usr/bin/nsenter", words + arguments, environment);
}

void Network::ip(Side side, const std::string& words) const {
  std::istringstream in(words);
  std::vector<std::string> arguments;
  for (std::string word; in >> word;) arguments.push_back(word);
  const Process process = start(side, "/sbin/ip", arguments);
  if (process->waitForExit().exitCode != 0)
    throw std::runtime_error("ip " + words + ": " + process->standardError());
}

}  // namespace processes
