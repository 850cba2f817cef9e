#pragma once

#include <string>
#include <string_view>

#include <gv/api.h>
#include <gv/log.h>

namespace gv::log {

/// The text with control characters written as escapes, so that text from elsewhere can neither
/// forge lines nor steer a terminal. Other UTF-8 passes unchanged.
GV_API std::string escapeControls(std::string_view text);

/// The default handler: one line on the standard error, its time in UTC. Usable at any time, also
/// before main and during exit. What the standard error does not take at once is lost, and counted
/// in the next line that it takes; a closed one is ignored.
void writeToStderr(const Record& record);

/// To be called in the child of a fork, where a thread that is gone may have been writing.
void renewStderrAfterFork();

}  // namespace gv::log
