#pragma once

#include <stdexcept>
#include <string>

namespace house {

/// The text of the error of this type that the action throws; "no error" when it throws nothing.
template <class Error = std::runtime_error, class F>
std::string errorOf(const F& action) {
  try {
    action();
    return "no error";
  } catch (const Error& error) {
    return error.what();
  }
}

}  // namespace house
