#pragma once

#include <jxerror/api.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace JX {

/// A failure reported to a caller of the classic interface: who failed, in which operation, why,
/// and where in the sources.
///
/// A value: it never changes once built, copies share one record and never throw, and any thread
/// may read any copy. What a remote method threw arrives as a JXError whose description is the
/// text of that exception.
class JXERROR_API JXError : public std::runtime_error {
 public:
  /// @param module      name of the module or class that failed
  /// @param method      name of the operation that failed, without parentheses
  /// @param description what went wrong, as a sentence for a person
  /// @param file        source file that reports it; empty when unknown
  /// @param line        line in that file; 0 when unknown
  JXError(std::string module, std::string method, std::string description, std::string file = "",
          int line = 0);
  JXError(const JXError&) noexcept;
  JXError& operator=(const JXError&) noexcept;
  ~JXError() override;

  const std::string& moduleName() const noexcept;
  const std::string& methodName() const noexcept;

  /// What went wrong, alone: neither module nor method are part of it.
  const std::string& description() const noexcept;

  /// Source file as it was given; empty when unknown.
  const std::string& file() const noexcept;

  /// Line in file(); 0 when unknown.
  int line() const noexcept;

  /// The text of what(), "<module>::<method>: <description>", followed by the source position in
  /// parentheses, "(<file>:<line>)", when the file is known.
  std::string toString() const;

 private:
  struct Record;
  std::shared_ptr<const Record> record_;  // never null; shared so that copying cannot throw
};

}  // namespace JX
