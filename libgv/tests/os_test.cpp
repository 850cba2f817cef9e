#include <gv/os.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>
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

TEST(Os, ThreadNumberIsTheThreadsOwnAfterAForkToo) {
  const unsigned here = gv::os::gettid();
  unsigned there = here;
  std::thread([&] { there = gv::os::gettid(); }).join();
  EXPECT_NE(there, here);
  const pid_t child = fork();
  if (child == 0) _exit(gv::os::gettid() == gv::os::processId() ? 0 : 1);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

}  // namespace
