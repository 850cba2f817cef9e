#include <jxerror/jxerror.h>

#include <utility>

namespace JX {

struct JXError::Record {
  std::string module;
  std::string method;
  std::string description;
  std::string file;
  int line;
};

JXError::JXError(std::string module, std::string method, std::string description, std::string file,
                 int line)
    : std::runtime_error(module + "::" + method + ": " + description),
      record_(std::make_shared<const Record>(Record{
          std::move(module), std::move(method), std::move(description), std::move(file), line})) {}

JXError::JXError(const JXError&) noexcept = default;
JXError& JXError::operator=(const JXError&) noexcept = default;

// Here, so that the type's identity lives in this library and the exception is caught in others.
JXError::~JXError() = default;

const std::string& JXError::moduleName() const noexcept {
  return record_->module;
}
const std::string& JXError::methodName() const noexcept {
  return record_->method;
}
const std::string& JXError::description() const noexcept {
  return record_->description;
}
const std::string& JXError::file() const noexcept {
  return record_->file;
}
int JXError::line() const noexcept {
  return record_->line;
}

std::string JXError::toString() const {
  if (record_->file.empty()) return what();
  return std::string(what()) + " (" + record_->file + ":" + std::to_string(record_->line) + ")";
}

}  // namespace JX
