#pragma once

namespace gv::wire {

/// What this thread keeps of a T for its next use. Null once the thread's own objects are gone: in
/// the main thread what is destroyed at exit comes after them, and may still send.
template <class T>
T* threadSpare() {
  static thread_local bool isGone = false;
  struct Spare {
    T value{};
    ~Spare() { isGone = true; }
  };
  static thread_local Spare spare;
  return isGone ? nullptr : &spare.value;
}

}  // namespace gv::wire
