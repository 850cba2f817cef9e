#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <gvmessaging/url.h>

namespace gv {
namespace {

TEST(Url, GivesTheHostOfAnIpv6AddressWithoutBrackets) {
  const Url url("tcp://[fe80::1%eth0]:65535");
  EXPECT_EQ("fe80::1%eth0", url.host());
  EXPECT_EQ(65535, url.port());
  EXPECT_EQ(url, Url::tcp("fe80::1%eth0", 65535));
  EXPECT_EQ(Url("tcp://robot.local:0"), Url::tcp("robot.local", 0));
  EXPECT_EQ(Url("tcps://[::1]:7"), Url::make("tcps", "::1", 7));
}

TEST(Url, RefusesEveryOtherForm) {
  std::vector<std::string> refused = {
      "tcp://",      "tcp://:1",    "tcp://a",        "udp://a:1",   "tcp",
      "tcpss://a:1", "tcp://a b:1", "tcp://u@a:1",    "tcp://::1:1", "tcp://[::1]",
      "tcp://[]:1",  "tcp://[a]:1", "tcp://[::1]x:1", "tcp://a\n:1", "tcp://\xff:1"};
  for (const char* port : {"", "-1", "65536", "4294967297", "1x", "0x10", "1/"})
    refused.push_back(std::string("tcp://a:") + port);
  refused.push_back(std::string("tcp://a\0b:1", 11));
  refused.push_back("tcp://" + std::string(256, 'a') + ":1");
  for (const std::string& text : refused) {
    EXPECT_FALSE(Url(text).isValid()) << text;
    EXPECT_EQ("", Url(text).host());
  }
  EXPECT_FALSE(Url(static_cast<const char*>(nullptr)).isValid());
}

}  // namespace
}  // namespace gv
