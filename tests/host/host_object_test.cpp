// The host's shared reference counting and QueryInterface: the face each id
// gives, what a miss leaves behind, and who ends the object.
#include <gtest/gtest.h>

#include "host/services/host_object.h"
#include "zel/module_lock.h"

namespace {

class IFirst : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x1F1F0001;
  virtual int First() = 0;

 protected:
  ~IFirst() = default;
};

class ISecond : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x1F1F0002;
  virtual int Second() = 0;

 protected:
  ~ISecond() = default;
};

int g_destroyed = 0;

class Heap final : public host::HeapObject<Heap, IFirst, ISecond> {
 public:
  int First() override { return 1; }
  int Second() override { return 2; }

 private:
  friend class host::HeapAccess;
  Heap() = default;
  ~Heap() { ++g_destroyed; }
};

TEST(HostObject, EachIdGivesItsFaceAndAMissWritesNull) {
  const std::uint32_t locks = zel::ModuleLockCount.load();
  zel::RefPtr<Heap> object = host::MakeHeapObject<Heap>();
  EXPECT_EQ(zel::ModuleLockCount.load(), locks);

  const struct {
    zel::iid_t iid;
    void* face;
  } cases[] = {
      {0, static_cast<IFirst*>(object.Get())},
      {IFirst::iid, static_cast<IFirst*>(object.Get())},
      {ISecond::iid, static_cast<ISecond*>(object.Get())},
  };
  ASSERT_NE(cases[0].face, cases[2].face);
  for (const auto& c : cases) {
    void* out = nullptr;
    ASSERT_EQ(object->QueryInterface(c.iid, &out), zel::result::NoError) << c.iid;
    EXPECT_EQ(out, c.face) << c.iid;
    static_cast<zel::IObject*>(out)->Release();
  }

  int sentinel = 0;
  void* out = &sentinel;
  EXPECT_EQ(object->QueryInterface(0x1F1F0003, &out), zel::result::InterfaceNotSupported);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(object->QueryInterface(IFirst::iid, nullptr), zel::result::InvalidArgument);
}

TEST(HostObject, DeletedOnceWhicheverFaceReleasesLast) {
  for (const zel::iid_t last : {IFirst::iid, ISecond::iid}) {
    g_destroyed = 0;
    zel::RefPtr<Heap> object = host::MakeHeapObject<Heap>();
    void* first = nullptr;
    void* second = nullptr;
    ASSERT_EQ(object->QueryInterface(IFirst::iid, &first), zel::result::NoError);
    ASSERT_EQ(object->QueryInterface(ISecond::iid, &second), zel::result::NoError);
    object.Reset();

    auto* early = static_cast<zel::IObject*>(last == IFirst::iid ? second : first);
    auto* late = last == IFirst::iid ? static_cast<zel::IObject*>(static_cast<IFirst*>(first))
                                     : static_cast<zel::IObject*>(static_cast<ISecond*>(second));
    EXPECT_EQ(early->Release(), 1u);
    EXPECT_EQ(g_destroyed, 0);
    EXPECT_EQ(late->Release(), 0u);
    EXPECT_EQ(g_destroyed, 1) << last;
  }
}

}  // namespace
