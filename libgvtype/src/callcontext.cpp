#include <gvtype/callcontext.h>

namespace gv {
namespace {

thread_local CallContext current_;

}  // namespace

const CallContext& CallContext::current() {
  return current_;
}

CallContextScope::CallContextScope(const CallContext& context) : previous_(current_) {
  current_ = context;
}

CallContextScope::~CallContextScope() {
  current_ = previous_;
}

}  // namespace gv
