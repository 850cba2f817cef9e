#pragma once

#include <chrono>
#include <functional>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

#include <jxerror/jxerror.h>
#include <jxvalue/jxvalue.h>

namespace hello {

/// Prints what was called, what came back and how long it took, one line a call, and remembers
/// whether all came back as expected.
class Report {
 public:
  void title(const std::string& text) { std::cout << '\n' << text << '\n'; }

  /// A call that must bring exactly this result, shown as JSON.
  void returns(const std::string& what, const JX::JXValue& expected,
               const std::function<JX::JXValue()>& call) {
    run(what, call, [&expected](const std::string& result, bool isError) {
      return !isError && result == expected.toJson();
    });
  }

  /// A call that must fail with an error that contains this text.
  void fails(const std::string& what, const std::string& expected,
             const std::function<JX::JXValue()>& call) {
    run(what, call, [&expected](const std::string& result, bool isError) {
      return isError && result.find(expected) != std::string::npos;
    });
  }

  void line(const std::string& text) { std::cout << "  " << text << '\n'; }

  bool allAsExpected() const { return allAsExpected_; }

 private:
  using Clock = std::chrono::steady_clock;

  void run(const std::string& what, const std::function<JX::JXValue()>& call,
           const std::function<bool(const std::string&, bool)>& isExpected) {
    std::string result;
    bool isError = false;
    const Clock::time_point start = Clock::now();
    Clock::time_point end;
    try {
      const JX::JXValue value = call();
      end = Clock::now();
      result = value.toJson();
    } catch (const JX::JXError& error) {
      end = Clock::now();
      result = error.description();
      isError = true;
    }
    print(what, result, isError, end - start);
    if (isExpected(result, isError)) return;
    allAsExpected_ = false;
    std::cout << "    ^ this is not what was expected\n";
  }

  static void print(const std::string& what, const std::string& result, bool isError,
                    Clock::duration duration) {
    std::cout << "  " << std::left << std::setw(34) << what << std::right << std::setw(9)
              << durationText(duration) << "   " << (isError ? "error: " : "") << result << '\n';
  }

  static std::string durationText(Clock::duration duration) {
    const std::chrono::duration<double, std::micro> micros = duration;
    std::ostringstream text;
    text << std::fixed << std::setprecision(1);
    if (micros.count() < 1000)
      text << micros.count() << " us";
    else
      text << micros.count() / 1000 << " ms";
    return text.str();
  }

  bool allAsExpected_ = true;
};

}  // namespace hello
