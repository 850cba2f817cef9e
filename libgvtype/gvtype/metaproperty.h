#pragma once

#include <string>
#include <utility>

#include <gvtype/signature.h>

namespace gv {

/// The description of one property of an object: a value with a signal of the same id and name,
/// which is emitted with each new value. A value.
class MetaProperty {
 public:
  MetaProperty(unsigned uid, std::string name, Signature signature)
      : uid_(uid), name_(std::move(name)), signature_(std::move(signature)) {}

  /// The property's id, unique within its object but for the property's own signal.
  unsigned uid() const { return uid_; }
  const std::string& name() const { return name_; }
  /// The type of the value, "i".
  const Signature& signature() const { return signature_; }
  /// The name with the type, as the property's signal shows: "volume(i)".
  std::string toString() const { return name_ + "(" + signature_.toString() + ")"; }

 private:
  unsigned uid_;
  std::string name_;
  Signature signature_;
};

}  // namespace gv
