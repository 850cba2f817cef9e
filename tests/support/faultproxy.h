#pragma once

#include <chrono>
#include <cstddef>
#include <future>
#include <limits>
#include <memory>
#include <string>

namespace house {

/// What befalls the bytes of one direction. A value; offsets count what a connection carries from
/// the moment on that the faults are set.
struct Faults {
  static constexpr std::size_t never = std::numeric_limits<std::size_t>::max();

  std::size_t pieces = 0;              // written in pieces of 1 to so many bytes; 0: as they come
  std::chrono::milliseconds delay{0};  // of every byte, and of the end
  std::size_t stallAt = never;         // from here on nothing is taken, not even the end
  std::size_t cutAt = never;           // the connection is closed in order when so much has passed
  std::size_t resetAt = never;         // the same, with a reset
  std::size_t corruptAt = never;       // this byte is inverted
};

/// What both sides of one connection sent.
struct Recording {
  std::string toServer;
  std::string toClient;
};

/// Stands between clients and a server on 127.0.0.1 and does to their connections what it is told,
/// in a thread of its own that ends with it. Ends, resets and a slow reader are passed on, too. Any
/// thread may call it.
class FaultProxy {
 public:
  explicit FaultProxy(int serverPort, const Faults& bothWays = {});
  ~FaultProxy();
  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  /// Where the clients connect to.
  int port() const;

  /// What befalls every byte that is read from now on, of these connections and of later ones.
  void toServer(const Faults& faults);
  void toClient(const Faults& faults);

  /// Whether bytes for the server were taken since its faults were set.
  bool hasHeardClient() const;

  /// What the next connection carries; ready when it has ended.
  std::future<Recording> recordNext();

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace house
