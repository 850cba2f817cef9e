#include "src/rpc/recentdescriptions.h"

#include <algorithm>
#include <deque>
#include <mutex>
#include <utility>

namespace gv::rpc {
namespace {

// What peers can make this process keep is bounded by all three.
constexpr std::size_t mostKept = 16;
constexpr std::size_t mostMembers = 128;
constexpr std::size_t mostBytes = 64u << 10;  // of texts and signatures

struct Recent {
  std::mutex mutex;  // guards the entries, of which the newest is first
  std::deque<std::pair<MetaObjectDescription, MetaObject>> entries;
};

bool isSmall(const MetaObjectDescription& description) {
  const auto& [text, methods, signals, properties] = description;
  if (methods.size() + signals.size() + properties.size() > mostMembers) return false;
  std::size_t bytes = text.size();
  for (const auto& [uid, name, parameters, result, about, each, aboutResult] : methods) {
    bytes += parameters.size() + result.size() + about.size() + aboutResult.size();
    for (const auto& [parameter, aboutIt] : each) bytes += parameter.size() + aboutIt.size() + 1;
  }
  for (const auto* members : {&signals, &properties})
    for (const auto& [uid, name, signature] : *members) bytes += signature.size();
  return bytes <= mostBytes;
}

}  // namespace

MetaObject makeSharedMetaObject(const MetaObjectDescription& description) {
  if (!isSmall(description)) return makeMetaObject(description);
  static Recent& recent = *new Recent;  // objects may be used in static destruction
  {
    const std::lock_guard lock(recent.mutex);
    const auto same = std::find_if(recent.entries.begin(), recent.entries.end(),
                                   [&](const auto& kept) { return kept.first == description; });
    if (same != recent.entries.end()) return same->second;
  }
  MetaObject made = makeMetaObject(description);
  const std::lock_guard lock(recent.mutex);
  recent.entries.emplace_front(description, made);
  if (recent.entries.size() > mostKept) recent.entries.pop_back();
  return made;
}

}  // namespace gv::rpc
