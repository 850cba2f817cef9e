#include "support/link.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace house {

Link::Link(int serverPort) : serverPort_(serverPort) {
  const char* const asked = std::getenv("HOUSE_FAULTS");
  if (asked == nullptr) return;
  const std::string mode = asked;
  Faults faults;
  if (mode == "split")
    faults.pieces = 100;
  else if (mode == "delay")
    faults.delay = std::chrono::milliseconds(2);
  else
    throw std::invalid_argument("HOUSE_FAULTS is neither split nor delay: " + mode);
  proxy_ = std::make_unique<FaultProxy>(serverPort, faults);
}

}  // namespace house
