#include <jxcommon/jxfunctor.h>

namespace JX {

JXFunctorBase::~JXFunctorBase() = default;

}  // namespace JX
