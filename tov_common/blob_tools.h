// Typed records to bytes and back, in front of the host's serialisers:
// binary form through IBinarySerializer, structured (XML) form through
// IStorageSerializer2 on a storage opened over a memory stream.
//
// Contract:
//  - Each function returns the code of the step that failed and writes its
//    check line at level 300; outputs (blob, buffer) are touched only on
//    success. A failed Deserialize may leave the record partly filled.
//  - The structured functions need a tracer: without one the locator's
//    refusal leaves them as zel::GetInterfaceException. The binary ones just
//    stay silent.
//  - The structured root element is "root"; an empty blob reads as a fresh
//    document under it.
#pragma once

#include <cstdint>

#include "zel/iservice_locator.h"
#include "zel/serialization/iio.h"
#include "zel/serialization/iserializers.h"
#include "zel/types/range.h"
#include "zel/types/vector.h"
#include "zel/util/anydescrptr.h"

namespace tools {

using Blob = zel::types::vector_t<unsigned char>;
using BlobRange = zel::types::range_t<unsigned char const*>;

zel::result_t AnyToBlob(zel::IServiceLocator* sl, const zel::anydescrptr& data, Blob& blob);
zel::result_t AnyFromBlob(zel::IServiceLocator* sl, const BlobRange& blob, const zel::anydescrptr& data);
zel::result_t AnyToXmlBlob(zel::IServiceLocator* sl, const zel::anydescrptr& data, Blob& buffer);
zel::result_t AnyFromXmlBlob(zel::IServiceLocator* sl, const BlobRange& blob, const zel::anydescrptr& any);

// Opens the structured storage over `io`: a non-empty stream is read
// (OpenStorage), an empty one or none gets a new document under `rootName`
// (CreateStorage). *node stays null when the factory or the stream's size
// can't be had; the factory's own result doesn't count, only *node.
zel::result_t OpenXmlStorage(zel::IServiceLocator* sl, zel::IIO* io, std::uint8_t readOnly, const char* rootName,
                             zel::IStorageNode** node);

}  // namespace tools
