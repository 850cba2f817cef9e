#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"

namespace processes {

/// Two machines with one link between them, and a third one behind the far one where it is asked
/// for, as network namespaces that end with this. Throws std::runtime_error where the system does
/// not permit them: HOUSE_WITHOUT_NAMESPACES=1 leaves the tests out that need them.
class Network {
 public:
  enum Side { Near, Far, Beyond };
  using Process = std::unique_ptr<house::ChildProcess>;

  /// True, and said on the standard output, when tests shall do without.
  static bool isLeftOut();

  /// The near side is 10.77.0.1 on the device "near", the far one 10.77.0.2 on "far".
  Network();

  /// Adds a machine, 10.78.0.2, that reaches the near one through the far one, which routes.
  void addBeyond();

  /// Starts a program on one side.
  Process start(Side side, const std::string& program, const std::vector<std::string>& arguments,
                const std::vector<std::string>& environment = {}) const;

  /// Runs `ip` with these words on one side.
  void ip(Side side, const std::string& words) const;

 private:
  void join(Side first, const std::string& link, Side second, const std::string& otherLink,
            const std::string& subnet) const;

  Process holders_[3];  // what keeps each side's namespaces
};

}  // namespace processes
