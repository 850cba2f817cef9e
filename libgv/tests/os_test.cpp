#include <gv/os.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <thread>

namespace {

TEST(Os, HostAddressesAreUsableAndLoopbackComesLast) {
  const auto addresses = gv::os::hostAddresses();
  ASSERT_FALSE(addresses.empty());
  EXPECT_EQ(std::set<std::string>(addresses.begin(), addresses.end()).size(), addresses.size());
  bool isAfterLoopback = false;
  for (const std::string& address : addresses) {
    in6_addr parsed;
    EXPECT_TRUE(inet_pton(AF_INET, address.c_str(), &parsed) == 1 ||
                inet_pton(AF_INET6, address.c_str(), &parsed) == 1)
        << address;
    EXPECT_NE(address.substr(0, 4), "fe80");
    const bool isLoopback = address.substr(0, 4) == "127." || address == "::1";
    EXPECT_TRUE(isLoopback || !isAfterLoopback) << address << " stands behind a loopback address";
    isAfterLoopback = isAfterLoopback || isLoopback;
  }
}

TEST(Os, MachineIdIsAPlainStableName) {
  const std::string& id = gv::os::machineId();
  EXPECT_GE(id.size(), 16u);
  EXPECT_TRUE(std::all_of(id.begin(), id.end(), [](unsigned char c) { return std::isxdigit(c); }));
  EXPECT_EQ(&id, &gv::os::machineId());
}

TEST(Os, ThreadAndProcessNumbersAreTheCallersOwn) {
  EXPECT_EQ(gv::os::processId(), static_cast<unsigned>(::getpid()));
  EXPECT_EQ(gv::os::gettid(), gv::os::processId()) << "the main thread has the process's number";
  unsigned other = 0;
  std::thread([&] { other = gv::os::gettid(); }).join();
  EXPECT_NE(other, gv::os::gettid());
}

TEST(Os, UnsetVariableIsEmpty) {
  EXPECT_EQ(gv::os::getenv("GV_NOBODY_SETS_THIS"), "");
}

}  // namespace
