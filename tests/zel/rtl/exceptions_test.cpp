// The exception family: texts, properties, shared details, and the
// conversion to result codes at an interface boundary.
#include "zel/rtl/error_handling/exceptions.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "host/services/collecting_tracer.h"
#include "host/services/service_locator.h"
#include "zel/rtl/objbase.h"
#include "zel/rtl/objclient.h"
#include "zel/trace/trace_stream.h"

namespace {

using host::CollectingTracer;
using zel::result_t;

constexpr result_t R(std::uint32_t v) { return static_cast<result_t>(v); }

// Runs `thrower` and converts what it throws, as a catch-all does.
result_t Convert(const std::function<void()>& thrower, zel::ITracer* tracer, const char* prefix = nullptr) {
  try {
    thrower();
  } catch (...) {
    return zel::ResultFromCurrentException(tracer, prefix);
  }
  return 0;
}

// A zel::exception whose details the test fills directly.
class RawException : public zel::exception {
 public:
  RawException() : zel::exception("raw.cpp", 5, "Raw") {}
  zel::ExceptionDetails& Details() { return *details; }
};

class OwnWhat : public zel::exception {
 public:
  OwnWhat() : zel::exception("own.cpp", 1, "x", R(0x80000045u)) {}
  const char* what() const noexcept override { return "own what"; }
};

TEST(Exception, WhatRendersValueTypesAndCallStack) {
  RawException e;
  e.SetProperty("i64", std::int64_t{-1}, zel::property_type::Int64);
  e.SetProperty("u64", std::uint64_t{0x1234}, zel::property_type::UInt64);
  e.SetProperty("s", zel::string_t("narrow"), zel::property_type::NarrowString);
  e.SetProperty("w", zel::wstring_t(u"w\u00e9"), zel::property_type::WideString);
  e.SetProperty("other", std::uint32_t{1}, 99);
  e.Details().modules.push_back({zel::string_t("libA"), zel::string_t("1.0"), 0x1000, 0x100});
  for (std::uint64_t a : {0x1010ull, 0x50ull, 0x2000ull}) e.Details().callStack.push_back(a);
  EXPECT_STREQ(e.what(),
               "raw.cpp(5): Raw. Properties:\n"
               "i64=0xffffffffffffffff\nu64=0x0000000000001234\ns=narrow\nw=w\xc3\xa9\nother=<typeid=99>\n"
               "Call stack:\n"
               " 0# libA!1.0!10\n 1# 50\n 2# 2000\n");
  EXPECT_EQ(RawException(e).what(), e.what()) << "built once, shared by copies";
}

TEST(Exception, PropertiesNameLimitReplaceAndSharedDetails) {
  RawException e;
  EXPECT_NO_THROW(e.SetProperty(std::string(31, 'n'), std::uint32_t{1}, zel::property_type::UInt32));
  EXPECT_THROW(e.SetProperty(std::string(32, 'n'), std::uint32_t{1}, zel::property_type::UInt32), std::bad_alloc);
  EXPECT_EQ(e.Details().properties.size(), 1u);

  e.SetResult(R(0x80000046u));
  RawException copy(e);
  copy.SetResult(R(0x8000004Bu));  // replaced in place, seen by the original
  ASSERT_EQ(e.Details().properties.size(), 2u);
  EXPECT_EQ(e.Details().properties[1].name.view(), "zel.result");
  EXPECT_EQ(zel::GetResult(e), R(0x8000004Bu));
  EXPECT_EQ(e.Details().UseCount(), 2u);
}

// Every way of sharing, replacing and dropping a details block keeps the
// count exact: a leak or a double free shows in the count or under asan.
TEST(Exception, CopyAssignAndMoveKeepTheSharedCount) {
  RawException e;
  const zel::ExceptionDetails* block = e.GetDetails();
  ASSERT_NE(block, nullptr);

  // Self-assignment must not drop the only reference first.
  RawException& self = e;
  e = self;
  ASSERT_EQ(e.GetDetails(), block);
  EXPECT_EQ(e.Details().UseCount(), 1u);

  {
    // Copies share; a copy made from a moved-from exception still shares,
    // since moving an exception copies it.
    RawException moved(std::move(e));
    EXPECT_EQ(moved.GetDetails(), block);
    RawException copy(e);  // NOLINT(bugprone-use-after-move): the point of the test
    EXPECT_EQ(copy.GetDetails(), block);
    EXPECT_EQ(e.Details().UseCount(), 3u);

    // Assigning over an exception with other details releases those.
    RawException other;
    ASSERT_NE(other.GetDetails(), block);
    other = copy;
    EXPECT_EQ(other.GetDetails(), block);
    EXPECT_EQ(e.Details().UseCount(), 4u);

    // Assigning an exception without details drops the reference.
    const zel::exception bare("f", 1);
    static_cast<zel::exception&>(other) = bare;
    EXPECT_EQ(other.GetDetails(), nullptr);
    EXPECT_EQ(e.Details().UseCount(), 3u);
  }
  EXPECT_EQ(e.Details().UseCount(), 1u);
  EXPECT_EQ(e.GetText(), "Raw");
}

TEST(Exception, GetResultTable) {
  struct Row {
    const char* name;
    std::function<void(zel::exception&)> set;
    std::uint32_t expected;
  } rows[] = {
      {"none", [](zel::exception&) {}, 0x80000151},
      {"zel.result", [](zel::exception& e) { e.SetResult(R(0x8000004Cu)); }, 0x8000004C},
      {"zel.result of another type",
       [](zel::exception& e) { e.SetProperty("zel.result", std::uint32_t{0x8000004C}, 21); }, 0x80000151},
      {"os.result", [](zel::exception& e) { e.SetProperty("os.result", std::uint32_t{2}, 21); }, 0x80010102},
      {"zel.result first",
       [](zel::exception& e) {
         e.SetProperty("os.result", std::uint32_t{2}, 21);
         e.SetResult(R(0x80000046u));
       },
       0x80000046},
      {"undefined symbol",
       [](zel::exception& e) { e.SetProperty("os.module_result", zel::string_t("undefined symbol: foo"), 7); },
       0x80010107},
      {"exactly the 17 bytes",
       [](zel::exception& e) { e.SetProperty("os.module_result", zel::string_t("undefined symbol:"), 7); },
       0x80010107},
      {"first 15 bytes",
       [](zel::exception& e) { e.SetProperty("os.module_result", zel::string_t("undefined symbo"), 7); },
       0x80010100},
      {"loader text with path first",
       [](zel::exception& e) { e.SetProperty("os.module_result", zel::string_t("/x.so: undefined symbol: f"), 7); },
       0x80010100},
      {"empty loader text", [](zel::exception& e) { e.SetProperty("os.module_result", zel::string_t(""), 7); }, 0},
  };
  for (const Row& row : rows) {
    RawException e;
    row.set(e);
    EXPECT_EQ(zel::GetResult(e), R(row.expected)) << row.name;
  }
  EXPECT_EQ(zel::detail::ResultFromModuleError(std::string(300, 'x')), R(0x80010100u));
}

TEST(Exception, ResultFromExceptionTable) {
  struct Row {
    const char* name;
    std::function<void()> thrower;
    std::uint32_t expected;
    std::string text;
  } rows[] = {
      {"result code", [] { throw zel::ResultCodeException("f", 3, "t", R(0x80000046u)) << "Bad"; }, 0x80000046,
       "Bad: 0x80000046 (Invalid argument). At f(3) "},
      {"failed check with a code",
       [] { throw zel::CheckResultFailedException("f", 6, "Expression failed", R(0x80000046u)) << "Cannot apply"; },
       0x80000046, "Cannot apply: 0x80000046 (Invalid argument). At f(6) "},
      {"failed check without details", [] { throw zel::CheckFailedException("f", 7); }, 0x80000151, ". At f(7) "},
      {"successful result code", [] { throw zel::ResultCodeException("f", 3, "t", 1); }, 0x80000152,
       "0x00000001 (False). At f(3) "},
      {"plain Exception", [] { throw zel::RuntimeError("f", 4, u"GetAllocator error: can't get interface"); },
       0x80000151, "GetAllocator error: can't get interface. At f(4) "},
      {"zel::exception", [] { throw zel::GetInterfaceException("f", 5, 1, 2, R(0x80000001u)); }, 0x80000001,
       "f(5): Can't get interface. Properties:\nzel.iid=0x00000001\nzel.serviceKey=0x00000002\n"
       "zel.result=0x80000001\nCall stack:\n"},
      {"what is virtual", [] { throw OwnWhat(); }, 0x80000045, "own what"},
      {"zel::exception without code", [] { throw RawException(); }, 0x80000151, "raw.cpp(5): Raw. Call stack:\n"},
      {"empty loader text",
       [] {
         RawException e;
         e.SetProperty("os.module_result", zel::string_t(""), 7);
         throw e;
       },
       0x80000152, ""},
      {"bad_alloc", [] { throw std::bad_alloc(); }, 0x80000041, std::bad_alloc().what()},
      {"bad_cast", [] { throw std::bad_cast(); }, 0x80000047, std::bad_cast().what()},
      {"length_error", [] { throw std::length_error("len"); }, 0x8000005C, "len"},
      {"out_of_range", [] { throw std::out_of_range("oor"); }, 0x8000005E, "oor"},
      {"invalid_argument", [] { throw std::invalid_argument("inv"); }, 0x80000046, "inv"},
      {"other std", [] { throw std::runtime_error("rt"); }, 0x80000151, "rt"},
      {"LockError", [] { throw zel::LockError(); }, 0x80000151, "LockError"},
      {"not an exception", [] { throw 42; }, 0x80000072, "unknown exception"},
  };
  for (const Row& row : rows) {
    CollectingTracer tracer;
    EXPECT_EQ(Convert(row.thrower, &tracer), R(row.expected)) << row.name;
    if (row.text.empty()) continue;
    ASSERT_EQ(tracer.Texts().size(), 1u) << row.name;
    EXPECT_EQ(tracer.Texts()[0], row.text) << row.name;
    EXPECT_EQ(tracer.Lines()[0].level, 300u);
    EXPECT_EQ(Convert(row.thrower, nullptr), R(row.expected)) << row.name << " silent";
  }
}

TEST(Exception, NestedExceptionsStandOnOneLineAndNoneInFlightGivesItsCode) {
  CollectingTracer tracer;
  auto thrower = [] {
    try {
      throw std::out_of_range("inner");
    } catch (...) {
      std::throw_with_nested(zel::ResultCodeException("o", 1, "t", R(0x8000004Bu)) << "Outer");
    }
  };
  EXPECT_EQ(Convert(thrower, &tracer, "void F()"), R(0x8000004Bu));
  EXPECT_EQ(Convert(thrower, nullptr, "void F()"), R(0x8000004Bu));
  // With no exception in flight only the prefix is traced.
  EXPECT_EQ(zel::ResultFromCurrentException(&tracer, "prefix"), R(0x80000150u));
  EXPECT_EQ(zel::ResultFromCurrentException(nullptr, nullptr), R(0x80000150u));
  EXPECT_EQ(tracer.Texts(),
            (std::vector<std::string>{"void F() Outer: 0x8000004b (Unspecified error). At o(1) inner", "prefix "}));
  EXPECT_EQ(tracer.OpenLines(), 0u);
}

TEST(Exception, MessageStreamedInAndTheOneLineFormByUtf16Units) {
  CollectingTracer tracer;
  zel::TraceRecord record;
  ASSERT_TRUE(zel::TraceTest(record, &tracer, 300));
  zel::TraceStream stream(record);
  const zel::RuntimeError e("f", 1, u"\u00e9");  // 1 unit, 2 bytes
  stream << zel::trace::setfill('*') << zel::trace::setw(12) << e << "|";
  zel::TraceFlush(stream);
  EXPECT_EQ(tracer.Texts()[0], "*\xc3\xa9. At f(1) |");  // 11 units + 1 fill

  // Streaming widens, and copies keep the message.
  auto streamed = zel::RuntimeError("f", 1) << "a" << "bc";
  streamed << u"\u00e9";
  const zel::RuntimeError copy(streamed);
  EXPECT_TRUE(copy.GetMessage().view() == u"abc\u00e9");
  EXPECT_EQ(copy.GetDetails(), nullptr);
  EXPECT_STREQ(copy.what(), "Unknown exception");
}

// The traced form through a locator is held by the object flavour tests.
TEST(Exception, ConstructionConversionWithoutATracerRunsUntraced) {
  host::ServiceLocator locator;
  const auto caught = [](const std::function<result_t()>& convert) {
    try {
      throw zel::RuntimeError("f", 2, u"boom");
    } catch (...) {
      return convert();
    }
  };
  EXPECT_EQ(caught([] { return zel::detail::ResultFromConstructionException(nullptr); }), R(0x80000151u));
  EXPECT_EQ(caught([&] { return zel::ResultFromCurrentExceptionWithLocator(&locator, "p"); }), R(0x80000151u));
}

TEST(Exception, ThrowingGetInterfaceCarriesTheRequest) {
  host::ServiceLocator locator;
  locator.Refuse(zel::IAllocator::iid, R(0x8000004Cu));
  zel::RefPtr<zel::IAllocator> allocator;
  try {
    zel::GetInterface(&locator, allocator, 7);
    FAIL() << "no throw";
  } catch (const zel::GetInterfaceException& e) {
    EXPECT_EQ(zel::GetResult(e), R(0x8000004Cu));
    const zel::ExceptionProperty* iid = e.FindProperty("zel.iid");
    const zel::ExceptionProperty* key = e.FindProperty("zel.serviceKey");
    ASSERT_TRUE(iid != nullptr && key != nullptr);
    EXPECT_EQ(std::get<std::uint32_t>(iid->value), zel::IAllocator::iid);
    EXPECT_EQ(iid->typeId, 0x7B884055u);
    EXPECT_EQ(std::get<std::uint32_t>(key->value), 7u);
  }
}

}  // namespace
