// Fuzzes the binary blob reader: tools::AnyFromBlob through the host's
// binary serialiser (checksum off), into an ApplicationIds or a
// tov::RuntimeField. See blob_round_trip.h for the properties checked.
#include "blob_round_trip.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return fuzz::RunBlobInput(data, size, &tools::AnyFromBlob, &tools::AnyToBlob);
}
