// The start-log dispatcher: deliveries in subscription order, list changes
// made during a delivery, a throwing sink, and deliveries beside churn.
#include "app_control/app_start_log_events_dispatcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "app_control/fail_new.h"
#include "app_control/module_fixture.h"
#include "host/services/host_object.h"

namespace {

using app_ctrl::IApplicationStartLogEvents;
using app_ctrl::IApplicationStartLogEventsSubscription;
using Strings = std::vector<std::string>;

constexpr zel::result_t kNotFound = zel::result::NotFound;
constexpr zel::result_t kOutOfMemory = zel::result::OutOfMemory;

const void* Arg(std::uintptr_t n) { return reinterpret_cast<const void*>(n); }

struct Journal {
  std::mutex mutex;
  Strings entries;
};

// Appends "<name>:<op>:<arg>" to the journal and can run a test's action
// inside a delivery (to subscribe or unsubscribe while the dispatcher delivers).
class RecordingSink final : public host::OwnedObject<RecordingSink, IApplicationStartLogEvents> {
 public:
  RecordingSink(std::string name, Journal& journal) : m_name(std::move(name)), m_journal(journal) {}

  zel::result_t OnApplicationStartLogged(const void* event) override { return Record("logged", event); }
  zel::result_t OnApplicationStartBacklog(const void* events) override { return Record("backlog", events); }
  zel::result_t OnApplicationStartLogLost(const void* info) override { return Record("lost", info); }

  std::function<void()> onEvent;  // runs inside each delivery, after recording
  zel::result_t answer = 0;       // what the sink returns
  bool throwOnEvent = false;

 private:
  zel::result_t Record(const char* op, const void* arg) {
    {
      std::lock_guard lock(m_journal.mutex);
      m_journal.entries.push_back(m_name + ":" + op + ":" + std::to_string(reinterpret_cast<std::uintptr_t>(arg)));
    }
    if (onEvent) onEvent();
    if (throwOnEvent) throw std::runtime_error("sink failed");
    return answer;
  }

  std::string m_name;
  Journal& m_journal;
};

class DispatcherTest : public testsupport::ModuleFixture {
 public:  // the case tables change the list through these
  void SetUp() override {
    ModuleFixture::SetUp();
    subscription = Create<IApplicationStartLogEventsSubscription>(tov::app_control::kAppStartLogEventsDispatcherClassId);
    ASSERT_TRUE(subscription);
    void* out = nullptr;
    ASSERT_EQ(subscription->QueryInterface(IApplicationStartLogEvents::iid, &out), 0);
    events = zel::RefPtr<IApplicationStartLogEvents>::Adopt(static_cast<IApplicationStartLogEvents*>(out));
  }

  // Releases the dispatcher; every sink must be back to the test's own reference.
  void TearDown() override {
    events.Reset();
    subscription.Reset();
    for (RecordingSink* s : {&a, &b, &c}) EXPECT_EQ(s->OutstandingRefs(), 0);
    ExpectAllReturned();
  }

  Strings Take() {
    std::lock_guard lock(journal.mutex);
    return std::exchange(journal.entries, {});
  }

  Journal journal;
  RecordingSink a{"a", journal}, b{"b", journal}, c{"c", journal};
  zel::RefPtr<IApplicationStartLogEventsSubscription> subscription;
  zel::RefPtr<IApplicationStartLogEvents> events;
};

// Every operation reaches every sink in order (one subscribed twice, twice);
// Unsubscribe takes one occurrence. Sinks left subscribed at the end are
// released with the dispatcher (the fixture checks).
TEST_F(DispatcherTest, EachOperationReachesEverySinkInOrderAndUnsubscribeTakesOneOccurrence) {
  EXPECT_LT(subscription->Subscribe(nullptr), 0);
  EXPECT_EQ(events->OnApplicationStartLogged(Arg(1)), 0);
  EXPECT_TRUE(Take().empty());
  for (auto* s : {&a, &b, &c, &a}) ASSERT_EQ(subscription->Subscribe(s), 0);
  b.answer = zel::result::InvalidArgument;  // a failing sink changes nothing
  a.answer = zel::result::InvalidArgument;

  EXPECT_EQ(events->OnApplicationStartLogged(Arg(7)), 0);
  EXPECT_EQ(events->OnApplicationStartBacklog(Arg(8)), 0);
  EXPECT_EQ(events->OnApplicationStartLogLost(Arg(9)), 0);
  EXPECT_EQ(Take(), (Strings{"a:logged:7", "b:logged:7", "c:logged:7", "a:logged:7", "a:backlog:8", "b:backlog:8",
                             "c:backlog:8", "a:backlog:8", "a:lost:9", "b:lost:9", "c:lost:9", "a:lost:9"}));
  EXPECT_EQ(a.OutstandingRefs(), 2);
  EXPECT_EQ(allocator.LiveBlocks(), 1);  // the dispatcher; its list lives on malloc

  ASSERT_EQ(subscription->Unsubscribe(&b), 0);
  EXPECT_EQ(b.OutstandingRefs(), 0);
  ASSERT_EQ(subscription->Unsubscribe(&a), 0);  // the first occurrence goes
  EXPECT_EQ(a.OutstandingRefs(), 1);
  EXPECT_EQ(subscription->Unsubscribe(&b), kNotFound);
  EXPECT_EQ(subscription->Unsubscribe(nullptr), kNotFound);
  events->OnApplicationStartLogged(Arg(2));
  EXPECT_EQ(Take(), (Strings{"c:logged:2", "a:logged:2"}));
  ASSERT_EQ(subscription->Unsubscribe(&a), 0);
  EXPECT_EQ(subscription->Unsubscribe(&a), kNotFound);
}

// Changes made by a sink during a delivery apply from the next one on (a sink
// that unsubscribes itself stays alive meanwhile); when the list can't be
// copied for them, they fail and the list stays.
TEST_F(DispatcherTest, ChangesDuringADeliveryApplyToTheNextOne) {
  struct Case {
    const char* name;
    void (*change)(DispatcherTest&);
    Strings journal;
  };
  const Case cases[] = {
      {"subscribed inside a delivery",
       [](DispatcherTest& t) { EXPECT_EQ(t.subscription->Subscribe(&t.c), 0); },
       {"a:logged:1", "b:logged:1", "a:logged:2", "b:logged:2", "c:logged:2"}},
      {"a sink unsubscribing itself",
       [](DispatcherTest& t) {
         EXPECT_EQ(t.subscription->Unsubscribe(&t.a), 0);
         EXPECT_EQ(t.a.OutstandingRefs(), 1) << "the delivery's list still holds it";
       },
       {"a:logged:1", "b:logged:1", "b:logged:2"}},
      {"out of memory while copying",
       [](DispatcherTest& t) {
         testsupport::FailingNewScope failing;
         EXPECT_EQ(t.subscription->Subscribe(&t.c), kOutOfMemory);
         EXPECT_EQ(t.subscription->Unsubscribe(&t.b), kOutOfMemory);
       },
       {"a:logged:1", "b:logged:1", "a:logged:2", "b:logged:2"}},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    for (auto* s : {&a, &b}) ASSERT_EQ(subscription->Subscribe(s), 0);
    a.onEvent = [&, once = true]() mutable {
      if (std::exchange(once, false)) k.change(*this);
    };
    events->OnApplicationStartLogged(Arg(1));
    events->OnApplicationStartLogged(Arg(2));
    EXPECT_EQ(Take(), k.journal);
    a.onEvent = nullptr;
    for (auto* s : {&a, &b, &c}) {
      while (subscription->Unsubscribe(s) == 0) {
      }
      EXPECT_EQ(s->OutstandingRefs(), 0);
    }
  }
}

TEST_F(DispatcherTest, ThrowingSinkStopsThisDeliveryAndReleasesTheList) {
  for (auto* s : {&a, &b}) ASSERT_EQ(subscription->Subscribe(s), 0);
  a.throwOnEvent = true;
  EXPECT_THROW(events->OnApplicationStartLogged(Arg(1)), std::runtime_error);
  EXPECT_EQ(Take(), (Strings{"a:logged:1"}));

  // Had the delivery kept its hold on the list, this would copy and the old
  // list would keep a reference on each sink for ever.
  a.throwOnEvent = false;
  ASSERT_EQ(subscription->Unsubscribe(&a), 0);
  EXPECT_EQ(a.OutstandingRefs(), 0);
  events->OnApplicationStartLogged(Arg(2));
  EXPECT_EQ(Take(), (Strings{"b:logged:2"}));
}

TEST_F(DispatcherTest, DeliveriesRunWhileOthersSubscribeAndUnsubscribe) {
  // Eight threads: six deliver, two subscribe and unsubscribe sinks of their own.
  constexpr int kDeliverers = 6;
  constexpr int kChurners = 2;
  constexpr int kDeliveries = 2000;
  constexpr int kChurns = 1000;
  RecordingSink steady{"steady", journal};
  std::deque<RecordingSink> churn;
  for (int i = 0; i < 3 * kChurners; ++i) churn.emplace_back("churn", journal);
  ASSERT_EQ(subscription->Subscribe(&steady), 0);

  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kDeliverers; ++t) {
    threads.emplace_back([&] {
      while (!go.load()) std::this_thread::yield();
      for (int i = 0; i < kDeliveries; ++i) events->OnApplicationStartLogged(Arg(i));
    });
  }
  for (int c = 0; c < kChurners; ++c) {
    threads.emplace_back([&, own = 3 * c] {
      while (!go.load()) std::this_thread::yield();
      for (int i = 0; i < kChurns; ++i) {
        EXPECT_EQ(subscription->Subscribe(&churn[own + i % 3]), 0);
        if (i % 2 == 1) {
          EXPECT_EQ(subscription->Unsubscribe(&churn[own + (i - 1) % 3]), 0);
        }
      }
    });
  }
  go = true;
  for (auto& t : threads) t.join();

  const Strings entries = Take();
  EXPECT_EQ(std::count_if(entries.begin(), entries.end(), [](const std::string& e) { return e.starts_with("steady:"); }),
            kDeliverers * kDeliveries);
  for (auto& s : churn) {
    while (subscription->Unsubscribe(&s) == 0) {
    }
    EXPECT_EQ(s.OutstandingRefs(), 0);
  }
  ASSERT_EQ(subscription->Unsubscribe(&steady), 0);
  EXPECT_EQ(steady.OutstandingRefs(), 0);
}

}  // namespace
