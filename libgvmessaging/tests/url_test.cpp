#include <gtest/gtest.h>

#include <string>

#include <gvmessaging/url.h>

namespace gv {
namespace {

TEST(Url, HasThePartsOfItsText) {
  const Url url("tcp://robot.local:9559");
  ASSERT_TRUE(url.isValid());
  EXPECT_EQ("tcp", url.protocol());
  EXPECT_EQ("robot.local", url.host());
  EXPECT_EQ(9559, url.port());
  EXPECT_EQ("tcp://robot.local:9559", url.str());
}

TEST(Url, GivesTheHostOfAnIpv6AddressWithoutBrackets) {
  const Url url("tcp://[fe80::1%eth0]:1");
  ASSERT_TRUE(url.isValid());
  EXPECT_EQ("fe80::1%eth0", url.host());
  EXPECT_EQ(url, Url::tcp("fe80::1%eth0", 1));
  EXPECT_EQ(Url("tcp://127.0.0.1:80"), Url::tcp("127.0.0.1", 80));
}

TEST(Url, TakesEveryPortOfTheRangeAndNoOther) {
  EXPECT_TRUE(Url("tcp://a:0").isValid());
  EXPECT_EQ(65535, Url("tcp://a:65535").port());
  for (const char* port : {"", "-1", "+1", "65536", "99999", "4294967297", "1x", "x", " 1", "0x10"})
    EXPECT_FALSE(Url(std::string("tcp://a:") + port).isValid()) << port;
}

TEST(Url, RefusesEveryOtherForm) {
  for (const char* text : {"",
                           "tcp",
                           "tcp://",
                           "tcp://:1",
                           "tcp://a",
                           "tcp:/a:1",
                           "TCP://a:1",
                           "udp://a:1",
                           "tcps://a:1",
                           " tcp://a:1",
                           "tcp://a:1/",
                           "tcp://a b:1",
                           "tcp://a/b:1",
                           "tcp://u@a:1",
                           "tcp://::1:1",
                           "tcp://[::1]",
                           "tcp://[::1:1",
                           "tcp://[]:1",
                           "tcp://[a]:1",
                           "tcp://[::1]x:1",
                           "tcp://a\n:1",
                           "tcp://\xff:1"}) {
    const Url url(text);
    EXPECT_FALSE(url.isValid()) << text;
    EXPECT_EQ(text, url.str());
    EXPECT_EQ("", url.host());
    EXPECT_EQ(0, url.port());
  }
  EXPECT_FALSE(Url().isValid());
  EXPECT_FALSE(Url(static_cast<const char*>(nullptr)).isValid());
  EXPECT_FALSE(Url(std::string("tcp://a\0b:1", 11)).isValid());
  EXPECT_FALSE(Url("tcp://" + std::string(256, 'a') + ":1").isValid());
}

}  // namespace
}  // namespace gv
