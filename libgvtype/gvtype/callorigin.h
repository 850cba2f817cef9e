#pragma once

#include <memory>

#include <gvtype/api.h>

namespace gv {

/// Whose call a thread is serving. What the call leaves running when it returns is held against
/// them, so that no connection can fill a process with it.
class GVTYPE_API CallOrigin {
 public:
  /// While it lives, what this thread does is done for the origin.
  class GVTYPE_API Scope {
   public:
    /// The origin must live as long as the scope.
    explicit Scope(const CallOrigin& origin);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    const CallOrigin* const outer_;
  };

  /// Counts something that the call leaves running, until the result is dropped, on any thread;
  /// null where this thread serves nobody. Throws std::runtime_error where too much runs already.
  static std::shared_ptr<const void> holdOne();

 protected:
  ~CallOrigin() = default;

 private:
  virtual std::shared_ptr<const void> hold() const = 0;
};

}  // namespace gv
