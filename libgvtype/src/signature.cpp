#include <gvtype/signature.h>

#include <stdexcept>

namespace gv {
namespace {

constexpr std::string_view simpleCodes = "bcynqiuxtfdsrvoX";

[[noreturn]] void fail(std::string_view text, std::size_t position, const std::string& reason) {
  constexpr std::size_t shown = 80;
  std::string printable(text.substr(0, shown));
  for (char& c : printable)
    if (c < ' ' || c > '~') c = '?';
  throw std::runtime_error("malformed signature '" + printable +
                           (text.size() > shown ? "...'" : "'") + " at position " +
                           std::to_string(position) + ": " + reason);
}

bool isIdentifierPart(char c, bool mayBeDigit) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         (mayBeDigit && c >= '0' && c <= '9');
}

/// Reads complete types from a text, front to back, in one pass.
class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  void parseWhole() {
    if (text_ == "V") return;
    parseType(0);
    if (position_ != text_.size()) fail(text_, position_, "more than one type");
  }

 private:
  char peek(const char* expected) const {
    if (position_ == text_.size())
      fail(text_, position_, std::string("the text ends where ") + expected + " is expected");
    return text_[position_];
  }

  void parseType(int depth) {
    if (depth >= Signature::maxDepth)
      fail(text_, position_, "nested deeper than " + std::to_string(Signature::maxDepth));
    const char code = peek("a type");
    if (simpleCodes.find(code) != std::string_view::npos) {
      ++position_;
    } else if (code == 'a') {
      ++position_;
      if (peek("an element type") == '{')
        parseMap(depth);
      else
        parseType(depth + 1);
    } else if (code == 'm') {
      ++position_;
      parseType(depth + 1);
    } else if (code == '(') {
      parseTuple(depth);
    } else {
      fail(text_, position_, "unknown type code");
    }
  }

  void parseMap(int depth) {
    ++position_;
    parseType(depth + 1);
    parseType(depth + 1);
    if (peek("'}'") != '}') fail(text_, position_, "'}' expected");
    ++position_;
  }

  void parseTuple(int depth) {
    ++position_;
    std::size_t members = 0;
    for (; peek("')'") != ')'; ++members) {
      if (depth == 0 && text_.substr(position_) == "*)")
        ++position_;
      else
        parseType(depth + 1);
    }
    const bool hasTail = text_[position_ - 1] == '*';
    ++position_;
    if (!hasTail && text_.substr(position_).starts_with('<')) parseAnnotation(members);
  }

  void parseAnnotation(std::size_t members) {
    ++position_;
    parseIdentifier();
    while (text_.substr(position_).starts_with("::")) {
      position_ += 2;
      parseIdentifier();
    }
    for (; members > 0; --members) {
      if (peek("',' and a field") != ',') fail(text_, position_, "fewer fields than members");
      ++position_;
      parseIdentifier();
    }
    if (peek("'>'") == ',') fail(text_, position_, "more fields than members");
    if (text_[position_] != '>') fail(text_, position_, "'>' expected");
    ++position_;
  }

  void parseIdentifier() {
    const std::size_t start = position_;
    while (position_ < text_.size() && isIdentifierPart(text_[position_], position_ > start))
      ++position_;
    if (position_ == start) fail(text_, position_, "identifier expected");
  }

  std::string_view text_;
  std::size_t position_ = 0;
};

}  // namespace

Signature::Signature(std::string text) : text_(std::move(text)) {
  if (text_.size() > maxLength)
    fail(text_, maxLength, "longer than " + std::to_string(maxLength) + " characters");
  if (!text_.empty()) Parser(text_).parseWhole();
}

std::pair<std::string, std::string> signatureSplit(const std::string& nameOrSignature) {
  const std::size_t open = nameOrSignature.find('(');
  if (open == std::string::npos) return {nameOrSignature, {}};
  return {nameOrSignature.substr(0, open), nameOrSignature.substr(open)};
}

std::size_t signatureLength(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == 'a' || text[i] == 'm')) ++i;
  if (i < text.size() && (text[i] == '(' || text[i] == '{')) {
    int open = 0;
    for (; i < text.size(); ++i) {
      if (text[i] == '(' || text[i] == '{') ++open;
      if ((text[i] == ')' || text[i] == '}') && --open == 0) break;
    }
    if (text.substr(i).starts_with(")<")) i = text.find('>', i);
  }
  return i + 1;
}

std::string_view signatureAnnotation(std::string_view tuple) {
  if (!tuple.starts_with('(') || !tuple.ends_with('>')) return {};
  const std::size_t open = tuple.rfind('<');
  return tuple.substr(open + 1, tuple.size() - open - 2);
}

bool signatureHasCode(std::string_view text, char code) {
  bool isInAnnotation = false;
  for (const char c : text) {
    if (c == '<' || c == '>')
      isInAnnotation = c == '<';
    else if (c == code && !isInAnnotation)
      return true;
  }
  return false;
}

}  // namespace gv
