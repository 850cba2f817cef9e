#pragma once

#include <functional>
#include <string>
#include <type_traits>

#include <gv/future.h>
#include <gvtype/anyreference.h>

namespace gv {

/// How a future ended. `value` shares ownership of the value; it is invalid after an error.
struct FutureOps::Ending {
  AnyReference value;
  std::string error;
  FutureException::State state = FutureException::State::UserError;
};

template <class T>
struct TypeTraits<Future<T>> {
  static void describe(TypeInterface& type) {
    type.kind = TypeKind::Future;
    static const FutureOps ops = {
        .valueType = [] { return getType<T>(); },
        .connect =
            [](const void* future, std::function<void(const FutureOps::Ending&)> callback) {
              // A callback needs a future of its own: connecting is not a const operation.
              auto copy = *static_cast<const Future<T>*>(future);
              copy.connect([callback = std::move(callback)](
                               Future<T> settled) { callback(endingOf(settled)); },
                           FutureCallbackType::Sync);
            },
        .peek =
            [](const void* future, FutureOps::Ending& ending) {
              const auto& self = *static_cast<const Future<T>*>(future);
              if (!self.isFinished()) return false;
              ending = endingOf(self);
              return true;
            },
    };
    type.future = &ops;
  }

 private:
  static FutureOps::Ending endingOf(const Future<T>& settled) {
    try {
      if constexpr (std::is_void_v<T>) {
        settled.value();
        return {.value = AnyReference::ofVoid(), .error = {}};
      } else {
        return {.value = AnyReference::own(settled.value()), .error = {}};
      }
    } catch (const FutureException& error) {
      return {.value = {}, .error = error.what(), .state = error.state()};
    } catch (const std::exception& error) {
      return {.value = {}, .error = error.what()};
    } catch (...) {
      return {.value = {}, .error = "unknown exception"};
    }
  }
};

}  // namespace gv
