#include <jxcommon/jxmodule.h>

#include <gv/log.h>

namespace JX {
namespace {

[[maybe_unused]] const bool categoryIsRegistered = (gv::log::addCategory("JXModule"), true);

}  // namespace

JXModule::JXModule(boost::shared_ptr<JXBroker> broker, const std::string& name)
    : JXModuleCore(std::move(broker), name) {}

JXModule::~JXModule() = default;

void JXModule::exit() {
  JXModuleCore::exit();
}

void JXModule::init() {}

}  // namespace JX
