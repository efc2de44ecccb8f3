// Offer catalogue: requests, cache, answers and deliveries, end to end
// through the libcurl transport to a loopback server.
#include <cstdlib>
#include <limits>

#include "ZVRewardsFixture.h"

using namespace zvtest;

namespace {

constexpr const char* kTwoOffers =
    R"({"status":"ok","offers":[{"id":"42","name":"Mug","points":"150","x":1},)"
    R"({"id":7,"name":"Cap","points":90}]})";

class OffersTest : public RewardsTest {
 protected:
  // Answers the next offers fetch with `body`, and fetches (forced, `locale`).
  std::unique_ptr<Outcome<const ZVOfferArray>> fetch(
      const char* body, std::optional<ZVLocale> locale = ZVLocale("en_US")) {
    if (body) answer(body);
    return await<const ZVOfferArray>(
        [&](auto h) { manager()->forceFetchOffersWithLocale(locale, h); });
  }
  void fetchFresh(const char* body = kTwoOffers) { ASSERT_TRUE(fetch(body)->result); }
};

TEST_F(OffersTest, FirstFetchSendsLocaleAndDeliversRecordsInOrder) {
  answer(kTwoOffers);
  Outcome<const ZVOfferArray> outcome;
  std::vector<std::string> order;
  const ZVObservation observation = ZVNotificationCenter::defaultCenter()->observe(
      ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION, manager(),
      [&](const ZVNotification&) { order.push_back("notification"); });
  manager()->fetchOffersWithLocale(ZVLocale("fr_CA.UTF-8"),
                                   [&](ZVOfferArrayPtr offers, ZVErrorPtr error) {
                                     order.push_back("handler");
                                     outcome.handler()(std::move(offers), std::move(error));
                                   });
  EXPECT_EQ(outcome.calls, 0) << "never delivered from inside the call";
  ASSERT_TRUE(outcome.wait());

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].path, "/api/v1/apps/app%201/offers");
  EXPECT_EQ(requests[0].query, "locale=fr-CA");
  EXPECT_EQ(requests[0].header("Authorization"), std::string("Bearer ") + kSecretToken);

  ASSERT_EQ(outcome.error, nullptr);
  ASSERT_EQ(outcome.result->size(), 2u);
  EXPECT_EQ((*outcome.result)[0]->offerID(), "42");
  EXPECT_EQ((*outcome.result)[0]->points(), 150);
  EXPECT_EQ((*outcome.result)[1]->offerID(), "7");
  EXPECT_EQ(order, (std::vector<std::string>{"handler", "notification"}));

  // The state, the handler and the notification share one array object.
  EXPECT_EQ(manager()->offers(), outcome.result);
  EXPECT_GT(manager()->lastRefreshTime(), 0.0);
  auto notes = notifications.all();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].object, manager());
  EXPECT_EQ(notes[0].userInfo.at(ZV_MANAGER_NOTIFICATION_DATA_KEY).get(),
            static_cast<const ZVObject*>(outcome.result.get()));
}

TEST_F(OffersTest, CacheFreshnessFollowsTheRefreshInterval) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    const char* name;
    double interval;
    double age;  // seconds after the stamp
    bool force;
    bool sends;
    const char* cachedBody = kTwoOffers;
  } cases[] = {
      {"10 s after the stamp is fresh", 300, 10, false, false},
      {"exactly the interval is stale", 300, 300, false, true},
      {"a clock set back is fresh", 300, -50, false, false},
      {"a NaN interval is stale", nan, 10, false, true},
      {"a forced fetch always sends", 300, 10, true, true},
      {"an empty catalogue is fresh too", 300, 10, false, false, R"({"status":"ok","offers":[]})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    manager()->resetData();
    ZVClock::setSource([] { return 1'000'000.0; });
    fetchFresh(c.cachedBody);
    ASSERT_EQ(manager()->lastRefreshTime(), 1'000'000.0);
    const ZVOfferArrayPtr cached = manager()->offers();
    const size_t before = server.requestCount();

    manager()->setRefreshInterval(c.interval);
    ZVClock::setSource([t = 1'000'000.0 + c.age] { return t; });
    if (c.sends) answer(kTwoOffers);
    // Another locale than the cached list's: the cache does not look at it.
    const auto outcome = await<const ZVOfferArray>([&](auto h) {
      manager()->fetchOffersWithLocale(ZVLocale(c.force ? "en_US" : "de_DE"), c.force, h);
    });
    EXPECT_EQ(server.requestCount() - before, c.sends ? 1u : 0u);
    EXPECT_TRUE(c.sends || outcome->result == cached) << "a hit shares the cached records";
  }
}

// A cache hit notifies even without a handler, and logs one line when its
// category and level are on.
TEST_F(OffersTest, CacheHitNotifiesAndLogsThroughTheGate) {
  struct Case {
    int64_t categories, level;
    const char* prefix;  // nullptr: nothing written
  } cases[] = {
      {1, 1, "<ZVRewardsManager: 0x"},
      {1, 2, "-[ZVRewardsManager dispatchOffers:completionHandler:]"},
      {0, 1, nullptr},
      {2, 2, nullptr},
      {1, 0, nullptr},
      {1, 3, nullptr},
  };
  fetchFresh();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.level);
    LogCapture log(c.level, c.categories);
    const NotificationLog notes;
    manager()->fetchOffersWithLocale(std::nullopt, ZVOffersCompletionHandler());
    ASSERT_TRUE(drainUntil(
        [&] { return notes.count(ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION) == 1; }));
    const auto lines = log.lines();
    if (!c.prefix) {
      EXPECT_TRUE(lines.empty());
      continue;
    }
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind(c.prefix, 0), 0u) << lines[0];
    EXPECT_EQ(lines[0].find(" [Line ") != std::string::npos, c.level == 2) << lines[0];
    EXPECT_NE(lines[0].find("Fetched offers: (\n    \rOffer ID: 42\rType: (null)\rName: Mug"),
              std::string::npos)
        << lines[0];
  }
}

TEST_F(OffersTest, AnswerWithoutOkEmptiesTheCatalogueAndZeroesTheStamp) {
  const char* bodies[] = {R"({"status":"error","message":"Catalogue closed"})",
                          R"({"status":"OK","offers":[]})", R"({"offers":[]})"};
  for (const char* body : bodies) {
    SCOPED_TRACE(body);
    fetchFresh();
    const auto outcome = fetch(body, std::nullopt);
    EXPECT_EQ(outcome->result, nullptr);
    ASSERT_NE(outcome->error, nullptr);
    EXPECT_EQ(outcome->error->type(), ZVErrorTypeService);
    EXPECT_NE(dynamic_cast<ZVRewardsError*>(outcome->error.get()), nullptr);
    EXPECT_TRUE(manager()->offers()->empty());
    EXPECT_EQ(manager()->lastRefreshTime(), 0.0);
  }
  EXPECT_EQ(notifications.count(ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION), 3u);
}

TEST_F(OffersTest, NullLocaleFallsBackToCustomThenDeviceLocale) {
  const char* saved = std::getenv("LC_ALL");
  std::string savedValue = saved ? saved : "";
  setenv("LC_ALL", "pt_BR.UTF-8", 1);
  for (bool custom : {true, false}) {
    Zorvane::setCustomLocale(custom ? std::optional<ZVLocale>(ZVLocale("fr_CA")) : std::nullopt);
    fetch(kTwoOffers, std::nullopt);
    EXPECT_EQ(server.requests().back().query, custom ? "locale=fr-CA" : "locale=pt-BR");
  }
  if (saved)
    setenv("LC_ALL", savedValue.c_str(), 1);
  else
    unsetenv("LC_ALL");
}

}  // namespace
