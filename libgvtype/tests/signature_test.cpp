#include <gvtype/signature.h>

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <gvtype/futuretype.h>

#include "support/thrown.h"

namespace gv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string errorOf(const std::string& text) {
  return house::errorOf([&] { Signature{text}; });
}

TEST(Signature, AcceptsWhatIsWellFormed) {
  for (const char* text :
       {"", "V", "i", "as", "a{sv}", "()", "(i(sa{ib})ad)", "(*)", "(s*)", "aaav", "ammi", "am(is)",
        "(i(ii)<ns::Point,x,_y2>)<Other,a,b>", "()<None>"})
    EXPECT_EQ(Signature(text).toString(), text);
}

TEST(Signature, SaysWhereATextIsMalformed) {
  EXPECT_THAT(errorOf("(i"), HasSubstr("position 2"));
  EXPECT_THAT(errorOf("a"), HasSubstr("position 1"));
  EXPECT_THAT(errorOf("z"), HasSubstr("position 0: unknown type code"));
  EXPECT_THAT(errorOf("ii"), HasSubstr("position 1: more than one type"));
  EXPECT_THAT(errorOf("a{s}"), HasSubstr("position 3"));
  EXPECT_THAT(errorOf("(*i)"), HasSubstr("position 1"));
  EXPECT_THAT(errorOf("((*))"), HasSubstr("position 2"));
  EXPECT_THAT(errorOf("aV"), HasSubstr("position 1"));
  EXPECT_THAT(errorOf("am"), HasSubstr("position 2"));
  EXPECT_THAT(errorOf("(ii)<P,x>"), HasSubstr("position 8: fewer fields than members"));
  EXPECT_THAT(errorOf("(i)<P,x,y>"), HasSubstr("position 7: more fields than members"));
  EXPECT_THAT(errorOf("(i)<P::,x>"), HasSubstr("position 7: identifier expected"));
  EXPECT_THAT(errorOf("(i)<P,1x>"), HasSubstr("position 6: identifier expected"));
  EXPECT_THAT(errorOf("(i)<P,x"), HasSubstr("position 7: the text ends"));
  EXPECT_THAT(errorOf("(i*)<P,x>"), HasSubstr("position 2: unknown type code"));
  EXPECT_THAT(errorOf("i<P>"), HasSubstr("position 1: more than one type"));
  EXPECT_THAT(errorOf(std::string("i\0", 2)), HasSubstr("'i?' at position 1"));
}

TEST(Signature, BoundsDepthAndLength) {
  EXPECT_EQ(errorOf(std::string(Signature::maxDepth - 1, 'a') + "i"), "no error");
  EXPECT_THAT(errorOf(std::string(Signature::maxDepth, 'm') + "i"), HasSubstr("nested deeper"));
  EXPECT_THAT(errorOf(std::string(1000, '(')), HasSubstr("nested deeper"));
  EXPECT_EQ(errorOf("(" + std::string(Signature::maxLength - 2, 'i') + ")"), "no error");
  EXPECT_THAT(errorOf("(" + std::string(Signature::maxLength, 'i') + ")"), HasSubstr("longer"));
}

TEST(Signature, TakesMethodsAndTuplesApart) {
  EXPECT_EQ(signatureSplit("greet(s)"), (std::pair<std::string, std::string>{"greet", "(s)"}));
  EXPECT_EQ(signatureSplit("greet"), (std::pair<std::string, std::string>{"greet", ""}));
  EXPECT_THAT(signatureMembers("(a{s(i)}(ai)v*)"), ElementsAre("a{s(i)}", "(ai)", "v", "*"));
  EXPECT_THAT(signatureMembers("()"), ElementsAre());
  EXPECT_THAT(signatureMembers("(m(i)<P,x>a(s)<Q,y>b)<R,o,p,q>"),
              ElementsAre("m(i)<P,x>", "a(s)<Q,y>", "b"));
  EXPECT_EQ(signatureAnnotation("((i)<P,x>)<Q,o>"), "Q,o");
  EXPECT_EQ(signatureAnnotation("((i)<P,x>)"), "");
  EXPECT_FALSE(signatureHasCode("(i)<X,o>", 'o'));
  EXPECT_TRUE(signatureHasCode("(i(o)<X,x>)", 'o'));
}

TEST(Signature, NamesAValueOfEveryKind) {
  for (const char* text : {"b",  "c",     "y",    "n",     "q",   "i",  "u",  "x",           "t",
                           "f",  "d",     "s",    "r",     "v",   "ab", "ai", "av",          "o",
                           "ao", "a{si}", "(is)", "a(is)", "aai", "mi", "mv", "m(is)<P,a,b>"})
    EXPECT_EQ(AnyValue::makeDefault(text).signature(), text);
  EXPECT_THROW(AnyValue::makeDefault("X"), std::runtime_error);
  EXPECT_EQ(AnyReference::own(Future<void>()).signature(), "V");
  EXPECT_EQ(AnyReference::own(std::vector<Future<void>>()).signature(), "aX");
}

}  // namespace
}  // namespace gv
