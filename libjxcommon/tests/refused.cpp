// What makeFunctor refuses, with a part of what the compiler must say of each line.

#include <jxcommon/jxfunctor.h>

#include <memory>

namespace {

struct Other {};

struct Device {
  void change();
  void given(std::string& text);
  void taken(std::string&& text);
  void unique(std::unique_ptr<int> owner);
  void text(const char* text);
  const char* name() const;
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
  makeFunctor(device, &Device::text);       // a text must be a std::string
  makeFunctor(device, &Device::name);       // a text must be a std::string
  makeFunctor(device, &Device::temporary);  // callable as a named object
  makeFunctor(device, &Device::volatile_);  // callable as a named object
  makeFunctor(device, &Device::printf);     // parameters that are all written out
  makeFunctor(device, &Device::member);     // a callable must be a function
  makeFunctor(constant, &Device::change);   // changes an object that is const
  makeFunctor(other, &Device::change);      // does not have as a public base
  makeFunctor(shared, &Device::change);     // pass a plain pointer
  makeFunctor(&Device::change);             // a member function needs its object
  makeFunctor(Generic());                   // exactly one call operator that is no template
  makeFunctor([](std::string_view) {});     // a text must be a std::string
  makeFunctor([](auto value) { return value; });  // exactly one call operator that is no template
  makeFunctor(5);                                 // exactly one call operator that is no template
}

}  // namespace
