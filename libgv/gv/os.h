#pragma once

#include <string>
#include <vector>

#include <gv/api.h>

/// What the framework asks of the operating system. Every function may be called from any thread.
namespace gv::os {

/// The value of an environment variable; empty when it is unset (or set to nothing). A concurrent
/// `setenv` elsewhere in the process is a race, as it is for `::getenv`.
GV_API std::string getenv(const char* name);

/// The kernel's number of the calling thread, as `top -H` and debuggers show it; in a forked
/// child the child's own. Asked once a thread, a load from then on.
GV_API unsigned gettid();

/// The number of this process; in a forked child the child's own.
GV_API unsigned processId();

/// A text that names this machine and stays the same across restarts: the system's machine id,
/// else one derived from the host's name and hardware addresses. Never empty; safe as a part of a
/// name (hexadecimal digits only).
GV_API const std::string& machineId();

/// The numeric addresses under which this machine can be reached at this moment: IPv4 and IPv6 of
/// every interface that is up, without link-local IPv6 ones (they mean nothing elsewhere), each
/// once, loopback addresses last. Never empty: "127.0.0.1" stands alone when nothing else is known.
GV_API std::vector<std::string> hostAddresses();

}  // namespace gv::os
