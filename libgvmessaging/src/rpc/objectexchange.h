#pragma once

#include <memory>
#include <span>
#include <vector>

#include "src/rpc/borrowedobjects.h"
#include "src/rpc/lentobjects.h"
#include "src/rpc/objectaddress.h"
#include "src/wire/framereader.h"
#include "src/wire/limits.h"
#include "src/wire/objectpassage.h"

namespace gv::rpc {

class Connection;
class ServiceHost;

/// The objects that cross one connection, in both directions. Part of the connection; callable from
/// any thread.
///
/// Each payload that names an object counts as one lending of it, which the receiver gives back:
/// with the object's last handle, or at once where the payload was not read.
class ObjectExchange {
 public:
  ObjectExchange(Connection& connection, std::weak_ptr<ServiceHost> host,
                 const wire::Limits& limits);

  /// The object of this process that the peer names so; invalid where there is none.
  Object<Empty> find(const ObjectAddress& address) const;
  /// The object that the peer lent under that number; invalid where no handle on it lives.
  Object<Empty> findBorrowed(unsigned number) const { return borrowed_.find(number); }

  /// The peer gives lendings back. What it was not lent is ignored.
  void onRelease(const wire::Frame& frame);
  /// The last handle on an object of the peer's has gone.
  void onUnused(unsigned number, const RemoteObject* object);
  /// Gives back what is lent by a payload that is not read, or only up to the first `received`
  /// objects in it.
  void giveBack(std::span<const char> payload, std::size_t received = 0);

  /// The connection has ended: nothing is lent any more.
  void end();

  /// One payload that is being written. What it lends counts once it was sent.
  class Sending : public wire::OutgoingObjects {
   public:
    explicit Sending(ObjectExchange& exchange) : exchange_(exchange) {}
    ~Sending() override { takeBack(); }
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;

    wire::PassedObject pass(const Object<Empty>& object) override;
    void wasSent() { lent_.clear(); }
    /// What was lent up to now is not.
    void takeBack();

   private:
    ObjectExchange& exchange_;
    std::vector<unsigned> lent_;
  };

  /// One payload that is being read. What it lends is given back unless it was read to its end.
  class Receiving : public wire::IncomingObjects {
   public:
    Receiving(ObjectExchange& exchange, std::span<const char> payload)
        : exchange_(exchange), payload_(payload) {}
    ~Receiving() override;
    Receiving(const Receiving&) = delete;
    Receiving& operator=(const Receiving&) = delete;

    Object<Empty> receive(const wire::PassedObject& passed) override;
    void wasRead() { isRead_ = true; }

   private:
    ObjectExchange& exchange_;
    const std::span<const char> payload_;
    std::size_t received_ = 0;
    bool isRead_ = false;
  };

 private:
  Object<Empty> borrow(const wire::PassedObject& passed);
  void takeBack(unsigned number, std::uint64_t count);
  void release(unsigned number, unsigned count);

  Connection& connection_;
  const std::weak_ptr<ServiceHost> host_;
  const wire::Limits& limits_;  // the connection's
  LentObjects lent_;
  BorrowedObjects borrowed_;
};

}  // namespace gv::rpc
