// Writes the seed corpora of binary_blob_fuzz and xml_blob_fuzz: a few
// records in both forms, each behind the record-picking byte the targets
// read first. Run by scripts/fuzz-seeds; the output is committed.
// Usage: blob_seeds <binary dir> <xml dir>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "../blob_round_trip.h"

namespace {

void Write(const std::string& path, std::uint8_t pick, const tools::Blob& blob) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) std::abort();
  std::fputc(pick, f);
  std::fwrite(blob.data(), 1, blob.size(), f);
  std::fclose(f);
}

template <class T>
void Emit(fuzz::BlobServices& s, const std::string& name, std::uint8_t pick, T& value, const char* bin,
          const char* xml) {
  const zel::anydescrptr any(&value, zel::StaticTypeDescriptor<T>::Get());
  tools::Blob blob;
  fuzz::Check(ZEL_SUCCEEDED(tools::AnyToBlob(&s.locator, any, blob)));
  Write(std::string(bin) + "/" + name, pick, blob);
  tools::Blob text;
  fuzz::Check(ZEL_SUCCEEDED(tools::AnyToXmlBlob(&s.locator, any, text)));
  Write(std::string(xml) + "/" + name, pick, text);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  fuzz::BlobServices& s = fuzz::GetBlobServices();
  const std::vector<std::vector<unsigned long>> lists = {{}, {1}, {7, 0, 4294967296UL, ~0UL}};
  int n = 0;
  for (const auto& list : lists) {
    tov::app_control::ApplicationIds ids;
    for (unsigned long id : list) ids.list.push_back(id);
    Emit(s, "ids" + std::to_string(n++), 0, ids, argv[1], argv[2]);
  }
  std::vector<zel::variant_t> values(5);
  values[1].SetInt32(-7);
  values[2].SetWString(zel::wstring_t(u"wide \u00e9 text"));
  values[3].SetString(zel::string_t("narrow <&>"));
  values[4].SetWords128(1, 2);
  n = 0;
  for (auto& v : values) {
    tov::RuntimeField field;
    field.name = n * 11 - 1;
    field.data = std::move(v);
    Emit(s, "field" + std::to_string(n++), 1, field, argv[1], argv[2]);
  }
  return 0;
}
