// What makeFunctor refuses, with a part of what the compiler must say of each line.

#include <jxcommon/jxfunctor.h>

#include <gvtype/anyarguments.h>

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace {

struct Other {};

struct Device {
  void change();
  void given(std::string& text);
  void taken(std::string&& text);
  void unique(std::unique_ptr<int> owner);
  void text(const char* text);
  const char* name() const;
  std::optional<std::vector<std::string_view>> list();
  void tail(gv::AnyArguments arguments, int n);
  static void make();
  void temporary() &&;
  void volatile_() volatile;
  void printf(const char* format, ...);
  int member;
};

struct Generic {
  template <class T>
  T operator()(T value);
};

const boost::shared_ptr<Device> shared;
Device* device;
const Device* constant;
Other* other;

[[maybe_unused]] void bindEach() {
  using JX::makeFunctor;
  makeFunctor(device, &Device::change);     // taken
  makeFunctor(device, &Device::given);      // parameters must be values or references to const
  makeFunctor(device, &Device::taken);      // parameters must be values or references to const
  makeFunctor(device, &Device::unique);     // a parameter by value must be copyable
  makeFunctor(device, &Device::text);       // neither a pointer nor a view of a text
  makeFunctor(device, &Device::name);       // neither a pointer nor a view of a text
  makeFunctor(device, &Device::list);       // neither a pointer nor a view of a text
  makeFunctor(device, &Device::tail);       // AnyArguments must be the last parameter
  makeFunctor(device, &Device::make);       // only a member function has an object
  makeFunctor(device, [] {});               // only a member function has an object
  makeFunctor(device, &Device::temporary);  // callable as a named object
  makeFunctor(device, &Device::volatile_);  // callable as a named object
  makeFunctor(device, &Device::printf);     // parameters that are all written out
  makeFunctor(device, &Device::member);     // a callable must be a function
  makeFunctor(constant, &Device::change);   // changes an object that is const
  makeFunctor(other, &Device::change);      // does not have as a public base
  makeFunctor(shared, &Device::change);     // pass a plain pointer
  makeFunctor(&Device::change);             // a member function needs its object
  makeFunctor(Generic());                   // exactly one call operator that is no template
  makeFunctor([](std::string_view) {});     // neither a pointer nor a view of a text
  makeFunctor([](auto value) { return value; });  // exactly one call operator that is no template
  makeFunctor(5);                                 // exactly one call operator that is no template
}

}  // namespace
