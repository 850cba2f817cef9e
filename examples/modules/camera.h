#pragma once

#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include <gv/eventloop.h>
#include <jxcommon/jxmodule.h>

/// The module of docs/modules.md.
class Camera : public JX::JXModule {
 public:
  Camera(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JX::JXModule(broker, name) {
    setModuleDescription("A camera that counts its pictures.");

    functionName("take", getName(), "Takes a picture.");
    addParam("width", "In pixels, 1 to 4096.");
    setReturn("number", "Which picture it is, from 1 on.");
    bindMethod(JX::makeFunctor(this, &Camera::take));

    functionName("film", getName(), "Takes pictures until it is asked to stop.");
    bindMethod(JX::makeFunctor(this, &Camera::film));

    functionName("develop", getName(), "Develops a picture.");
    addParam("number", "Which picture.");
    setReturn("title", "What is on it.");
    bindMethod(JX::makeFunctor(this, &Camera::develop));

    functionName("pictures", getName(), "How many pictures were taken.");
    setReturn("count", "Their number.");
    bindMethod(JX::makeFunctor([this] { return count(); }));
  }

  std::string version() override { return "1.0"; }

  int take(int width) {
    if (width < 1 || width > 4096)
      throw std::out_of_range("the width must be 1 to 4096, not " + std::to_string(width));
    const std::lock_guard lock(mutex_);
    return ++taken_;
  }

  void film() {
    while (!isStopRequired()) {
      take(640);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  gv::Future<std::string> develop(int number) {
    return gv::getEventLoop()->async([number] { return "picture " + std::to_string(number); },
                                     std::chrono::milliseconds(20));
  }

  int count() const {
    const std::lock_guard lock(mutex_);
    return taken_;
  }

 private:
  mutable std::mutex mutex_;  // guards taken_
  int taken_ = 0;
};
