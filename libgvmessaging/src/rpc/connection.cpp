#include "src/rpc/connection.h"

#include <atomic>

#include <gvtype/callcontext.h>

#include "src/net/readers.h"
#include "src/rpc/argumentlist.h"
#include "src/rpc/callcontext.h"
#include "src/rpc/peerlog.h"
#include "src/rpc/releasedelsewhere.h"
#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"

namespace gv::rpc {
namespace {

constexpr const char* category = "gvmessaging.connection";

std::uint64_t nextConnectionId() {
  static std::atomic<std::uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

// What an event that waits for its handlers takes beside its payload, about.
constexpr std::size_t eventOverhead = 512;

AnyReference ownedBy(const std::shared_ptr<AnyValue>& value) {
  const AnyReference reference = value->asReference();
  return {reference.type(), reference.pointer(), value};
}

/// Converting to a user's type runs that type's code, and with the sink a value of it may go.
void settleElsewhere(std::unique_ptr<ResultSink> given, const std::shared_ptr<AnyValue>& value) {
  const auto sink = releasedElsewhere(std::move(given));
  try {
    net::Readers::post([sink, value] { sink->settle(ownedBy(value)); });
  } catch (const std::exception& error) {
    sink->fail(error.what());
  }
}

/// The values of an event until all handlers have had them.
struct ReceivedEvent {
  std::unique_ptr<CallBudget::Share> share;
  GenericFunctionParameters values;
};

/// A handle that keeps an event: values do so, where it has some.
Object<Empty> keeping(const Object<Empty>& object, const std::shared_ptr<ReceivedEvent>& event) {
  return Object<Empty>(
      boost::shared_ptr<GenericObject>(object.share().get(), [object, event](GenericObject*) {}));
}

}  // namespace

std::shared_ptr<Connection> Connection::start(std::shared_ptr<net::Stream> stream, Role role,
                                              const Identity& own, std::weak_ptr<ServiceHost> host,
                                              Events events, const wire::Limits& limits) {
  std::shared_ptr<Connection> connection(
      new Connection(std::move(stream), role, own, std::move(host), std::move(events), limits));
  const std::weak_ptr<Connection> weak = connection;
  connection->handshakeTimer_ = net::Timer::start(limits.handshakeTime, [weak] {
    if (const auto late = weak.lock()) late->close("the handshake took too long");
  });
  // Before anybody reads: from then on the handshake is the reading thread's.
  const HandshakeStep beginning = connection->handshake_->begin();
  connection->stream_->start(connection);
  for (const HandshakeFrame& frame : beginning.answers) connection->send(frame);
  if (!beginning.refusal.empty()) connection->close(beginning.refusal);
  return connection;
}

Connection::Connection(std::shared_ptr<net::Stream> stream, Role role, const Identity& own,
                       std::weak_ptr<ServiceHost> host, Events events, const wire::Limits& limits)
    : id_(nextConnectionId()),
      stream_(std::move(stream)),
      role_(role),
      limits_(limits),
      objects_(*this, host, limits_),
      server_(*this, *stream_, objects_, std::move(host), limits_),
      events_(std::move(events)),
      reader_(limits.handshakePayload),
      handshake_(std::make_unique<Handshake>(role, own, limits)) {}

bool Connection::hasEnded() const {
  const std::lock_guard lock(mutex_);
  return state_ == State::Closed;
}

bool Connection::isOpen() const {
  const std::lock_guard lock(mutex_);
  return state_ == State::Open;
}

// ---- What is told of it

ConnectionFigures Connection::figures() const {
  ConnectionFigures figures;
  figures.id = id_;
  figures.peer = peerName();
  figures.session = peer_.sessionId;
  figures.process = peer_.processId;
  figures.role = role_ == Role::Client ? "client" : "server";
  figures.age = static_cast<std::uint64_t>(coarseMilliseconds() - begin_);
  figures.output = stream_->pendingBytes();
  figures.listenedTo = server_.subscriptions();
  figures.listening = eventTargets_.size();
  figures.eventsDropped = discarded_.events;
  figures.repliesIgnored = discarded_.replies;
  figures.postsDropped = discarded_.posts;
  figures.callsRefused = discarded_.calls;
  return figures;
}

void Connection::listCalls(std::vector<CallRecord>& calls) const {
  server_.budget()->served.list(calls);
  const std::lock_guard lock(mutex_);
  pending_.list(calls);
}

Object<Empty> Connection::objectOf(const CallRecord& call) const {
  if (call.isServed) return objects_.find(call.address);
  return call.address.service == 0 ? objects_.findBorrowed(call.address.object) : Object<Empty>();
}

// ---- Calls of this side

Future<AnyReference> Connection::call(const ObjectAddress& object, const MetaMethod& method,
                                      const GenericFunctionParameters& arguments,
                                      MetaCallType callType) {
  Promise<AnyReference> promise;
  promise.setWaitAid(weak_from_this());
  call(object, method, arguments, callType,
       std::make_unique<detail::ResultPromise<AnyReference>>(promise));
  return promise.future();
}

void Connection::call(const ObjectAddress& object, const MetaMethod& method,
                      const GenericFunctionParameters& arguments, MetaCallType callType,
                      std::unique_ptr<ResultSink> sink) {
  using State_ = FutureException::State;
  ObjectExchange::Sending sending(objects_);
  wire::Message message(&sending);
  try {
    encodeArguments(message, method, arguments);
  } catch (...) {  // also of converting what is the user's
    return sink->fail(gv::detail::currentError().text, State_::NotSent);
  }
  wire::FrameHeader header = makeHeader(object, method, callType);
  header.type = wire::FrameType::Call;
  {
    std::unique_lock lock(mutex_);
    if (state_ == State::Closed) {
      const std::string cause = cause_;
      lock.unlock();
      return sink->fail("not sent: the connection to " + peerName() + " has ended: " + cause,
                        State_::NotSent);
    }
    header.messageId = pending_.add({std::move(sink), method.returnSignature().toString()},
                                    CallRecord(header, CallContext::current().connection));
  }
  std::string failure;
  try {
    if (stream_->send(message.finish(header)))
      sending.wasSent();
    else
      failure = "the connection to " + peerName() + " has ended";
  } catch (const std::exception& error) {
    failure = error.what();
  }
  if (failure.empty()) return;
  if (const auto unsent = takePending(header.messageId))
    unsent->sink->fail("not sent: " + failure, State_::NotSent);
}

/// In a thread that waits for a reply.
void Connection::help(const detail::FutureState& awaited) noexcept {
  try {
    stream_->readWhile([&awaited] { return awaited.state() == gv::FutureState::Running; });
  } catch (const std::exception& error) {
    close(error.what());
  }
}

void Connection::post(const ObjectAddress& object, const MetaMethod& method,
                      const GenericFunctionParameters& arguments) {
  ObjectExchange::Sending sending(objects_);
  wire::Message message(&sending);
  encodeArguments(message, method, arguments);
  wire::FrameHeader header = makeHeader(object, method, MetaCallType::Queued);
  header.type = wire::FrameType::Post;
  header.messageId = nextCallId();
  if (!stream_->send(message.finish(header)))
    throw std::runtime_error("not sent: the connection to " + peerName() + " has ended");
  sending.wasSent();
}

wire::FrameHeader Connection::makeHeader(const ObjectAddress& object, const MetaMethod& method,
                                         MetaCallType callType) const {
  wire::FrameHeader header;
  header.callType = static_cast<wire::CallType>(callType);
  header.service = object.service;
  header.object = object.object;
  header.member = method.uid();
  header.parentCall = CallContext::current().call;
  header.traceId = traceIdForNewCall();
  return header;
}

void Connection::encodeArguments(wire::Message& message, const MetaMethod& method,
                                 const GenericFunctionParameters& arguments) const {
  wire::writeArguments(message, arguments, method.parametersSignature().toString());
  if (message.payloadSize() > limits_.payload)
    throw message.tooLarge("the arguments of '" + method.toString() + "' take", limits_.payload);
}

void Connection::send(const HandshakeFrame& frame) {
  wire::Message message;
  message.write(frame.payload.data(), frame.payload.size());
  wire::FrameHeader header;
  header.type = frame.type;
  stream_->send(message.finish(header));
}

std::optional<PendingCall> Connection::takePending(std::uint64_t messageId) {
  const std::lock_guard lock(mutex_);
  return pending_.take(messageId);
}

// ---- The end

void Connection::close(const std::string& cause) {
  fail(cause);
  stream_->closeAfterFlush(cause);
}

void Connection::abort(const std::string& cause) {
  fail(cause);
  stream_->close(cause);
}

void Connection::fail(const std::string& cause) {
  std::vector<PendingCall> lost;
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::Closed) return;
    state_ = State::Closed;
    cause_ = cause;
    lost = pending_.takeAll();
  }
  for (const PendingCall& pending : lost)
    pending.sink->fail("the connection to " + peerName() + " was lost: " + cause,
                       FutureException::State::ConnectionLost);
  server_.end();
  objects_.end();
}

/// In a thread that reads: each callback by itself, so that none keeps the calls behind it waiting.
void Connection::lose(const std::string& cause) {
  const detail::CallbacksElsewhere callbacks(&net::Readers::post);
  fail(cause);
}

void Connection::onClosed(const std::string& cause) {
  lose(cause);
  handshakeTimer_.reset();
  std::string reason;
  {
    const std::lock_guard lock(mutex_);
    reason = cause_;
  }
  const Events events = std::move(events_);
  events_ = {};
  if (events.closed) events.closed(shared_from_this(), reason);
}

// ---- Frames of the peer

void Connection::onInput(std::size_t count) {
  reader_.fill(count);
  wire::Frame frame;
  // Where nothing is left, there is nothing to come back for.
  while (!(reader_.mayHaveNext() && stream_->isTurnOver()) && reader_.next(frame)) {
    onFrame(frame);
    if (stream_->hasLostTurn()) return;
  }
  // Whoever closed it meanwhile may have output under way that is to leave first.
  if (reader_.error().empty() || hasEnded()) return;
  if (isOpen())  // else it is a handshake that failed, of which the acceptor tells
    logOfPeer(log::Level::Warning, category, "onInput", peerAddress(), [this] {
      return "closing the connection of " + peerName() + ": " + reader_.error();
    });
  // First: what is lost may be foreign, and this thread replaced meanwhile.
  stream_->close(reader_.error());
  lose(reader_.error());
}

Standing Connection::standing() const {
  const std::lock_guard lock(mutex_);
  if (state_ == State::Closed) return Standing::Closed;
  return state_ == State::Open ? Standing::Open : handshake_->standing();
}

void Connection::onFrame(wire::Frame& frame) {
  const Standing now = standing();
  if (!maySend(now, frame.header.type)) return reader_.stop(refusalOf(now, frame.header.type));
  if (now != Standing::Open) return onHandshakeFrame(frame);
  switch (frame.header.type) {
    case wire::FrameType::Call:
    case wire::FrameType::Post:
      return server_.onCall(frame);
    case wire::FrameType::Event:
      return onEvent(frame);
    default: {
      const net::Readers::ForeignCode callbacks;
      return onReply(frame);
    }
  }
}

void Connection::onHandshakeFrame(const wire::Frame& frame) {
  HandshakeStep step = handshake_->step(frame);
  for (const HandshakeFrame& answer : step.answers) send(answer);
  if (!step.refusal.empty()) {
    reader_.stop(step.refusal);
    return close(step.refusal);
  }
  if (!step.peer) return;
  peer_ = std::move(*step.peer);
  becomeOpen();
}

void Connection::becomeOpen() {
  {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Handshaking) return;
    state_ = State::Open;
  }
  handshakeTimer_.reset();
  handshake_.reset();
  reader_.setLimit(limits_.payload);
  const auto opened = std::move(events_.opened);
  const detail::CallbacksElsewhere callbacks(&net::Readers::post);
  if (opened) opened(shared_from_this());
}

void Connection::onReply(const wire::Frame& frame) {
  ObjectExchange::Receiving receiving(objects_, frame.bytes());
  auto pending = takePending(frame.header.messageId);
  if (!pending) {
    ++discarded_.replies;
    logOfPeer(log::Level::Verbose, category, "onReply", peerAddress(),
              [this] { return "ignoring a reply of " + peerName() + " to no pending call"; });
    return;
  }
  const bool mayHoldObjects = pending->returnSignature.find_first_of("ov*") != std::string::npos;
  const auto held = mayHoldObjects ? releasedElsewhere(AnyValue()) : nullptr;
  AnyValue plain;
  AnyValue& result = held ? *held : plain;
  try {
    if (frame.header.type == wire::FrameType::Error) {
      std::string text;
      wire::readValue(frame, AnyReference::from(text), limits_);
      return pending->sink->fail(text);
    }
    result = AnyValue::makeDefault(pending->returnSignature);
    wire::readValue(frame, result.asReference(), limits_, &receiving);
    receiving.wasRead();
  } catch (const std::exception& error) {
    return pending->sink->fail("the reply of " + peerName() + " cannot be read: " + error.what());
  }
  if (isUserCodeBanned() && pending->sink->convertsToUserType())
    settleElsewhere(std::move(pending->sink),
                    held ? held : std::make_shared<AnyValue>(std::move(plain)));
  else if (held)
    pending->sink->settle(ownedBy(held));
  else
    pending->sink->settle(std::move(plain));
}

// ---- Signals of the peer's objects

void Connection::onEvent(const wire::Frame& frame) {
  ObjectExchange::Receiving receiving(objects_, frame.bytes());
  const auto target = eventTargets_.find(frame.header.messageId);
  if (!target) {  // it crossed the end of its subscription
    ++discarded_.events;
    return;
  }
  if (server_.budget()->bytes >= limits_.acceptedBytes)
    return reader_.stop("its events come faster than they are handled");
  try {
    const auto event = releasedElsewhere(ReceivedEvent{
        std::make_unique<CallBudget::Share>(server_.budget(), 0,
                                            eventOverhead + frame.payload.size()),
        readArgumentList(frame, nullptr, target->source->signature(), limits_, receiving)});
    receiving.wasRead();
    GenericFunctionParameters values;
    for (const AnyReference& value : event->values)
      values.emplace_back(value.type(), value.pointer(), event);
    const Object<Empty> context = target->object;
    target->object->metaPost(values.empty() ? keeping(context, event) : context, target->signal,
                             values);
  } catch (const std::exception& error) {
    ++discarded_.events;
    logOfPeer(log::Level::Warning, category, "onEvent", peerAddress(), [&] {
      return "dropping an emission of the signal '" + target->source->name() + "' of " +
             peerName() + ": " + error.what();
    });
  }
}

}  // namespace gv::rpc
