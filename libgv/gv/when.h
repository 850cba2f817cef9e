#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gv/future.h>

namespace gv {

namespace detail {

/// Asks every one of the futures to cancel, for as long as somebody else holds them.
template <class T>
class CancelAll {
 public:
  CancelAll(const std::vector<Future<T>>& futures, const char* operation) {
    for (const auto& future : futures) targets_.push_back(Settler::weak(future, operation));
  }
  void operator()() const {
    for (const auto& weak : targets_) {
      if (const auto target = weak.lock()) target->cancel();
    }
  }

 private:
  std::vector<std::weak_ptr<FutureState>> targets_;
};

}  // namespace detail

/// A future that ends with a value when all of the given ones have ended, in whatever way: the
/// value is these futures, finished, in the order given. Ready at once for none. To cancel it asks
/// all of them to cancel. Its callbacks are of type Sync unless they say otherwise: they run in the
/// thread that settles the last one. Throws FutureException (Invalid) when one is empty.
///
///     gv::whenAll(std::vector{a, b}).wait(1000);
template <class T>
Future<std::vector<Future<T>>> whenAll(std::vector<Future<T>> futures) {
  struct Gathering {
    explicit Gathering(std::vector<Future<T>> given)
        : promise(FutureCallbackType::Sync, detail::CancelAll<T>(given, "whenAll")),
          futures(std::move(given)),
          left(futures.size() + 1) {}

    const Promise<std::vector<Future<T>>> promise;
    std::vector<Future<T>> futures;
    // One more than there are, for this function itself: nothing settles before all are connected.
    std::atomic<std::size_t> left;
  };
  auto gathering = std::make_shared<Gathering>(std::move(futures));
  auto all = gathering->promise.future();
  const auto ended = [](Gathering& them) {
    if (them.left.fetch_sub(1) != 1) return;
    detail::Settler::state(them.promise)
        .settle(std::move(them.futures), detail::CallbackTime::AfterCurrent);
  };
  const auto inputs = gathering->futures;
  for (const auto& future : inputs) {
    future.connect([gathering, ended](Future<T>) { ended(*gathering); }, FutureCallbackType::Sync);
  }
  ended(*gathering);
  return all;
}

/// A future that ends with a value when the first of the given ones has ended, in whatever way: the
/// value is its place among them. To cancel it asks all of them to cancel. Callbacks and empty
/// futures as above; throws std::invalid_argument for none. A future that never ends keeps a small
/// record of each `whenAny` that it took part in.
template <class T>
Future<std::size_t> whenAny(const std::vector<Future<T>>& futures) {
  if (futures.empty()) throw std::invalid_argument("whenAny: no futures to wait for");
  struct Race {
    explicit Race(const std::vector<Future<T>>& given)
        : promise(FutureCallbackType::Sync, detail::CancelAll<T>(given, "whenAny")) {}

    const Promise<std::size_t> promise;
    std::atomic<bool> isOver{false};
  };
  auto race = std::make_shared<Race>(futures);
  auto first = race->promise.future();
  for (std::size_t place = 0; place < futures.size(); ++place) {
    futures[place].connect(
        [race, place](Future<T>) {
          if (race->isOver.exchange(true)) return;
          detail::Settler::state(race->promise).settle(place, detail::CallbackTime::AfterCurrent);
        },
        FutureCallbackType::Sync);
  }
  return first;
}

}  // namespace gv
