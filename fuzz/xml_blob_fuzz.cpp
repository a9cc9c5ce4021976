// Fuzzes the XML blob reader: tools::AnyFromXmlBlob through the host's
// storage serialiser and its pugixml storage, into an ApplicationIds or a
// tov::RuntimeField. See blob_round_trip.h for the properties checked.
#include "blob_round_trip.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return fuzz::RunBlobInput(data, size, &tools::AnyFromXmlBlob, &tools::AnyToXmlBlob);
}
