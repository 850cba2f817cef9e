#pragma once

#include <string>
#include <utility>

#include <gvtype/signature.h>

namespace gv {

/// The description of one signal of an object. A value.
class MetaSignal {
 public:
  MetaSignal(unsigned uid, std::string name, Signature signature)
      : uid_(uid), name_(std::move(name)), signature_(std::move(signature)) {}

  /// The signal's id, unique within its object among methods, signals and properties; but a
  /// property's own signal has the property's id.
  unsigned uid() const { return uid_; }
  const std::string& name() const { return name_; }
  /// The parameters as a tuple, "(si)".
  const Signature& signature() const { return signature_; }
  /// The name with the parameters: "moved(ii)".
  std::string toString() const { return name_ + signature_.toString(); }

 private:
  unsigned uid_;
  std::string name_;
  Signature signature_;
};

}  // namespace gv
