#pragma once

#include <gvmessaging/api.h>
#include <gvtype/metamethod.h>

namespace gv::rpc {

// What the two ends of a connection ask of each other's objects before, or besides, any method that
// an object describes. None of them is in a description but metaObject and figures.

inline constexpr unsigned subscribeId = 3;
inline constexpr unsigned unsubscribeId = 4;
inline constexpr unsigned releaseId = 8;

/// `()`: the object's description.
const MetaMethod& metaObjectMethod();
/// `()`: the figures of the session, a `v`. Also of object 0 of service 0, which every session has.
const MetaMethod& figuresMethod();
/// `(ut)`: sends each emission of the signal of that id as an Event under the number given.
const MetaMethod& subscribeMethod();
/// `(t)`, posted to object 0 of service 0: ends a subscription.
const MetaMethod& unsubscribeMethod();
/// `(u)`, posted to a lent object: so many of its lendings have ended.
GVMESSAGING_API const MetaMethod& releaseMethod();

}  // namespace gv::rpc
