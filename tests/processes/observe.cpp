#include "observe.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace processes {
namespace {

int entriesOf(const std::string& folder) {
  const std::filesystem::directory_iterator entries(folder);
  return static_cast<int>(std::distance(begin(entries), end(entries)));
}

long kibibytesOf(const std::string& process, const std::string& what) {
  std::ifstream status(process + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(what + ":")) return std::stol(line.substr(what.size() + 1));
  throw std::runtime_error("no " + what + " of " + process);
}

}  // namespace

Figures figuresOf(pid_t process) {
  const std::string folder = "/proc/" + std::to_string(process);
  return {entriesOf(folder + "/fd"), entriesOf(folder + "/task"), kibibytesOf(folder, "VmRSS"),
          kibibytesOf(folder, "VmHWM")};
}

std::chrono::milliseconds processorTimeOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  constexpr int fieldsBefore = 11;
  for (int i = 0; i < fieldsBefore; ++i) fields >> text;
  long user = 0;
  long system = 0;
  if (!(fields >> user >> system)) throw std::runtime_error("no processor time in " + text);
  return std::chrono::milliseconds((user + system) * 1000 / ::sysconf(_SC_CLK_TCK));
}

bool becomesTrue(const std::function<bool()>& condition, std::chrono::milliseconds guard) {
  const auto end = Clock::now() + guard;
  while (!condition()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::string urlIn(const std::string& line) {
  const auto start = line.find("tcp://");
  return line.substr(start, line.find(' ', start) - start);
}

int portIn(const std::string& line) {
  const std::string url = urlIn(line);
  return std::stoi(url.substr(url.rfind(':') + 1));
}

}  // namespace processes
