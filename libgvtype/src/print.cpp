#include <gvtype/print.h>

#include <ostream>

#include <gvtype/nesting.h>

#include "fieldorder.h"
#include "scalar.h"

namespace gv {
namespace {

class Printer {
 public:
  explicit Printer(std::size_t maxLength) : maxLength_(maxLength) {}

  void print(const AnyReference& value) {
    if (isFull()) return;
    if (!value.isValid()) {
      text_ += "nothing";
    } else if (value.type()->kind < TypeKind::List) {
      printFlat(value);
    } else if (NestingLevel::isExhausted()) {
      text_ += "...";
    } else {
      const NestingLevel level;
      printNested(value);
    }
  }

  std::string take() && {
    if (isFull()) text_.replace(maxLength_, std::string::npos, "...");
    return std::move(text_);
  }

 private:
  bool isFull() const { return text_.size() > maxLength_; }

  void printFlat(const AnyReference& value) {
    switch (value.type()->kind) {
      case TypeKind::Void:
        text_ += "void";
        return;
      case TypeKind::Bool:
        text_ += readInteger(value).bits ? "true" : "false";
        return;
      case TypeKind::String:
        return printString(value.type()->bytes->view(value.pointer()));
      case TypeKind::Raw:
        text_ +=
            "raw(" + std::to_string(value.type()->bytes->view(value.pointer()).size()) + " bytes)";
        return;
      default:
        text_ += scalarText(value);
    }
  }

  void printNested(const AnyReference& value) {
    const TypeInterface* type = value.type();
    const void* pointer = value.pointer();
    switch (type->kind) {
      case TypeKind::List: {
        Separated items(*this, '[', ']');
        return type->list->forEach(pointer, [&](const AnyReference& item) { items.print(item); });
      }
      case TypeKind::Map: {
        Separated items(*this, '{', '}');
        return type->map->forEach(pointer, [&](const AnyReference& key, const AnyReference& item) {
          if (isFull()) return;
          items.print(key);
          text_ += ": ";
          print(item);
        });
      }
      case TypeKind::Tuple:
        return printTuple(value);
      case TypeKind::Optional:
        return print(type->optional->content(pointer));
      case TypeKind::Dynamic:
        return print(type->dynamic->content(pointer));
      default:
        text_ += "<" + typeName(type) + ">";
    }
  }

  void printTuple(const AnyReference& value) {
    const std::string_view annotation = annotationOf(value);
    const auto fields = fieldNames(annotation);
    text_ += annotation.substr(0, annotation.find(','));
    Separated items(*this, annotation.empty() ? '(' : '{', annotation.empty() ? ')' : '}');
    for (std::size_t i = 0; i < value.type()->tuple->size(value.pointer()); ++i)
      items.print(value.type()->tuple->member(value.pointer(), i),
                  i < fields.size() ? fields[i] : std::string_view());
  }

  void printString(std::string_view string) {
    text_ += '"';
    for (const char c : string) {
      if (isFull()) return;
      printCharacter(c);
    }
    text_ += '"';
  }

  void printCharacter(char c) {
    constexpr const char* digits = "0123456789abcdef";
    if (c == '"' || c == '\\')
      text_.append({'\\', c});
    else if (c == '\n')
      text_ += "\\n";
    else if (c == '\t')
      text_ += "\\t";
    else if ((c >= 0 && c < ' ') || c == '\x7f')
      text_.append({'\\', 'x', digits[c >> 4], digits[c & 15]});
    else
      text_ += c;
  }

  /// Items with commas between them and brackets around.
  class Separated {
   public:
    Separated(Printer& printer, char open, char close) : printer_(printer), close_(close) {
      printer_.text_ += open;
    }
    ~Separated() { printer_.text_ += close_; }

    void print(const AnyReference& item, std::string_view name = {}) {
      if (printer_.isFull()) return;
      if (!isFirst_) printer_.text_ += ", ";
      isFirst_ = false;
      if (!name.empty()) printer_.text_.append(name).append(": ");
      printer_.print(item);
    }

   private:
    Printer& printer_;
    const char close_;
    bool isFirst_ = true;
  };

  const std::size_t maxLength_;
  std::string text_;
};

}  // namespace

std::string toText(const AnyReference& value, std::size_t maxLength) {
  Printer printer(maxLength);
  printer.print(value);
  return std::move(printer).take();
}

std::ostream& operator<<(std::ostream& stream, const AnyValue& value) {
  return stream << toText(value.asReference());
}

}  // namespace gv
