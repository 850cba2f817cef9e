#pragma once

#include <string>

namespace JX {

/// One module in a broker's module lists. A plain value.
///
/// The lists fill `name` and `processId` alone; nothing may rely on the other fields.
struct JXModuleInfo {
  std::string name;       ///< the name under which the module is published
  int reservedValue = 0;  ///< neither set nor read
  std::string ip;         ///< left empty
  int port = 0;           ///< not set
  int processId = 0;      ///< the process that hosts the module
  bool reservedFlag1 = false;
  bool reservedFlag2 = false;
};

}  // namespace JX
