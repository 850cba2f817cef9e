// Erased calls: signatures, conversion of arguments, results, errors.

#include <gvtype/anyfunction.h>

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <new>
#include <string>

#include <gvtype/conversion.h>
#include <boost/function.hpp>

#include "support/thrown.h"

namespace gv {
namespace {

int twice(int n) {
  return 2 * n;
}

struct Account {
  int balance = 0;
  void deposit(int amount) { balance += amount; }
  int withdraw(int amount) & noexcept { return balance -= amount; }
  int times(int factor) const& { return balance * factor; }
  int operator()(int factor) const& noexcept { return times(factor); }
  std::string describe(const std::string& currency) const {
    return std::to_string(balance) + " " + currency;
  }
};

template <class... A>
std::string errorOf(const AnyFunction& function, const A&... arguments) {
  return house::errorOf<std::exception>([&] { function.call(makeParameters(arguments...)); });
}

TEST(AnyFunction, KnowsItsSignaturesAndConverts) {
  const AnyFunction function = AnyFunction::from(twice);
  EXPECT_EQ(function.returnSignature().toString(), "i");
  EXPECT_EQ(function.parametersSignature().toString(), "(i)");
  EXPECT_EQ(function.call(makeParameters(21)).to<int>(), 42);
  EXPECT_EQ(function.call(makeParameters(4.0)).to<long>(), 8);
  EXPECT_EQ(errorOf(function, std::string("x")), "cannot convert string to int32 (argument 1)");
  EXPECT_EQ(errorOf(function), "expected 1 argument, got 0");
  EXPECT_EQ(errorOf(function, 1, 2), "expected 1 argument, got 2");
}

TEST(AnyFunction, FromMembersBoundAndUnbound) {
  Account account;
  const AnyFunction deposit = AnyFunction::from(&account, &Account::deposit);
  EXPECT_EQ(deposit.call(makeParameters(5)).type()->kind, TypeKind::Void);
  const AnyFunction unbound = AnyFunction::from(&Account::describe);
  EXPECT_EQ(unbound.parametersSignature(true).toString(), "(s)");
  EXPECT_EQ(unbound.call(makeParameters(account, std::string("EUR"))).to<std::string>(), "5 EUR");
}

TEST(AnyFunction, FromCallablesOfEveryShape) {
  struct Savings : Account {};
  Savings savings;
  savings.balance = 7;
  const Account account = savings;
  const Savings& constant = savings;
  int calls = 0;
  const AnyFunction rows[] = {
      AnyFunction::from(&savings, &Account::times),
      AnyFunction::from(&constant, &Savings::times),
      AnyFunction::from(account),
      AnyFunction::from(std::function<int(int)>(account)),
      AnyFunction::from(boost::function<int(int)>(account)),
      AnyFunction::from([&calls, n = 0](int factor) mutable { return (calls += ++n, 7 * factor); }),
      AnyFunction::from(+[](int factor) noexcept { return 7 * factor; }),
  };
  for (const AnyFunction& function : rows)
    EXPECT_EQ(function.call(makeParameters(3)).to<int>(), 21) << &function - rows;
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(AnyFunction::from(&Account::times).call(makeParameters(account, 2)).to<int>(), 14);
  AnyFunction::from(&savings, &Account::withdraw).call(makeParameters(3));
  EXPECT_EQ(savings.balance, 4);
}

TEST(AnyFunction, BehindAnInstanceIgnoresIt) {
  const AnyFunction method = AnyFunction::from(twice).withInstance();
  EXPECT_EQ(method.parametersSignature().toString(), "(oi)");
  EXPECT_EQ(method.parametersSignature(true).toString(), "(i)");
  const int n = 3;
  EXPECT_EQ(method.call({AnyReference(), AnyReference::from(n)}).to<int>(), 6);
  EXPECT_EQ(errorOf(method), "expected 1 argument, got 0");
}

TEST(AnyFunction, GivesItsTailWhateverWasPassed) {
  const AnyFunction function =
      AnyFunction::from([](const std::string& first, const AnyArguments& rest) {
        return first + rest.args[1].to<std::string>();
      });
  EXPECT_EQ(function.parametersSignature().toString(), "(s*)");
  EXPECT_EQ(function.call(makeParameters(std::string("a"), 1, std::string("b"))).to<std::string>(),
            "ab");
  EXPECT_EQ(errorOf(function), "expected at least 1 argument, got 0");
}

TEST(AnyFunction, EmptyOnesRefuseToBeCalled) {
  Account account;
  EXPECT_FALSE(AnyFunction());
  EXPECT_FALSE(AnyFunction::from(static_cast<int (*)(int)>(nullptr)).withInstance());
  EXPECT_FALSE(AnyFunction::from(static_cast<void (Account::*)(int)>(nullptr)));
  EXPECT_FALSE(AnyFunction::from(&account, static_cast<void (Account::*)(int) const>(nullptr)));
  EXPECT_FALSE(AnyFunction::from(static_cast<Account*>(nullptr), &Account::deposit));
  EXPECT_EQ(errorOf(AnyFunction()), "the function is empty");
  EXPECT_EQ(AnyFunction().parametersSignature(true).toString(), "()");
}

TEST(AnyFunction, PutsItsResultWhereTheCallerWantsIt) {
  int calls = 0;
  const AnyFunction function = AnyFunction::from([copy = 0, &calls](int n) mutable {
    calls = ++copy;
    return std::string(40, static_cast<char>('a' + n));
  });
  const int n = 1;
  const AnyReference arguments[] = {AnyReference::from(n)};
  alignas(std::string) unsigned char storage[sizeof(std::string)];
  function.callInto(arguments, storage);
  auto* made = std::launder(reinterpret_cast<std::string*>(storage));
  EXPECT_EQ(*made, std::string(40, 'b'));
  std::destroy_at(made);
  function.callInto(arguments, nullptr);
  EXPECT_EQ(calls, 2) << "a callable may have state of its own";
}

}  // namespace
}  // namespace gv
