// The XML storage node as other serialisers would use it: building a
// document, reading it back from a stream, and what a read-only document
// and short buffers give.
#include <gtest/gtest.h>

#include <string>

#include "serialization_fixture.h"
#include "zel/serialization/memory_io.h"

namespace {

class XmlStorage : public sertest::SerializationTest {};

TEST_F(XmlStorage, BuildFlushAndReopen) {
  zel::types::vector_t<unsigned char> buffer;
  {
    zel::RefPtr<zel::IIO> io;
    ASSERT_EQ(zel::memory_io::CreateReadWriteIo<zel::memory_io::ExternalStorageTraits>(buffer, io.Ref()), 0);
    zel::RefPtr<zel::IStorageNode> root, child, parent;
    ASSERT_EQ(m_services.xmlFactory->CreateStorage(io.Get(), "root", root.Ref()), 0);
    ASSERT_EQ(root->AddChild("name", child.Ref()), 0);
    ASSERT_EQ(child->SetValue("a<b", 3), 0);
    ASSERT_EQ(child->SetAttribute("kind", "x"), 0);
    EXPECT_EQ(root->GetParent(parent.Ref()), 1);
    EXPECT_EQ(parent.Get(), nullptr);
    ASSERT_EQ(root->Flush(), 0);
  }
  const std::string text(reinterpret_cast<const char*>(buffer.data()), buffer.size());
  EXPECT_EQ(text, "<root><name kind=\"x\">a&lt;b</name></root>");

  const zel::byte_range_t range{buffer.data(), buffer.data() + buffer.size()};
  zel::RefPtr<zel::IIO> in;
  ASSERT_EQ(zel::memory_io::CreateReadOnlyIo<zel::memory_io::ExternalStorageTraits>(range, in.Ref()), 0);
  zel::RefPtr<zel::IStorageNode> root, child, missing;
  ASSERT_EQ(m_services.xmlFactory->OpenStorage(in.Get(), 1, root.Ref()), 0);
  std::uint32_t count = 0;
  ASSERT_EQ(root->GetChildCount(&count), 0);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(root->FindChild("other", missing.Ref()), zel::result::NotFound);
  ASSERT_EQ(root->FindChild("name", child.Ref()), 0);

  char small[2] = {'?', '?'};
  std::uint32_t needed = 0;
  EXPECT_EQ(child->GetValue(small, sizeof small, &needed), zel::result::BufferTooSmall);
  EXPECT_EQ(needed, 3u);
  EXPECT_EQ(std::string(small, 2), "a<");
  char value[8] = {};
  EXPECT_EQ(child->GetAttribute("kind", value, sizeof value, &needed), 0);
  EXPECT_STREQ(value, "x");

  // Read-only: nothing can change, and Flush has nothing to write.
  EXPECT_EQ(child->SetValue("z", 1), zel::result::AccessDenied);
  EXPECT_EQ(root->AddChild("more", nullptr), zel::result::AccessDenied);
  EXPECT_EQ(root->Clear(), zel::result::AccessDenied);
  EXPECT_EQ(root->Flush(), 1);
  zel::anydescrptr ids(&needed, m_idsDescriptor);
  EXPECT_EQ(m_services.storage->Serialize(ids, root.Get(), 0, nullptr), zel::result::AccessDenied);
}

}  // namespace
