#pragma once

// Forward declarations of libgv, for headers that name these types without using them.

#include <gv/api.h>

/// The framework: logging, operating system, futures and the event loop here; run-time types and
/// messaging in the libraries above.
namespace gv {

enum class FutureState;
enum class FutureCallbackType;
class FutureException;
template <class T>
class Future;
template <class T>
class Promise;

class BlockingObserver;
class BlockingObserverScope;
class BlockingRegion;

class EventLoop;
class TaskHandle;

namespace log {
enum class Level;
struct Record;
class Category;
}  // namespace log

}  // namespace gv
