// Any payload is refused, or decodes to a value that is written and read again unchanged.

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include <gvtype/conversion.h>
#include <gvtype/metaobjectdescription.h>

#include "law.h"
#include "src/directory/serviceentry.h"
#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"

namespace {

using gv::AnyReference;
using gv::AnyValue;

gv::wire::Limits smallLimits() {
  gv::wire::Limits limits;
  limits.decodedBytes = 1u << 20;
  return limits;
}

/// Writing may refuse what reading took: what lies at the limit of nesting.
bool write(std::vector<char>& out, const AnyReference& value, const std::string& signature) {
  try {
    gv::wire::writeValue(out, value, signature);
    return true;
  } catch (const gv::ConversionError&) {
    return false;
  }
}

/// A value whose bytes were read is written to bytes that stay the same from then on. The first
/// bytes may be other ones: numbers have several lengths, and maps an order.
void requireFixedPoint(const AnyValue& value, const AnyValue& emptyCopy,
                       const std::string& signature) {
  std::vector<char> once;
  if (!write(once, value.asReference(), signature)) return;
  AnyValue back = emptyCopy;
  gv::wire::readValue(once, back.asReference(), gv::wire::Limits());
  std::vector<char> twice;
  fuzz::require(write(twice, back.asReference(), signature), "what was read can be written again");
  fuzz::require(once == twice, "encode(decode(x)) is a fixed point");
}

void readAsValue(std::span<const char> payload, const std::string& signature) {
  const AnyValue empty = AnyValue::makeDefault(signature);
  AnyValue value = empty;
  try {
    gv::wire::readValue(payload, value.asReference(), smallLimits());
  } catch (const gv::wire::PayloadError&) {
    return;
  }
  requireFixedPoint(value, empty, signature);
}

void readAsDynamic(std::span<const char> payload) {
  AnyValue content;
  try {
    gv::wire::readValue(payload, AnyReference::from(content), smallLimits());
  } catch (const gv::wire::PayloadError&) {
    return;
  }
  std::vector<char> once;
  if (!write(once, AnyReference::from(content), "v")) return;
  AnyValue back;
  gv::wire::readValue(once, AnyReference::from(back), gv::wire::Limits());
  std::vector<char> twice;
  fuzz::require(write(twice, AnyReference::from(back), "v"), "a dynamic value is written again");
  fuzz::require(once == twice, "encode(decode(x)) of a dynamic value is a fixed point");
}

/// The arguments of a call, the last ones dynamic.
void readAsArguments(std::span<const char> payload) {
  int number = 0;
  std::string text;
  std::map<std::string, std::vector<double>> lists;
  const std::vector<AnyReference> targets{AnyReference::from(number), AnyReference::from(text),
                                          AnyReference::from(lists)};
  std::vector<AnyValue> tail;
  try {
    gv::wire::readArguments(payload, targets, &tail, smallLimits());
  } catch (const gv::wire::PayloadError&) {
  }
}

/// What another process says of its object. It has nothing that the framework would not describe.
void readAsDescription(std::span<const char> payload) {
  gv::MetaObjectDescription description;
  gv::MetaObject object;
  try {
    gv::wire::readValue(payload, AnyReference::from(description), smallLimits());
    object = gv::makeMetaObject(description);
  } catch (const std::runtime_error&) {
    return;
  }
  const auto once = gv::describeMetaObject(object);
  fuzz::require(gv::describeMetaObject(gv::makeMetaObject(once)) == once,
                "an accepted description describes the same object again");
}

/// What another process says of the network's services.
void readAsEntries(std::span<const char> payload) {
  std::vector<gv::directory::ServiceEntry> entries;
  try {
    gv::wire::readValue(payload, AnyReference::from(entries), smallLimits());
  } catch (const gv::wire::PayloadError&) {
    return;
  }
  for (const auto& entry : entries) {
    const gv::ServiceInfo info = gv::directory::toInfo(entry);
    for (const gv::Url& url : info.endpoints()) fuzz::require(url.isValid(), "endpoints are valid");
    fuzz::require(gv::directory::toInfo(gv::directory::toEntry(info)) == info,
                  "an entry says the same of a service again");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::array<std::string, 10> signatures = {
      "i", "t", "d", "s", "r", "ab", "a{s(id)}", "(ysv)<P,a,b,c>", "a{vv}", "am(iamv)"};
  if (size == 0) return 0;
  const std::span<const char> payload(reinterpret_cast<const char*>(data + 1), size - 1);
  const std::size_t choice = data[0] % (signatures.size() + 4);
  if (choice < signatures.size())
    readAsValue(payload, signatures[choice]);
  else if (choice == signatures.size())
    readAsDynamic(payload);
  else if (choice == signatures.size() + 1)
    readAsArguments(payload);
  else if (choice == signatures.size() + 2)
    readAsDescription(payload);
  else
    readAsEntries(payload);
  return 0;
}
