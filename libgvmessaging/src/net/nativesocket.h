#pragma once

#include <sys/uio.h>

#include <asio/ip/tcp.hpp>
#include <cstddef>
#include <span>
#include <system_error>

/// The system calls on sockets, where systems differ or Asio's own would block, lack close-on-exec
/// or raise a signal. None of them blocks; interrupted calls are repeated.
namespace gv::net {

using Endpoint = asio::ip::tcp::endpoint;

/// What one call moved. With an error, nothing; "would block" is no error.
struct Transfer {
  std::size_t bytes = 0;
  bool isFull = false;  // of a receipt: there was room for no more
  bool wouldBlock = false;
  std::error_code error;
};

/// A new TCP socket of the family of @p endpoint, or -1 and @p error.
int openSocket(const Endpoint& endpoint, std::error_code& error);

/// The next connection of @p listening and its @p peer, or -1 and @p error.
int acceptSocket(int listening, Endpoint& peer, std::error_code& error);

/// Whether the peer has closed its side, or reset the connection, without having sent anything.
bool hasGoneUnheard(int socket);

/// How many descriptors this process may have at a time.
std::size_t mostDescriptors();

/// Sends small frames at once and finds out when a quiet peer has died.
void tuneConnection(int socket);

Transfer sendSome(int socket, std::span<const iovec> buffers);

/// Bytes that were sent and that the peer has not acknowledged; 0 where the system does not tell.
std::size_t unacknowledgedBytes(int socket);

/// No bytes and no error: the peer has closed its side.
Transfer receiveSome(int socket, std::span<char> buffer);

}  // namespace gv::net
