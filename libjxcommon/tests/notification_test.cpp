// Notifications: which method hears of them, with how much, and what the cache keeps.

#include <gmock/gmock.h>

#include "callsfixture.h"
#include "support/log_capture.h"

namespace JX {
namespace {

using Cache = std::pair<int, int>;
using Texts = std::vector<std::string>;

class Notifications : public Calls {
 protected:
  int notify(const std::string& method, Cache* cache, const JXValue& third = 3.5) {
    return proxy->pCallNotify(method, "first", JXValue(2), third, cache);
  }
  Texts heard() { return proxy->call<Texts>("heard", 1); }
};

INSTANTIATE_TEST_SUITE_P(A, Notifications, everywhere, nameOfPlace);

TEST_P(Notifications, AreHeardByTheMethodThatTakesMostOfThem) {
  const struct {
    const char* method;
    int count;
    bool isCached;
    const char* heard;
  } rows[] = {
      {"onThree", 3, true, "three first 2 3.5"}, {"onTwo", 2, true, "two first 2"},
      {"onOne", 1, true, "one first"},           {"onNone", 0, true, "none"},
      {"onOneOrThree", 3, true, "three"},        {"onNumber", 2, false, "number 2"},
      {"onTwo(sv)", 2, true, "two first 2"},     {"onOneOrThree(s)", 1, true, "one"},
  };
  for (const auto& row : rows) {
    Cache cache;
    for (Cache* used : {static_cast<Cache*>(nullptr), &cache}) {
      EXPECT_EQ(notify(row.method, used), 0);
      EXPECT_EQ(heard(), Texts{row.heard});
    }
    EXPECT_EQ(cache.second, row.isCached ? row.count : 0) << row.method;
    EXPECT_EQ(cache.first != 0, row.isCached) << "the values decided: " << row.method;
    if (!row.isCached) continue;
    EXPECT_EQ(notify("no method", &cache, row.count < 3 ? "unseen" : JXValue(3.5)), 0);
    EXPECT_EQ(heard(), Texts{row.heard}) << "without any look at the name";
  }
}

TEST_P(Notifications, WithoutAMethodAreLoggedAndNotThrown) {
  const house::LogCapture log;
  Cache cache;
  EXPECT_EQ(notify("either", &cache), -1);
  EXPECT_EQ(notify("either", nullptr), -1);
  EXPECT_EQ(cache, Cache());
  ASSERT_EQ(log.records().size(), 2u);
  const gv::log::Record record = log.records()[0];
  EXPECT_EQ(record.level, gv::log::Level::Error);
  EXPECT_EQ(record.category + ":" + record.function, "jxcommon.jxproxy:pCallNotify");
  EXPECT_EQ(record.text,
            "pCallNotify can't find method: either\n"
            "  the good prototype is void either(string, JXValue, string)  candidate(s):\n"
            "  either(ni)\n  either(in)\n");
}

TEST_P(Notifications, TrustTheirCacheAsLongAsItNamesAMethod) {
  Cache cache;
  notify("onTwo", &cache);
  for (const Cache& foreign : {Cache{987654, 2}, Cache{-7, 2}, Cache{cache.first, 1}}) {
    Cache used = foreign;
    EXPECT_EQ(errorOf([&] { notify("onTwo", &used); }).toString(),
              "Callee::onTwo: the cache is not of this module, which has no method with id " +
                  std::to_string(foreign.first) + " and " + std::to_string(foreign.second) +
                  " argument(s) (../libjxcommon/src/jxproxy:281)");
  }
  notify("fail", nullptr);  // what the method throws comes back to nobody
  EXPECT_EQ(heard(), Texts{"two first 2"});
  withdrawTheModule();
  EXPECT_EQ(errorOf([&] { notify("onTwo", &cache); }).description(), "module destroyed");
  if (isElsewhere()) return;
  const auto again = createModule<TestModule>(home, "Callee");
  proxy = broker->getProxy("Callee", 0);
  EXPECT_EQ(notify("onTwo", &cache), 0) << "of the same class, with the same ids";
  EXPECT_EQ(heard(), Texts{"two first 2"});
  again->exit();
  again->initModule();
  EXPECT_EQ(notify("onTwo", &cache), 0) << "published again, it is the same module";
  EXPECT_EQ(heard(), Texts{"two first 2"});
}

}  // namespace
}  // namespace JX
