// The host's serialisers as the module calls them: the binary form
// (IBinarySerializer), the structured form (IStorageSerializer2) written to
// a storage node, and the factory that opens such a node over an IIO stream
// (IXmlStorageFactory).
//
// Contract:
//  - A record is always passed as a zel::anydescrptr (its object and
//    descriptor); the serialisers learn the record's layout from the
//    descriptor alone. The record stays the caller's.
//  - IBinarySerializer::Serialize hands back a buffer made with the given
//    allocator; the caller frees it there. `len` is the byte count.
//  - The node of a storage keeps a reference on its stream; Flush writes the
//    document out through it.
//  - Operations stand in their fixed order; the ones the module does not call
//    carry names of our choosing.
#pragma once

#include <cstdint>

#include "zel/iallocator.h"
#include "zel/iobject.h"
#include "zel/serialization/iio.h"
#include "zel/types/range.h"
#include "zel/util/anydescrptr.h"

namespace zel {

using byte_range_t = types::range_t<const unsigned char*>;

// Mode of the binary form; the module always passes 0.
using SerializationMode = std::uint32_t;

class IBinarySerializer : public IObject {
 public:
  static constexpr iid_t iid = 0x239FC1DB;

  // Bytes that Serialize would produce.
  virtual result_t GetSerializedSize(const anydescrptr& data, std::uint32_t& len, SerializationMode mode) = 0;
  // A new buffer from `alloc` in *ptr, its length in len.
  virtual result_t Serialize(const anydescrptr& data, IAllocator* alloc, unsigned char** ptr, std::uint32_t& len,
                             SerializationMode mode) = 0;
  // Into the caller's buffer of `len` bytes; len receives the bytes written.
  virtual result_t SerializeTo(const anydescrptr& data, unsigned char* buffer, std::uint32_t& len,
                               SerializationMode mode) = 0;
  // Fills the existing object of `data` from `blob`; len receives the bytes
  // consumed.
  virtual result_t Deserialize(const byte_range_t& blob, const anydescrptr& data, std::uint32_t& len,
                               SerializationMode mode) = 0;

 protected:
  ~IBinarySerializer() = default;
};

// One element of a structured document. Only Flush is called by the module;
// the others are there for the serialisers.
class IStorageNode : public IObject {
 public:
  static constexpr iid_t iid = 0x4C3B2A19;

  // Valid as long as the node lives.
  virtual result_t GetName(const char** name) = 0;
  virtual result_t GetChildCount(std::uint32_t* count) = 0;
  virtual result_t GetChild(std::uint32_t index, IStorageNode** child) = 0;
  // 0x8000004C when there is no child of that name.
  virtual result_t FindChild(const char* name, IStorageNode** child) = 0;
  virtual result_t AddChild(const char* name, IStorageNode** child) = 0;
  virtual result_t RemoveChild(const char* name) = 0;
  // Copies up to `size` bytes of the text; *needed is the full length.
  virtual result_t GetValue(char* buffer, std::uint32_t size, std::uint32_t* needed) = 0;
  virtual result_t SetValue(const char* text, std::uint32_t length) = 0;
  virtual result_t GetAttribute(const char* name, char* buffer, std::uint32_t size, std::uint32_t* needed) = 0;
  virtual result_t SetAttribute(const char* name, const char* value) = 0;
  // Null (and 1) for the root.
  virtual result_t GetParent(IStorageNode** parent) = 0;
  virtual result_t Clear() = 0;
  // Writes the whole document to the stream the storage was made over.
  virtual result_t Flush() = 0;

 protected:
  ~IStorageNode() = default;
};

class IStorageSerializer2 : public IObject {
 public:
  static constexpr iid_t iid = 0x7CC64BFF;

  enum class Flags : std::uint32_t { Default = 0 };

  // Writes the record under `node`; `flags` and `context` are 0 here.
  virtual result_t Serialize(const anydescrptr& data, IStorageNode* node, std::uint32_t flags, void* context) = 0;
  // Fills the existing object of `data` from `node`. A null node fails.
  virtual result_t Deserialize(const anydescrptr& data, IStorageNode* node, Flags flags, void* context) = 0;

 protected:
  ~IStorageSerializer2() = default;
};

class IXmlStorageFactory : public IObject {
 public:
  static constexpr iid_t iid = 0x47EAA67D;

  // A new document with the root element `rootName`, written to `io` on
  // Flush. `io` may be null for a document that is never written.
  virtual result_t CreateStorage(IIO* io, const char* rootName, IStorageNode** node) = 0;
  // The root of the document read from `io`; readOnly is 0 or 1.
  virtual result_t OpenStorage(IIO* io, std::uint8_t readOnly, IStorageNode** node) = 0;

 protected:
  ~IXmlStorageFactory() = default;
};

}  // namespace zel
