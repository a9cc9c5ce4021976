// PrefixTracer and MakePrefixTracer over a collecting host tracer: the
// level limit at line opening, the buffer shift, the walk past enclosing
// prefixes, lifetime, TracerProvider, and the trace handles that test the
// level before any call.
#include "tov_tracing/prefix_tracer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "host/services/collecting_tracer.h"
#include "host/services/host_object.h"
#include "host/services/service_locator.h"
#include "tov_tracing/tracer_provider.h"
#include "zel/module_lock.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/trace/itrace_level_limit.h"
#include "zel/trace/trace_stream.h"

namespace {

using host::CollectingTracer;
using zel::RefPtr;
using zel::TraceRecord;
using zel::TraceStream;
using zel::trace::MakePrefixTracer;

RefPtr<zel::ITracer> Make(host::ServiceLocator& locator, std::string_view prefix) {
  return MakePrefixTracer(&locator, prefix.size(), prefix.data());
}

// Writes `text` as one line at `level`; false when the line was not granted.
bool Trace(zel::ITracer* tracer, std::uint32_t level, std::string_view text) {
  TraceRecord record;
  if (!zel::TraceTest(record, tracer, level)) return false;
  TraceStream stream(record);
  stream << text;
  zel::TraceFlush(stream);
  return true;
}

// A prefix tracer face whose prefix and underlying tracer the test sets
// freely (also to itself or to null); lines go to `sink`.
class FakePrefixTracer final : public host::OwnedObject<FakePrefixTracer, zel::ITracer, zel::trace::IPrefixTracer> {
 public:
  FakePrefixTracer(std::string prefix, zel::ITracer* sink) : prefix(std::move(prefix)), m_sink(sink) {}
  zel::result_t AllocLine(std::uint32_t level, zel::TraceRecord* record, std::uint64_t size) override {
    return m_sink->AllocLine(level, record, size);
  }
  zel::result_t CommitLine(char* buffer, std::uint64_t length) override { return m_sink->CommitLine(buffer, length); }
  const char* GetPrefix() override { return prefix.c_str(); }
  zel::ITracer* GetTracer() override { return under; }

  std::string prefix;
  zel::ITracer* under = nullptr;

 private:
  zel::ITracer* m_sink;
};

struct Host {
  CollectingTracer tracer;
  host::ServiceLocator locator;
  Host() { locator.Register<zel::ITracer>(&tracer); }
};

TEST(PrefixTracer, LevelLimitAppliesAtLineOpeningOnly) {
  Host host;
  host.tracer.ExposeLevelLimit(800);
  RefPtr<zel::ITracer> tracer = Make(host.locator, "Cls");

  TraceRecord record;
  EXPECT_EQ(tracer->AllocLine(801, &record, 512), zel::result::NotMatched);
  EXPECT_EQ(record.buffer, nullptr);
  EXPECT_EQ(host.tracer.AllocLineCount(), 0u);  // refused without asking the host
  EXPECT_TRUE(Trace(tracer.Get(), 800, "yes"));

  // A line opened within the limit keeps growing after the limit drops.
  ASSERT_TRUE(zel::TraceTest(record, tracer.Get(), 800));
  host.tracer.SetLevelLimit(300);
  {
    TraceStream stream(record);
    stream << std::string(700, 'g');
    EXPECT_EQ(stream.length(), 700u);
    zel::TraceFlush(stream);
  }
  EXPECT_FALSE(Trace(tracer.Get(), 301, "now off"));

  // The host raises the limit: the very next line sees it.
  host.tracer.SetLevelLimit(900);
  EXPECT_TRUE(Trace(tracer.Get(), 900, "raised"));

  // Asking whether a level is wanted goes to the host as it is.
  host.tracer.SetLevelFilter(500);
  EXPECT_EQ(tracer->AllocLine(600, nullptr, 0), zel::result::NotSupported);
  EXPECT_EQ(tracer->AllocLine(500, nullptr, 0), 0);

  EXPECT_EQ(host.tracer.Texts(),
            (std::vector<std::string>{"Cls::yes", "Cls::" + std::string(700, 'g'), "Cls::raised"}));
}

// Without a limit from the host every level up to 1000 passes.
TEST(PrefixTracer, PrefixIsWrittenOnceInFrontOfTheText) {
  struct Row {
    std::size_t textBytes;
    std::uint32_t level;
    std::vector<std::uint64_t> hostSizes;  // open, then each growth
  } rows[] = {
      {0, 300, {512 + 5}},
      {512, 1000, {512 + 5}},
      {513, 800, {512 + 5, 1024 + 5}},
      {3000, 800, {512 + 5, 3000 + 5}},
  };
  for (const Row& row : rows) {
    Host host;  // the collecting tracer does not offer its limit by default
    RefPtr<zel::ITracer> tracer = Make(host.locator, "Cls");
    TraceRecord record;
    EXPECT_EQ(tracer->AllocLine(1001, &record, 512), zel::result::NotMatched);
    std::string text;
    for (std::size_t i = 0; i < row.textBytes; ++i) text += static_cast<char>('a' + i % 26);
    ASSERT_TRUE(Trace(tracer.Get(), row.level, text));
    EXPECT_EQ(host.tracer.Texts(), std::vector<std::string>{"Cls::" + text}) << row.textBytes;
    std::vector<std::uint64_t> sizes;
    for (const auto& call : host.tracer.AllocCalls()) sizes.push_back(call.size);
    EXPECT_EQ(sizes, row.hostSizes) << row.textBytes;
    EXPECT_EQ(host.tracer.UnknownCommits(), 0u);
    EXPECT_EQ(host.tracer.OpenLines(), 0u);
  }
}

TEST(PrefixTracer, RefusedGrowthCommitsThePrefixAlone) {
  Host host;
  host.tracer.SetGrowth(CollectingTracer::Growth::RefuseKeep);
  RefPtr<zel::ITracer> tracer = Make(host.locator, "Cls");
  ASSERT_TRUE(Trace(tracer.Get(), 800, std::string(600, 'x')));
  EXPECT_EQ(host.tracer.Texts(), std::vector<std::string>{"Cls::"});

  // A size that would wrap with the prefix added is refused, not truncated.
  TraceRecord record;
  ASSERT_TRUE(zel::TraceTest(record, tracer.Get(), 800));
  char* granted = record.buffer;
  EXPECT_NE(tracer->AllocLine(1000, &record, UINT64_MAX - 2), 0);
  EXPECT_EQ(record.buffer, granted);
  TraceStream stream(record);
  zel::TraceFlush(stream);
  EXPECT_EQ(host.tracer.OpenLines(), 0u);
}

TEST(PrefixTracer, ClassPrefixReplacesAnEnclosingOne) {
  Host host;
  RefPtr<zel::ITracer> outer = Make(host.locator, "A");
  host::ServiceLocator inner;
  inner.Register<zel::ITracer>(outer.Get());
  RefPtr<zel::ITracer> tracer = Make(inner, "B");
  ASSERT_TRUE(Trace(tracer.Get(), 800, "x"));
  ASSERT_TRUE(Trace(outer.Get(), 800, "y"));
  EXPECT_EQ(host.tracer.Texts(), (std::vector<std::string>{"B::x", "A::y"}));

  void* face = nullptr;
  ASSERT_EQ(tracer->QueryInterface(zel::trace::IPrefixTracer::iid, &face), 0);
  RefPtr<zel::trace::IPrefixTracer> prefixed =
      RefPtr<zel::trace::IPrefixTracer>::Adopt(static_cast<zel::trace::IPrefixTracer*>(face));
  EXPECT_STREQ(prefixed->GetPrefix(), "B::");
  EXPECT_EQ(prefixed->GetTracer(), &host.tracer);
}

TEST(PrefixTracer, WalkStepsOnlyPastScopePrefixes) {
  enum Under { Other, Self, Null };
  struct Row {
    const char* prefix;
    Under under;
    bool skipped;
  } rows[] = {
      {"A::", Other, true},
      {"Plain", Other, false},  // not a scope: stays in the chain
      {":", Other, false},
      {"", Other, false},
      {"A::", Self, false},  // leads nowhere new: the walk ends there
      {"A::", Null, false},
  };
  for (const Row& row : rows) {
    CollectingTracer through, other;
    FakePrefixTracer fake(row.prefix, &through);
    fake.under = row.under == Other ? static_cast<zel::ITracer*>(&other)
                 : row.under == Self ? static_cast<zel::ITracer*>(&fake)
                                     : nullptr;
    host::ServiceLocator locator;
    locator.Register<zel::ITracer>(&fake);
    {
      RefPtr<zel::ITracer> tracer = Make(locator, "B");
      ASSERT_TRUE(Trace(tracer.Get(), 800, "x"));
      EXPECT_EQ(fake.OutstandingRefs(), row.skipped ? 1 : 2) << row.prefix;  // the locator's, and B's if kept
    }
    EXPECT_EQ(fake.OutstandingRefs(), 1);
    EXPECT_EQ(other.OutstandingRefs(), 0);
    const auto& reached = row.skipped ? other : through;
    const auto& passed = row.skipped ? through : other;
    EXPECT_EQ(reached.Texts(), std::vector<std::string>{"B::x"}) << row.prefix << " " << row.under;
    EXPECT_EQ(passed.CommitLineCount(), 0u) << row.prefix << " " << row.under;
  }
}

TEST(PrefixTracer, HoldsTracerAndModuleLockForItsLifeAndThrowsWithoutATracer) {
  Host host;
  const std::uint32_t before = zel::ModuleLockCount.load();
  {
    RefPtr<zel::ITracer> tracer = Make(host.locator, "Cls");
    EXPECT_EQ(zel::ModuleLockCount.load(), before + 1);
    EXPECT_EQ(host.tracer.OutstandingRefs(), 2);  // locator + prefix tracer

    void* face = reinterpret_cast<void*>(&host);
    EXPECT_EQ(tracer->QueryInterface(0x12345678, &face), zel::result::InterfaceNotSupported);
    EXPECT_EQ(face, reinterpret_cast<void*>(&host));  // left as it was
    for (zel::iid_t iid : {0u, zel::ITracer::iid}) {
      ASSERT_EQ(tracer->QueryInterface(iid, &face), 0);
      EXPECT_EQ(face, tracer.Get());
      tracer->Release();
    }
  }
  EXPECT_EQ(zel::ModuleLockCount.load(), before);
  EXPECT_EQ(host.tracer.OutstandingRefs(), 1);

  // A locator without a tracer makes the making throw, and holds no lock.
  host::ServiceLocator refusing;
  refusing.Refuse(zel::ITracer::iid, zel::result::OutOfMemory);
  host::ServiceLocator empty;
  const std::pair<host::ServiceLocator*, zel::result_t> rows[] = {
      {&empty, zel::result::InterfaceNotSupported},
      {&refusing, zel::result::OutOfMemory},
  };
  for (const auto& [locator, result] : rows) {
    try {
      Make(*locator, "Cls");
      ADD_FAILURE() << "no exception";
    } catch (const zel::CheckResultFailedException& e) {
      EXPECT_EQ(zel::GetResult(e), result);
    }
  }
  EXPECT_THROW(MakePrefixTracer(nullptr, 3, "Cls"), zel::CheckResultFailedException);
  EXPECT_EQ(zel::ModuleLockCount.load(), before);
}

class Traced : public zel::TracerProvider {
 public:
  explicit Traced(zel::IServiceLocator* sl) : zel::TracerProvider(sl, "Traced") {}
};

TEST(TracerProvider, TracesWithTheClassNameUpToTheLiveHostLimit) {
  Host host;
  host.tracer.ExposeLevelLimit(700);
  {
    Traced traced(&host.locator);
    EXPECT_EQ(traced.GetServiceLocator(), &host.locator);
    host.tracer.Clear();
    ZEL_TRACE(traced.GetTracer(), 800) << "off";
    EXPECT_EQ(host.tracer.AllocLineCount(), 0u);  // stopped at the site
    ZEL_TRACE(traced.GetTracer(), 300) << "Start" << "() ";
    host.tracer.SetLevelLimit(800);
    ZEL_TRACE(traced.GetTracer(), 800) << "on";
    EXPECT_EQ(host.tracer.Texts(), (std::vector<std::string>{"Traced::Start() ", "Traced::on"}));
  }
  EXPECT_EQ(host.locator.OutstandingRefs(), 0);
  EXPECT_EQ(host.tracer.OutstandingRefs(), 1);

  host::ServiceLocator empty;
  EXPECT_THROW(Traced{&empty}, zel::CheckResultFailedException);
}

TEST(TraceHandle, LevelAboveTheLiveLimitNeverReachesTheTracer) {
  Host host;
  host.tracer.ExposeLevelLimit(700);
  const std::int64_t refs = host.tracer.OutstandingRefs();
  const zel::TraceHandle handle = zel::trace::MakeTraceHandle(&host.tracer);
  EXPECT_EQ(host.tracer.OutstandingRefs(), refs);  // the handle holds no reference
  host.tracer.Clear();

  ZEL_TRACE(handle, 800) << "off";
  EXPECT_EQ(host.tracer.AllocLineCount(), 0u);
  ZEL_TRACE(handle, 700) << "on";
  host.tracer.SetLevelLimit(800);  // a host change counts from the next site on
  ZEL_TRACE(handle, 800) << "on now";
  host.tracer.SetLevelLimit(300);
  ZEL_TRACE(handle, 301) << "off again";
  EXPECT_EQ(host.tracer.Texts(), (std::vector<std::string>{"on", "on now"}));
  EXPECT_EQ(host.tracer.AllocLineCount(), 2u);
}

TEST(TraceHandle, WithoutALimitTheTracerDecidesEveryLevel) {
  Host host;
  host.tracer.SetLevelFilter(700);
  const zel::TraceHandle handle = zel::trace::MakeTraceHandle(&host.tracer);
  host.tracer.Clear();
  ZEL_TRACE(handle, 800) << "refused by the tracer";
  ZEL_TRACE(handle, 1000) << "refused by the tracer";
  ZEL_TRACE(handle, 700) << "kept";
  EXPECT_EQ(host.tracer.AllocLineCount(), 3u);
  EXPECT_EQ(host.tracer.Texts(), std::vector<std::string>{"kept"});
  TraceRecord record;
  EXPECT_FALSE(zel::TraceTest(record, handle, 1001));  // above the ceiling: not even asked
  EXPECT_EQ(host.tracer.AllocLineCount(), 3u);

  // Without a tracer nothing is traced.
  EXPECT_FALSE(zel::TraceTest(record, zel::trace::MakeTraceHandle(nullptr), 300));
  EXPECT_FALSE(zel::TraceTest(record, zel::TraceHandle{}, 300));
  EXPECT_EQ(record.buffer, nullptr);
}

}  // namespace
