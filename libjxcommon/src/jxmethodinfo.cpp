#include <jxcommon/jxmethodinfo.h>

namespace JX {

JXMethodInfo::JXMethodInfo() = default;
JXMethodInfo::JXMethodInfo(const JXMethodInfo&) = default;
JXMethodInfo& JXMethodInfo::operator=(const JXMethodInfo&) = default;
JXMethodInfo::~JXMethodInfo() = default;

}  // namespace JX
