#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gvtype/anyvalue.h>
#include <gvtype/buffer.h>
#include <gvtype/object.h>
#include <gvtype/struct.h>
#include <jxcommon/jxmodule.h>

namespace JX {

enum class Gear : std::uint8_t { Low, High };
struct Leg {
  std::int16_t number = 0;
  std::vector<float> joints;
  bool operator==(const Leg&) const = default;
};
GV_STRUCT(Leg, number, joints)

/// Of every kind of value that crosses calls.
using EchoedTypes =
    std::tuple<bool, std::int8_t, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t,
               std::uint32_t, std::int64_t, std::uint64_t, float, double, Gear, std::string,
               gv::Buffer, std::vector<std::string>, std::vector<bool>,
               std::map<std::string, std::vector<std::pair<int, double>>>,
               std::map<std::uint64_t, Leg>, std::optional<std::string>,
               std::vector<std::optional<Leg>>, std::tuple<bool, float, gv::Buffer>, gv::AnyValue,
               std::map<std::string, gv::AnyValue>, JXValue, std::vector<JXValue>>;

/// Its methods "echo0", "echo1", ... return what they are given: one for each of the types.
class Echoes : public JXModule {
 public:
  Echoes(boost::shared_ptr<JXBroker> broker, const std::string& name) : JXModule(broker, name) {
    std::apply([this](const auto&... samples) { (echo(samples), ...); }, EchoedTypes());
    functionName("echoObject", getName(), "");
    bindMethod(makeFunctor([](const gv::Object<gv::Empty>& object) { return object; }));
  }

 private:
  template <class T>
  void echo(const T&) {
    functionName("echo" + std::to_string(count_++), getName(), "");
    bindMethod(makeFunctor([](const T& value) { return value; }));
  }

  int count_ = 0;
};

}  // namespace JX
