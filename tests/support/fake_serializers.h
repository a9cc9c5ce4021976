// Scriptable stand-ins for the host's serialisers and lookups, for tests of
// the blob tools, the type lookup and the dumper: each records its calls and
// answers with the results the test sets.
//
// The services live on the test's stack (reference counts are bookkeeping
// only); the storage nodes they hand out are real counted heap objects, since
// the code under test releases them.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "zel/iallocator.h"
#include "zel/rtl/objclient.h"
#include "zel/serialization/iio.h"
#include "zel/serialization/imeta_info.h"
#include "host/services/host_object.h"
#include "zel/serialization/iserializers.h"

namespace testsupport {

inline constexpr zel::result_t kFakeFailure = zel::result::UnspecifiedError;

// A service that the test owns: counted, never destroyed by a release.
template <class Derived, class I>
using StackService = host::OwnedObject<Derived, I>;

class FakeBinarySerializer final : public StackService<FakeBinarySerializer, zel::IBinarySerializer> {
 public:
  zel::result_t serializeResult = 0;
  zel::result_t deserializeResult = 0;
  std::vector<unsigned char> output;  // what Serialize hands back
  bool allocateOnFailure = false;     // hand back a buffer even when failing
  int serializeCalls = 0;
  std::vector<unsigned char> lastInput;
  const void* lastObject = nullptr;

  zel::result_t GetSerializedSize(const zel::anydescrptr&, std::uint32_t&, zel::SerializationMode) override {
    return zel::result::NotImplemented;
  }
  zel::result_t Serialize(const zel::anydescrptr& data, zel::IAllocator* alloc, unsigned char** ptr,
                          std::uint32_t& len, zel::SerializationMode) override {
    ++serializeCalls;
    lastObject = data.get();
    if (zel::Succeeded(serializeResult) || allocateOnFailure) {
      *ptr = static_cast<unsigned char*>(alloc->Alloc(output.size() == 0 ? 1 : output.size()));
      if (!output.empty()) std::memcpy(*ptr, output.data(), output.size());
      len = static_cast<std::uint32_t>(output.size());
    }
    return serializeResult;
  }
  zel::result_t SerializeTo(const zel::anydescrptr&, unsigned char*, std::uint32_t&, zel::SerializationMode) override {
    return zel::result::NotImplemented;
  }
  zel::result_t Deserialize(const zel::byte_range_t& blob, const zel::anydescrptr& data, std::uint32_t& len,
                            zel::SerializationMode) override {
    lastObject = data.get();
    lastInput.assign(blob.begin(), blob.end());
    len = static_cast<std::uint32_t>(blob.size());
    return deserializeResult;
  }
};

// A document node over a stream: Flush writes `document` through the stream.
class FakeStorageNode final : public host::HeapObject<FakeStorageNode, zel::IStorageNode> {
 public:
  zel::result_t GetName(const char**) override { return kNotUsed; }
  zel::result_t GetChildCount(std::uint32_t*) override { return kNotUsed; }
  zel::result_t GetChild(std::uint32_t, IStorageNode**) override { return kNotUsed; }
  zel::result_t FindChild(const char*, IStorageNode**) override { return kNotUsed; }
  zel::result_t AddChild(const char*, IStorageNode**) override { return kNotUsed; }
  zel::result_t RemoveChild(const char*) override { return kNotUsed; }
  zel::result_t GetValue(char*, std::uint32_t, std::uint32_t*) override { return kNotUsed; }
  zel::result_t SetValue(const char*, std::uint32_t) override { return kNotUsed; }
  zel::result_t GetAttribute(const char*, char*, std::uint32_t, std::uint32_t*) override { return kNotUsed; }
  zel::result_t SetAttribute(const char*, const char*) override { return kNotUsed; }
  zel::result_t GetParent(IStorageNode**) override { return kNotUsed; }
  zel::result_t Clear() override { return kNotUsed; }
  zel::result_t Flush() override {
    if (zel::Failed(m_flushResult)) return m_flushResult;
    std::uint32_t written = 0;
    return m_io->Write(m_document.data(), static_cast<std::uint32_t>(m_document.size()), &written);
  }

 private:
  static constexpr zel::result_t kNotUsed = zel::result::NotImplemented;

  friend class host::HeapAccess;
  FakeStorageNode(zel::IIO* io, std::string document, zel::result_t flushResult, std::atomic<int>* alive)
      : m_io(io), m_document(std::move(document)), m_flushResult(flushResult), m_alive(alive) {
    ++*m_alive;
  }
  ~FakeStorageNode() { --*m_alive; }

  zel::RefPtr<zel::IIO> m_io;
  std::string m_document;
  zel::result_t m_flushResult;
  std::atomic<int>* m_alive;
};

class FakeXmlStorageFactory final : public StackService<FakeXmlStorageFactory, zel::IXmlStorageFactory> {
 public:
  bool giveNode = true;
  std::string document = "<root/>";  // what a node's Flush writes
  zel::result_t flushResult = 0;
  int createCalls = 0;
  int openCalls = 0;
  std::string lastRootName;
  int lastReadOnly = -1;
  std::atomic<int> nodesAlive{0};

  zel::result_t CreateStorage(zel::IIO* io, const char* rootName, zel::IStorageNode** node) override {
    ++createCalls;
    lastRootName = rootName != nullptr ? rootName : "";
    return Give(io, node);
  }
  zel::result_t OpenStorage(zel::IIO* io, std::uint8_t readOnly, zel::IStorageNode** node) override {
    ++openCalls;
    lastReadOnly = readOnly;
    return Give(io, node);
  }

 private:
  zel::result_t Give(zel::IIO* io, zel::IStorageNode** node) {
    if (!giveNode) {
      *node = nullptr;
      return kFakeFailure;
    }
    *node = host::MakeHeapObject<FakeStorageNode>(io, document, flushResult, &nodesAlive).Detach();
    return 0;
  }
};

class FakeStorageSerializer2 final : public StackService<FakeStorageSerializer2, zel::IStorageSerializer2> {
 public:
  zel::result_t serializeResult = 0;
  zel::result_t deserializeResult = 0;
  const void* lastObject = nullptr;

  // Like the host's, fails on a missing node.
  zel::result_t Serialize(const zel::anydescrptr& data, zel::IStorageNode* node, std::uint32_t, void*) override {
    lastObject = data.get();
    if (node == nullptr) return zel::result::InvalidArgument;
    return serializeResult;
  }
  zel::result_t Deserialize(const zel::anydescrptr& data, zel::IStorageNode* node, Flags, void*) override {
    lastObject = data.get();
    if (node == nullptr) return zel::result::InvalidArgument;
    return deserializeResult;
  }
};

// A lookup that knows one descriptor.
class FakeMetaInfoProvider final : public StackService<FakeMetaInfoProvider, zel::IMetaInfoProvider> {
 public:
  const zel::TypeDescriptor* known = nullptr;
  int findCalls = 0;
  zel::result_t FindDescriptor(std::uint32_t serId, const zel::TypeDescriptor** descriptor) override {
    ++findCalls;
    if (known == nullptr || known->serId != serId) return zel::result::NotFound;
    *descriptor = known;
    return 0;
  }
  zel::result_t FindDescriptorByName(const char*, const zel::TypeDescriptor**) override {
    return zel::result::NotImplemented;
  }
  zel::result_t GetDescriptorCount(std::uint32_t*) override { return zel::result::NotImplemented; }
};

}  // namespace testsupport
