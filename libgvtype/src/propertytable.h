#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include <gvtype/anyreference.h>

namespace gv {

/// The values of the properties that an object keeps itself. A value never changes, it is replaced:
/// readers share it. No lock is held while one is copied, converted or destroyed.
class PropertyTable {
 public:
  /// The property is of the type that `initial` holds.
  void add(unsigned id, const std::string& name, AnyValue initial);
  /// The value, which the reference keeps alive. Throws std::runtime_error for an unknown id.
  AnyReference value(unsigned id) const;
  /// Replaces the value by this one, converted to the property's type, and returns it. Throws
  /// std::runtime_error, and keeps the old one, where it does not convert.
  AnyReference set(unsigned id, const AnyReference& value);

 private:
  struct Property {
    std::string name;
    std::shared_ptr<const AnyValue> value;
  };

  Property property(unsigned id) const;

  mutable std::mutex mutex_;  // guards what follows
  std::unordered_map<unsigned, Property> properties_;
};

}  // namespace gv
