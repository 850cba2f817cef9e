#include "propertytable.h"

#include <stdexcept>

#include <gvtype/conversion.h>

namespace gv {
namespace {

AnyReference sharing(std::shared_ptr<const AnyValue> value) {
  const AnyReference inside = value->asReference();
  return {inside.type(), inside.pointer(), std::const_pointer_cast<AnyValue>(std::move(value))};
}

}  // namespace

void PropertyTable::add(unsigned id, const std::string& name, AnyValue initial) {
  auto value = std::make_shared<const AnyValue>(std::move(initial));
  const std::lock_guard lock(mutex_);
  properties_[id] = {name, std::move(value)};
}

PropertyTable::Property PropertyTable::property(unsigned id) const {
  const std::lock_guard lock(mutex_);
  const auto found = properties_.find(id);
  if (found == properties_.end())
    throw std::runtime_error("the object keeps no property with id " + std::to_string(id) +
                             " in this process");
  return found->second;
}

AnyReference PropertyTable::value(unsigned id) const {
  return sharing(property(id).value);
}

AnyReference PropertyTable::set(unsigned id, const AnyReference& value) {
  const Property old = property(id);  // keeps the old value: it dies after the unlock
  const TypeInterface* type = old.value->type();
  auto converted = std::make_shared<AnyValue>(AnyValue::make(type));
  try {
    convertInto(value, type, converted->asReference().pointer());
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("property '" + old.name + "': " + error.what());
  }
  std::shared_ptr<const AnyValue> placed = converted;
  {
    const std::lock_guard lock(mutex_);
    properties_.at(id).value.swap(placed);  // another one's value may come out
  }
  return sharing(std::move(converted));
}

}  // namespace gv
