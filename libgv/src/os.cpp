#include <gv/os.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>

#ifdef __linux__
#include <netpacket/packet.h>
#include <sys/syscall.h>
#endif

namespace gv::os {
namespace {

using Interfaces = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

Interfaces interfaces() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) list = nullptr;
  return Interfaces(list, &freeifaddrs);
}

/// The numeric address, empty for those that other machines or we ourselves could not use.
std::string usableAddress(const ifaddrs& interface) {
  if (!interface.ifa_addr || !(interface.ifa_flags & IFF_UP)) return {};
  std::array<char, INET6_ADDRSTRLEN> text{};
  const void* address = nullptr;
  const int family = interface.ifa_addr->sa_family;
  const void* socketAddress = interface.ifa_addr;
  if (family == AF_INET) {
    address = &static_cast<const sockaddr_in*>(socketAddress)->sin_addr;
  } else if (family == AF_INET6) {
    const in6_addr& v6 = static_cast<const sockaddr_in6*>(socketAddress)->sin6_addr;
    if (IN6_IS_ADDR_LINKLOCAL(&v6)) return {};
    address = &v6;
  }
  if (!address || !inet_ntop(family, address, text.data(), text.size())) return {};
  return text.data();
}

/// Empty for what is no id: an image that was never started holds a word there, the same
/// everywhere.
std::string machineIdFromFile(const char* path) {
  constexpr std::size_t digits = 32;
  std::ifstream file(path);
  std::string id;
  std::getline(file, id);
  const bool isId = id.size() == digits && std::all_of(id.begin(), id.end(), [](unsigned char c) {
                      return std::isxdigit(c) != 0;
                    });
  return isId ? id : std::string();
}

/// FNV-1a, for a stable name only.
void mix(std::uint64_t& hash, const void* bytes, std::size_t size) {
  const auto* byte = static_cast<const unsigned char*>(bytes);
  for (std::size_t i = 0; i < size; ++i) hash = (hash ^ byte[i]) * 0x100000001b3u;
}

std::string derivedMachineId() {
  std::uint64_t hash = 0xcbf29ce484222325u;
  std::array<char, 256> host{};
  if (gethostname(host.data(), host.size() - 1) == 0) {
    mix(hash, host.data(), std::string(host.data()).size());
  }
#ifdef __linux__
  const Interfaces list = interfaces();
  std::vector<std::string> hardware;  // sorted: the kernel's order changes
  for (const ifaddrs* i = list.get(); i; i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != AF_PACKET || (i->ifa_flags & IFF_LOOPBACK)) {
      continue;
    }
    const void* address = i->ifa_addr;
    const auto* link = static_cast<const sockaddr_ll*>(address);
    hardware.emplace_back(link->sll_addr, link->sll_addr + link->sll_halen);
  }
  std::sort(hardware.begin(), hardware.end());
  for (const std::string& address : hardware) mix(hash, address.data(), address.size());
#endif
  constexpr char digits[] = "0123456789abcdef";
  std::string id;
  for (int shift = 60; shift >= 0; shift -= 4) id += digits[(hash >> shift) & 15];
  return id;
}

thread_local unsigned threadNumber = 0;  // 0: not asked yet

// The one thread of a forked child has another number than its parent.
[[maybe_unused]] const int watchesForks =
    pthread_atfork(nullptr, nullptr, [] { threadNumber = 0; });

unsigned askThreadNumber() {
#ifdef __linux__
  return static_cast<unsigned>(::syscall(SYS_gettid));
#else
  std::uint64_t id = 0;
  pthread_threadid_np(nullptr, &id);
  return static_cast<unsigned>(id);
#endif
}

}  // namespace

std::string getenv(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

unsigned gettid() {
  if (threadNumber == 0) threadNumber = askThreadNumber();
  return threadNumber;
}

unsigned processId() {
  return static_cast<unsigned>(::getpid());
}

const std::string& machineId() {
  static const std::string* const id = [] {
    auto found = std::make_unique<std::string>(machineIdFromFile("/etc/machine-id"));
    if (found->empty()) *found = machineIdFromFile("/var/lib/dbus/machine-id");
    if (found->empty()) *found = derivedMachineId();
    return found.release();
  }();
  return *id;
}

std::vector<std::string> hostAddresses() {
  std::vector<std::string> reachable;
  std::vector<std::string> loopback;
  const Interfaces list = interfaces();
  for (const ifaddrs* i = list.get(); i; i = i->ifa_next) {
    const std::string address = usableAddress(*i);
    auto& group = (i->ifa_flags & IFF_LOOPBACK) ? loopback : reachable;
    if (!address.empty() && std::find(group.begin(), group.end(), address) == group.end()) {
      group.push_back(address);
    }
  }
  reachable.insert(reachable.end(), loopback.begin(), loopback.end());
  if (reachable.empty()) reachable.push_back("127.0.0.1");
  return reachable;
}

}  // namespace gv::os
