// What the environment asks of peers: keys, certificates, and files that are not what they must be.

#include "src/session/security.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <net/if.h>
#include <openssl/ssl.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>

#include <gvmessaging/session.h>
#include <gvtype/buffer.h>
#include <gvtype/dynamicobjectbuilder.h>

#include "foreignsession.h"
#include "src/net/neighbours.h"
#include "support/certificates.h"
#include "support/rawpeer.h"
#include "support/watchdog.h"

namespace gv {
namespace {

using house::CertificateFiles;
using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

constexpr int guardMs = 20'000;
constexpr const char* keyFile = "GV_AUTH_KEY_FILE";

using Environment = std::map<std::string, std::string>;

class Security : public testing::Test {
 protected:
  ~Security() override { set({}); }

  static void set(const Environment& environment) {
    for (const char* name :
         {keyFile, "GV_LISTEN_SCOPE", "GV_TLS_CERT_FILE", "GV_TLS_KEY_FILE", "GV_TLS_CA_FILE"})
      ::unsetenv(name);
    for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
  }
  static std::string errorOfConnecting(const std::string& url) {
    const auto session = boost::make_shared<Session>();
    const auto connected = session->connect(url);
    return connected.hasError(guardMs) ? connected.error(0) : "";
  }
  static std::string errorOfListening(const std::string& url) {
    const auto session = boost::make_shared<Session>();
    const auto listening = session->listenStandalone(url);
    return listening.hasError(guardMs) ? listening.error(0) : "";
  }

  house::Watchdog watchdog{"security", std::chrono::seconds(100)};
  house::TemporaryFolder folder;
};

TEST_F(Security, LetsNobodyListenOrConnectWithAKeyFileThatIsNone) {
  const auto master = boost::make_shared<Session>();
  master->listenStandalone("tcp://127.0.0.1:0").value(guardMs);
  const std::string url = master->url().str();
  const std::string secret = "not a key: \x01";
  const std::pair<std::string, std::string> rows[] = {
      {"", "No such file"},
      {folder.file("missing"), "No such file"},
      {folder.file("."), "no regular file"},
      {folder.write("empty", ""), "holds no key"},
      {folder.write("remarks", "# none\n\n"), "holds no key"},
      {folder.write("garbled", "a good key at first\n" + secret), "line 2 holds bytes"},
      {folder.write("large", std::string(100'000, 'k')), "larger than 64 KiB"}};
  for (const auto& [path, cause] : rows) {
    set({{keyFile, path}});
    for (const std::string& error :
         {errorOfListening("tcp://127.0.0.1:0"), errorOfConnecting(url)}) {
      EXPECT_THAT(error, HasSubstr(cause)) << path;
      EXPECT_THAT(error, HasSubstr(keyFile));
      EXPECT_THAT(error, Not(HasSubstr("not a key")));
      if (!path.empty()) {
        EXPECT_THAT(error, Not(HasSubstr(path)));
      }
    }
  }
  set({{"GV_LISTEN_SCOPE", "all"}});
  EXPECT_THAT(errorOfListening("tcp://127.0.0.1:0"), HasSubstr("neither 'link' nor 'any'"));
}

/// Two sessions with the certificates of each row between them.
class Tls : public Security {
 protected:
  static Environment files(const CertificateFiles& shown, const std::string& believed) {
    Environment environment;
    if (!shown.certificate.empty())
      environment = {{"GV_TLS_CERT_FILE", shown.certificate}, {"GV_TLS_KEY_FILE", shown.key}};
    if (!believed.empty()) environment["GV_TLS_CA_FILE"] = believed;
    return environment;
  }
  ForeignSession serve(const Environment& environment, const wire::Limits& limits = {}) {
    set(environment);
    return ForeignSession("server", os::machineId(), limits, "tcps://127.0.0.1:0");
  }

  const house::Authority fleet{folder, "fleet"}, stranger{folder, "stranger"};
  const CertificateFiles robot = fleet.issue("IP:127.0.0.1,DNS:localhost");
};

TEST_F(Tls, CarriesCallsOfAnySizeBothWays) {
  ForeignSession server = serve(files(robot, fleet.own().certificate));
  const ForeignSession client("client");
  DynamicObjectBuilder echo;
  echo.advertiseMethod("echo", [](const Buffer& bytes) { return bytes; });
  const auto connection = client.dial(server.url("localhost"));
  EXPECT_EQ(connection->peerName(), "tcps://127.0.0.1:" + std::to_string(server.url().port()));
  server.serve(7, echo.object());
  const auto object = rpc::RemoteObject::make(connection, 7).value(guardMs);
  for (const std::size_t size : {0u, 1u, 16'320u, 16'384u, 70'000u, 5'000'000u}) {
    std::string text(size, 'x');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 31 % 251);
    const Buffer bytes(text.data(), text.size());
    ASSERT_EQ(object.call<Buffer>("echo", bytes), bytes) << size;
  }
  std::vector<Future<Buffer>> many;
  const std::string letters(50'000, 'y');
  const Buffer part(letters.data(), letters.size());
  for (int i = 0; i < 100; ++i) many.push_back(object.async<Buffer>("echo", part));
  for (const auto& one : many) EXPECT_EQ(one.value(guardMs), part);
}

TEST_F(Tls, OpensForCertificatesThatTheOtherSideBelievesOnly) {
  const std::string ours = fleet.own().certificate;
  const CertificateFiles none;
  const struct {
    const char* name;
    Environment server, client;
    std::string host;
    const char* cause;  // "" opens
  } rows[] = {{"each checks the other", files(robot, ours), files(robot, ours), "127.0.0.1", ""},
              {"by name", files(robot, ours), files(robot, ours), "localhost", ""},
              {"the server asks for none", files(robot, ""), files(none, ours), "127.0.0.1", ""},
              {"expired", files(fleet.issue("IP:127.0.0.1", -1), ours), files(robot, ours),
               "127.0.0.1", "certificate has expired"},
              {"foreign", files(stranger.issue("IP:127.0.0.1"), ours), files(robot, ours),
               "127.0.0.1", "unable to get local issuer certificate"},
              {"self-made", files(stranger.own(), ours), files(robot, ours), "127.0.0.1",
               "self-signed certificate"},
              {"another address", files(fleet.issue("IP:127.0.0.2"), ours), files(robot, ours),
               "127.0.0.1", "IP address mismatch"},
              {"another name", files(fleet.issue("DNS:robot"), ours), files(robot, ours),
               "localhost", "hostname mismatch"},
              {"a client that shows none", files(robot, ours), files(none, ours), "127.0.0.1",
               "certificate required"},
              {"a foreign client", files(robot, ours), files(stranger.issue("IP:127.0.0.1"), ours),
               "127.0.0.1", "unknown ca"},
              {"an expired client", files(robot, ours),
               files(fleet.issue("IP:127.0.0.1", -1), ours), "127.0.0.1", "certificate expired"},
              {"nobody to believe", files(robot, ours), files(robot, ""), "127.0.0.1",
               "GV_TLS_CA_FILE is not set"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const ForeignSession server = serve(row.server);
    const ForeignSession client("client");
    set(row.client);
    const auto dialed = client.peers->dial(server.url(row.host), 10s);
    const std::string error = dialed.hasError(guardMs) ? dialed.error(0) : "";
    if (*row.cause == '\0')
      EXPECT_EQ(error, "");
    else
      EXPECT_THAT(error, HasSubstr(row.cause));
    EXPECT_THAT(error, Not(HasSubstr(folder.file(""))));
  }
}

TEST_F(Tls, RefusesFilesThatAreNone) {
  const std::string ours = fleet.own().certificate;
  const std::string text = folder.write("text", "no certificate");
  const std::pair<Environment, const char*> rows[] = {
      {files({}, ours), "GV_TLS_CERT_FILE is not set"},
      {{{"GV_TLS_CERT_FILE", robot.certificate}}, "GV_TLS_KEY_FILE is not set"},
      {files({text, robot.key}, ours), "GV_TLS_CERT_FILE names cannot be used: no start line"},
      {files({robot.certificate, folder.file("missing")}, ours),
       "GV_TLS_KEY_FILE names cannot be used: No such file"},
      {files({robot.certificate, fleet.issue("IP:127.0.0.1").key}, ours), "key values mismatch"},
      {files(robot, text), "GV_TLS_CA_FILE names cannot be used"}};
  for (const auto& [environment, cause] : rows) {
    set(environment);
    EXPECT_THAT(errorOfListening("tcps://127.0.0.1:0"), HasSubstr(cause));
  }
}

TEST_F(Tls, HasNoWayAroundItAndKeepsNobodyWaiting) {
  wire::Limits impatient;
  impatient.handshakeTime = 300ms;
  const ForeignSession server = serve(files(robot, fleet.own().certificate), impatient);
  const ForeignSession plain("plain");
  const ForeignSession client("client");
  const auto asTcp = [](const Url& url) { return Url::tcp(url.host(), url.port()); };
  EXPECT_TRUE(client.peers->dial(asTcp(server.url()), 10s).hasError(guardMs));
  EXPECT_THAT(
      client.peers->dial(Url::make("tcps", "127.0.0.1", plain.url().port()), 10s).error(guardMs),
      HasSubstr("TLS failed"));

  SSL_CTX* const old = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_max_proto_version(old, TLS1_2_VERSION);
  BIO* const before = BIO_new_ssl_connect(old);
  BIO_set_conn_hostname(before, ("127.0.0.1:" + std::to_string(server.url().port())).c_str());
  EXPECT_LE(BIO_do_connect(before), 0);
  BIO_free_all(before);
  SSL_CTX_free(old);

  const auto begin = std::chrono::steady_clock::now();
  house::RawPeer silent = house::RawPeer::connectTo(server.url().port());
  house::RawPeer half = house::RawPeer::connectTo(server.url().port());
  half.send(std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11));
  silent.receiveToTheEnd();
  half.receiveToTheEnd();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
  EXPECT_TRUE(client.dial(server.url())->isOpen());  // others are served on
}

TEST(Distance, IsToldByTheNetworksOfThisMachine) {
  using net::Distance;
  const net::LinkNetwork lan{4, {10, 77, 0, 1}, {255, 255, 255, 0}};
  const net::LinkNetwork lone{4, {172, 16, 3, 9}, {255, 255, 255, 255}};
  const net::LinkNetwork six{16, {0xfe, 0x80, 1}, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};
  const net::LinkNetwork networks[] = {lan, lone, six};
  const std::pair<const char*, Distance> rows[] = {
      {"127.0.0.1", Distance::Loopback}, {"127.200.3.4", Distance::Loopback},
      {"::1", Distance::Loopback},       {"10.77.0.200", Distance::OnLink},
      {"10.77.1.1", Distance::Routed},   {"172.16.3.9", Distance::OnLink},
      {"172.16.3.8", Distance::Routed},  {"fe80:100::5%1", Distance::OnLink},
      {"fe80:200::5", Distance::Routed}, {"0a4d::", Distance::Routed},
      {"somewhere", Distance::Routed},   {"", Distance::Routed}};
  for (const auto& [address, expected] : rows)
    EXPECT_EQ(net::distanceOf(address, networks), expected) << address;
}

TEST(Distance, OfWhoIsBehindATunnelIsThatBeyondARouter) {
  const auto socketAddress = [](const char* text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    EXPECT_EQ(::inet_pton(AF_INET, text, &address.sin_addr), 1);
    return address;
  };
  struct Row {
    unsigned flags;
    const char* farEnd;  // "" for none
    const char* onLink;
    const char* routed;
  };
  for (const Row& row : {Row{IFF_UP, "", "10.8.0.9", "10.8.1.1"},
                         Row{IFF_UP | IFF_POINTOPOINT, "10.8.0.7", "10.8.0.7", "10.8.0.9"},
                         Row{IFF_UP | IFF_POINTOPOINT, "10.8.0.1", "10.8.0.1", "10.8.0.9"},
                         Row{IFF_UP | IFF_POINTOPOINT, "", "10.8.0.1", "10.8.0.9"}}) {
    sockaddr_in own = socketAddress("10.8.0.1");
    sockaddr_in mask = socketAddress("255.255.255.0");
    sockaddr_in farEnd = socketAddress(*row.farEnd ? row.farEnd : "0.0.0.0");
    ifaddrs interface {};
    interface.ifa_flags = row.flags;
    interface.ifa_addr = reinterpret_cast<sockaddr*>(&own);
    interface.ifa_netmask = reinterpret_cast<sockaddr*>(&mask);
    interface.ifa_dstaddr = *row.farEnd ? reinterpret_cast<sockaddr*>(&farEnd) : nullptr;
    std::vector<net::LinkNetwork> networks;
    net::addNetworks(interface, networks);
    EXPECT_EQ(net::distanceOf(row.onLink, networks), net::Distance::OnLink) << row.onLink;
    EXPECT_EQ(net::distanceOf(row.routed, networks), net::Distance::Routed) << row.routed;
    interface.ifa_flags = row.flags & ~unsigned{IFF_UP};
    networks.clear();
    net::addNetworks(interface, networks);
    EXPECT_TRUE(networks.empty());
  }
}

}  // namespace
}  // namespace gv
