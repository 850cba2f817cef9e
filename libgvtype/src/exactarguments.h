#pragma once

#include <span>
#include <vector>

#include <boost/container/small_vector.hpp>

#include <gvtype/genericfunctionparameters.h>

namespace gv {

/// Arguments as references to values of exactly the parameters' types: the caller's own where the
/// types match, converted copies else, which live as long as this.
class ExactArguments {
 public:
  /// Throws std::runtime_error for a wrong number of arguments (more are ignored where there is a
  /// tail), ConversionError where one does not convert.
  ExactArguments(std::span<const AnyReference> arguments,
                 std::span<const TypeInterface* const> types, bool hasTail);

  std::span<const AnyReference> references() const {
    return {references_.data(), references_.size()};
  }

 private:
  boost::container::small_vector<AnyReference, 4> references_;
  boost::container::small_vector<AnyValue, 2> converted_;
};

/// Throws std::runtime_error unless that many arguments can be given: "expected 1 argument, got 2".
void checkArgumentCount(std::size_t given, std::size_t wanted, bool hasTail);

}  // namespace gv
