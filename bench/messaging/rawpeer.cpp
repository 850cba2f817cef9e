#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <variant>
#include <vector>

#include "messaging/peer.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Value = std::variant<std::int64_t, double, std::string>;
using Values = std::vector<Value>;

enum class Operation : std::uint32_t { Add, Echo, List };

/// Before each request and each answer.
struct Head {
  std::uint32_t size;
  Operation operation;
};

template <class T>
void append(std::string& out, const T& plain) {
  out.append(reinterpret_cast<const char*>(&plain), sizeof plain);
}

template <class T>
T take(std::string_view& in) {
  T plain;
  std::memcpy(&plain, in.data(), sizeof plain);
  in.remove_prefix(sizeof plain);
  return plain;
}

void encode(std::string& out, const Values& values) {
  append(out, static_cast<std::uint32_t>(values.size()));
  for (const Value& value : values) {
    append(out, static_cast<char>(value.index()));
    if (const auto* text = std::get_if<std::string>(&value)) {
      append(out, static_cast<std::uint32_t>(text->size()));
      out += *text;
    } else if (const auto* number = std::get_if<double>(&value)) {
      append(out, *number);
    } else {
      append(out, std::get<std::int64_t>(value));
    }
  }
}

Value decodeOne(std::string_view& in) {
  const char kind = take<char>(in);
  if (kind == 0) return take<std::int64_t>(in);
  if (kind == 1) return take<double>(in);
  const auto size = take<std::uint32_t>(in);
  std::string text(in.substr(0, size));
  in.remove_prefix(size);
  return text;
}

Values decode(std::string_view in) {
  const auto count = take<std::uint32_t>(in);
  Values values;
  values.reserve(count);
  while (values.size() < count) values.push_back(decodeOne(in));
  return values;
}

Values mixedValues() {
  Values values;
  for (int i = 0; i < Peer::listSize; ++i) {
    if (i % 3 == 0) values.emplace_back(std::int64_t{i});
    if (i % 3 == 1) values.emplace_back(i / 2.0);
    if (i % 3 == 2) values.emplace_back("value" + std::to_string(i));
  }
  return values;
}

void check(bool isGood, const char* what) {
  if (!isGood) throw std::runtime_error(what);
}

void sendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    check(sent > 0, "send");
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

void sendAtOnce(int socket) {
  const int yes = 1;
  check(::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes) == 0, "setsockopt");
}

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void answer(std::string& out, const Head& head, std::string_view payload) {
  if (head.operation == Operation::Add) {
    const int a = take<int>(payload);
    append(out, Head{sizeof(int), head.operation});
    append(out, a + take<int>(payload));
  } else if (head.operation == Operation::Echo) {
    append(out, head);
    out += payload;
  } else {
    std::string list;
    encode(list, decode(payload));
    append(out, Head{static_cast<std::uint32_t>(list.size()), head.operation});
    out += list;
  }
}

/// Takes whole requests from the front of `in`; how many bytes they had. `needed` is the size of
/// the one that is not whole yet, where its head is there.
std::size_t answerAll(std::string& out, std::string_view in, std::size_t& needed) {
  const std::size_t size = in.size();
  needed = 0;
  while (in.size() >= sizeof(Head)) {
    std::string_view rest = in;
    const auto head = take<Head>(rest);
    needed = sizeof head + head.size;
    if (rest.size() < head.size) break;
    answer(out, head, rest.substr(0, head.size));
    in.remove_prefix(needed);
  }
  return size - in.size();
}

/// Answers whatever one read brought by one write.
void serveOne(int socket) {
  constexpr std::size_t smallest = 64u << 10;
  std::vector<char> in(smallest);
  std::string out;
  for (std::size_t filled = 0;;) {
    const ssize_t got = ::recv(socket, in.data() + filled, in.size() - filled, 0);
    if (got <= 0) break;
    filled += static_cast<std::size_t>(got);
    std::size_t needed = 0;
    const std::size_t used = answerAll(out, {in.data(), filled}, needed);
    std::memmove(in.data(), in.data() + used, filled -= used);
    if (needed > in.size()) in.resize(needed + smallest);
    sendAll(socket, out);
    out.clear();
  }
  ::close(socket);
}

void serve(std::uint16_t port, void (*announce)(int)) {
  const int listening = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback(port);
  socklen_t size = sizeof address;
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  check(::bind(listening, plain, size) == 0 && ::listen(listening, SOMAXCONN) == 0 &&
            ::getsockname(listening, plain, &size) == 0,
        "listen");
  announce(ntohs(address.sin_port));
  for (;;) {
    const int socket = ::accept(listening, nullptr, nullptr);
    check(socket >= 0, "accept");
    sendAtOnce(socket);
    std::thread(serveOne, socket).detach();
  }
}

class RawPeer final : public Peer {
 public:
  explicit RawPeer(std::uint16_t port) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    const sockaddr_in address = loopback(port);
    const auto* const plain = reinterpret_cast<const sockaddr*>(&address);
    check(::connect(socket_, plain, sizeof address) == 0, "connect");
    sendAtOnce(socket_);
  }
  ~RawPeer() override { ::close(socket_); }

  int add(int a, int b) override {
    std::string request;
    append(request, Head{2 * sizeof(int), Operation::Add});
    append(request, a);
    append(request, b);
    std::string_view payload = ask(request);
    return take<int>(payload);
  }

  bool isShareable() const override { return false; }

  std::size_t echo(std::size_t size) override {
    if (sent_.size() != size) sent_.assign(size, 'x');
    request_.clear();
    append(request_, Head{static_cast<std::uint32_t>(size), Operation::Echo});
    request_ += sent_;
    return ask(request_).size();
  }

  std::size_t list() override {
    std::string encoded;
    encode(encoded, values_);
    request_.clear();
    append(request_, Head{static_cast<std::uint32_t>(encoded.size()), Operation::List});
    request_ += encoded;
    return decode(ask(request_)).size();
  }

  double addInFlight(Seconds time) override {
    constexpr std::size_t requestSize = sizeof(Head) + 2 * sizeof(int);
    constexpr std::size_t answerSize = sizeof(Head) + sizeof(int);
    std::string requests;
    for (int i = 0; i < callsInFlight; ++i) {
      append(requests, Head{2 * sizeof(int), Operation::Add});
      append(requests, i);
      append(requests, 1);
    }
    std::array<char, callsInFlight * answerSize> answers;
    sendAll(socket_, requests);
    const auto start = Clock::now();
    std::size_t filled = 0;
    long done = 0;
    Seconds took{};
    for (; took < time; took = Clock::now() - start) {
      filled += receive(answers.data(), answers.size(), 0);
      const std::size_t whole = filled / answerSize;
      filled %= answerSize;
      done += static_cast<long>(whole);
      sendAll(socket_, std::string_view(requests).substr(0, whole * requestSize));
    }
    receive(answers.data(), answers.size() - filled, MSG_WAITALL);
    return static_cast<double>(done) / took.count();
  }

 private:
  std::size_t receive(char* to, std::size_t size, int flags) const {
    const ssize_t got = ::recv(socket_, to, size, flags);
    check(got > 0, "recv");
    return static_cast<std::size_t>(got);
  }

  /// The payload of the answer; good until the next call.
  std::string_view ask(const std::string& request) {
    sendAll(socket_, request);
    std::size_t filled = receive(answer_.data(), answer_.size(), 0);
    while (filled < sizeof(Head))
      filled += receive(answer_.data() + filled, answer_.size() - filled, 0);
    std::string_view start(answer_.data(), sizeof(Head));
    const std::size_t payload = take<Head>(start).size;
    const std::size_t whole = sizeof(Head) + payload;
    if (answer_.size() < whole) answer_.resize(whole);
    while (filled < whole) filled += receive(answer_.data() + filled, whole - filled, 0);
    return {answer_.data() + sizeof(Head), payload};
  }

  const int socket_;
  std::string request_;
  std::string sent_;  // echoes
  std::vector<char> answer_ = std::vector<char>(64u << 10);
  const Values values_ = mixedValues();
};

}  // namespace

const Kind rawKind = {
    "raw_block", serve,
    [](std::uint16_t port) -> std::unique_ptr<Peer> { return std::make_unique<RawPeer>(port); },
    nullptr};

}  // namespace bench
