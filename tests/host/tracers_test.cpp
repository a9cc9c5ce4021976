// The host's tracers: whole lines from CollectingTracer under concurrent
// writers (its level limit is the trace tests' tool), and the stderr
// tracer's filter as seen through the level-limit interface.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "host/services/collecting_tracer.h"
#include "host/services/stderr_tracer.h"
#include "zel/trace/itrace_level_limit.h"
#include "zel/trace/trace_stream.h"

namespace {

using host::CollectingTracer;
using zel::trace::ITraceLevelLimit;

TEST(CollectingTracer, ConcurrentLinesArriveWhole) {
  CollectingTracer tracer;
  constexpr int kThreads = 4, kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&tracer, t] {
      for (int i = 0; i < kLines; ++i) {
        // Long enough to grow, so grants, moves and commits interleave.
        ZEL_TRACE(&tracer, 800) << "thread " << t << " line " << i << ' ' << std::string(600, static_cast<char>('a' + t));
      }
    });
  }
  for (auto& th : threads) th.join();

  std::vector<std::string> expected;
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i < kLines; ++i)
      expected.push_back("thread " + std::to_string(t) + " line " + std::to_string(i) + ' ' +
                         std::string(600, static_cast<char>('a' + t)));
  auto texts = tracer.Texts();
  std::sort(texts.begin(), texts.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_TRUE(texts == expected);
  EXPECT_EQ(tracer.OpenLines(), 0u);
}

TEST(StderrTracer, FilterIsTheOfferedLimit) {
  host::StderrTracer tracer(700);
  void* out = nullptr;
  ASSERT_EQ(tracer.QueryInterface(ITraceLevelLimit::iid, &out), 0);
  auto* limit = static_cast<ITraceLevelLimit*>(out);
  EXPECT_EQ(*limit->GetLevelLimit(), 700u);
  zel::TraceRecord record;
  EXPECT_FALSE(zel::TraceTest(record, &tracer, 800));

  tracer.SetLevelFilter(800);
  EXPECT_EQ(*limit->GetLevelLimit(), 800u);
  ASSERT_TRUE(zel::TraceTest(record, &tracer, 800));
  zel::TraceStream stream(record);
  stream << "stderr tracer test line";
  testing::internal::CaptureStderr();
  zel::TraceFlush(stream);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[800] stderr tracer test line\n");
  limit->Release();
}

}  // namespace
