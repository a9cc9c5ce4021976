// Shared set-up of the serialisation tests: a locator with a collecting
// tracer, a counting allocator and the host's serialisation services; a test
// record with a member of every field type the host supports (nested
// records, vectors of records, strings, variants) and helpers that turn
// records into bytes and back through the registered interfaces.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "app_control/application_ids.h"
#include "host/serialization/serialization_services.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "zel/serialization/variant.h"
#include "zel/types/string.h"
#include "zel/types/vector.h"

namespace sertest {

struct Inner {
  static constexpr std::uint32_t SerId = 0x7E570001;
  std::int32_t code = 0;
  zel::string_t label;
  zel::types::vector_t<std::uint64_t> ids;
};

struct Everything {
  static constexpr std::uint32_t SerId = 0x7E570002;
  bool flag = false;
  std::int8_t i8 = 0;
  std::uint8_t u8 = 0;
  std::int16_t i16 = 0;
  std::uint16_t u16 = 0;
  std::int32_t i32 = 0;
  std::uint32_t u32 = 0;
  std::int64_t i64 = 0;
  std::uint64_t u64 = 0;
  zel::string_t text;
  zel::wstring_t wide;
  Inner inner;
  zel::types::vector_t<Inner> inners;
  zel::types::vector_t<zel::string_t> names;
  zel::types::vector_t<zel::wstring_t> wideNames;
  zel::types::vector_t<std::int16_t> shorts;
  zel::types::vector_t<bool> flags;
  zel::variant_t any;
  zel::types::vector_t<zel::variant_t> anys;
};

// Constructor defaults that are not zero, as records with "unknown" ids of
// -1 have: a field left out of the XML form must still read as zero.
struct Defaulted {
  static constexpr std::uint32_t SerId = 0x7E570004;
  Defaulted() {
    inner.code = -1;
    inner.label = zel::string_t("x");
  }
  std::int32_t uid = -1;
  std::int64_t size = -1;
  bool enabled = true;
  zel::string_t name = zel::string_t("unnamed");
  Inner inner;
};

// A record that can hold itself through a typed variant: nesting depth tests.
struct Chain {
  static constexpr std::uint32_t SerId = 0x7E570003;
  std::uint32_t level = 0;
  zel::variant_t next;
};

const zel::TypeDescriptor* InnerDescriptor();
const zel::TypeDescriptor* EverythingDescriptor();
const zel::TypeDescriptor* ChainDescriptor();
const zel::TypeDescriptor* DefaultedDescriptor();

bool operator==(const Inner& a, const Inner& b);
bool operator==(const Everything& a, const Everything& b);
bool operator==(const Defaulted& a, const Defaulted& b);
bool VariantEquals(const zel::variant_t& a, const zel::variant_t& b);

// Every field set, with wide strings that hold a surrogate pair and lone
// surrogates, nested vectors and one variant of each owning tag (the typed
// one made from `allocator`).
Everything MakeEverything(zel::IAllocator* allocator);

class SerializationTest : public ::testing::Test {
 protected:
  SerializationTest();
  ~SerializationTest() override;

  template <class T>
  zel::anydescrptr Ref(T& value, const zel::TypeDescriptor* descriptor) {
    return zel::anydescrptr(&value, descriptor);
  }

  zel::result_t ToBinary(const zel::anydescrptr& data, std::vector<unsigned char>& out);
  zel::result_t FromBinary(const std::vector<unsigned char>& blob, const zel::anydescrptr& data);
  zel::result_t ToXml(const zel::anydescrptr& data, std::string& out);
  zel::result_t FromXml(const std::string& text, const zel::anydescrptr& data);

  // Lines traced at level 300 since the last call.
  std::size_t TakeErrorLines();

  host::CollectingTracer m_tracer;
  host::CountingAllocator m_allocator;
  host::ServiceLocator m_locator;
  host::SerializationServices m_services;
  const zel::TypeDescriptor* m_idsDescriptor = nullptr;
};

}  // namespace sertest
