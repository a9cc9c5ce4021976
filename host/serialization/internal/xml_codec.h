// The host's XML record form, driven only by type descriptors and written
// with pugixml under a storage node (the document's root element).
//
// Each field is one child element named by the descriptor:
//   numbers       decimal text; bool "true" / "false"
//   strings       text when it is well-formed UTF-8 (UTF-16 for wide ones)
//                 made of characters XML can carry; otherwise enc="hex" and
//                 the bytes (or 16-bit units) in hexadecimal
//   records       the nested record's fields as children
//   vectors       one <item> child per element
//   variant_t     attribute tag="N" and the value as above; a typed object
//                 adds serId="N" and its fields as children; tag 16 is two
//                 decimal words, a byte vector hex
// A field that holds the zero of its type (0, false, an empty string, list
// or variant, a nested record with nothing to write) has no element. A
// reader sets every field whose element is absent to that zero, whatever the
// target held, so records written with every element still read the same.
// It refuses text that is not exactly a value of the field's type and
// leaves the record untouched on failure.
#pragma once

#include <pugixml.hpp>

#include "zel/iallocator.h"
#include "zel/result.h"
#include "zel/serialization/imeta_info.h"
#include "zel/serialization/type_descriptor.h"

namespace host::serialization_detail {

// Replaces the children of `node` with the fields of `record`. May throw
// std::bad_alloc.
zel::result_t EncodeXml(zel::IMetaInfoProvider* meta, const zel::TypeDescriptor* descriptor, const void* record,
                        pugi::xml_node node);

// Reads the fields under `node` into `record`, untouched unless this
// succeeds. Typed objects inside variants are made from `allocator`.
zel::result_t DecodeXml(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator,
                        const zel::TypeDescriptor* descriptor, pugi::xml_node node, void* record);

}  // namespace host::serialization_detail
