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
  ip(Far, "link set lo up");
  join(Near, "near", Far, "far", "10.77.0.");
}

/// A link between two machines, the first of which has the address 1 on it, the other one 2.
void Network::join(Side first, const std::string& link, Side second, const std::string& otherLink,
                   const std::string& subnet) const {
  ip(first, "link add " + link + " type veth peer name " + otherLink + " netns " +
                std::to_string(holders_[second]->pid()));
  ip(first, "addr add " + subnet + "1/24 dev " + link);
  ip(first, "link set " + link + " up");
  ip(second, "addr add " + subnet + "2/24 dev " + otherLink);
  ip(second, "link set " + otherLink + " up");
}

void Network::addBeyond() {
  holders_[Beyond] = start(Near, "/usr/bin/unshare", std::vector<std::string>{"--net"} + stay);
  holders_[Beyond]->waitForLine("ready");
  join(Far, "out", Beyond, "beyond", "10.78.0.");
  const Process routing = start(Far, "/bin/sh", {"-c", "echo 1 > /proc/sys/net/ipv4/ip_forward"});
  if (routing->waitForExit().exitCode != 0)
    throw std::runtime_error("the far machine cannot route: " + routing->standardError());
  ip(Near, "route add 10.78.0.0/24 via 10.77.0.2");
  ip(Beyond, "route add 10.77.0.0/24 via 10.78.0.1");
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
