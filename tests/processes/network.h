#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"

namespace processes {

/// Two machines with one link between them, as network namespaces that end with this. Throws
/// std::runtime_error where the system does not permit them: HOUSE_WITHOUT_NAMESPACES=1 leaves the
/// tests out that need them.
class Network {
 public:
  enum Side { Near, Far };
  using Process = std::unique_ptr<house::ChildProcess>;

  /// True, and said on the standard output, when tests shall do without.
  static bool isLeftOut();

  /// The near side is 10.77.0.1 on the device "near", the far one 10.77.0.2 on "far".
  Network();

  /// Starts a program on one side.
  Process start(Side side, const std::string& program, const std::vector<std::string>& arguments,
                const std::vector<std::string>& environment = {}) const;

  /// Runs `ip` with these words on one side.
  void ip(Side side, const std::string& words) const;

 private:
  Process holders_[2];  // what keeps each side's namespaces
};

}  // namespace processes
