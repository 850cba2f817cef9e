#include <gvmessaging/session.h>

#include "src/session/session_p.h"

namespace gv {

Session::Session() : Session(SessionSettings()) {}

Session::Session(const SessionSettings& settings) : p_(Private::make(settings)) {}

Session::~Session() {
  p_->close();
}

boost::shared_ptr<Session> SessionSettings::makeSession() const {
  return boost::shared_ptr<Session>(new Session(*this));
}

Future<void> Session::listenStandalone(const Url& url) {
  return p_->listenStandalone(url);
}

Future<void> Session::connect(const std::string& url) {
  return p_->connect(url);
}

Future<void> Session::listen(const Url& url) {
  return p_->listen(url);
}

Future<void> Session::close() {
  return p_->close();
}

bool Session::isConnected() const {
  return p_->isConnected();
}

Url Session::url() const {
  return p_->url();
}

std::vector<Url> Session::endpoints() const {
  return p_->endpoints();
}

Future<unsigned> Session::registerService(const std::string& name, Object<Empty> object) {
  return p_->registerService(name, object);
}

Future<void> Session::unregisterService(unsigned serviceId) {
  return p_->unregisterService(serviceId);
}

Future<std::vector<ServiceInfo>> Session::services(ServiceLocality locality) {
  return p_->services(locality);
}

Future<Object<Empty>> Session::service(const std::string& name, const std::string& protocol) {
  return p_->service(name, protocol);
}

}  // namespace gv
