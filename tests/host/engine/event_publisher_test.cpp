// The host's event publisher: the exact JSON line, escaping of wide text,
// and the copy it keeps only when it has no stream.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "host/services/event_publisher.h"

namespace {

tov::RuntimeField Field(std::int32_t name, zel::variant_t value) {
  tov::RuntimeField f;
  f.name = name;
  f.data = std::move(value);
  return f;
}

zel::variant_t WStr(std::u16string_view s) {
  zel::variant_t v;
  v.SetWString(zel::wstring_t(s));
  return v;
}

tov::RuntimeEvent SampleEvent() {
  tov::RuntimeEvent e;
  e.eventType = 122;
  e.severity = 0;
  e.time = 1700000000;
  e.subject.user = tov::EventSubjectUser{4294967297LL, zel::wstring_t(u"al\"ice")};
  e.runtimeFields.push_back(Field(37, WStr(u"al\"ice")));
  zel::variant_t id;
  id.SetInt32(-7);
  e.runtimeFields.push_back(Field(38, id));
  zel::variant_t task;
  task.SetUInt64(21);
  e.runtimeFields.push_back(Field(8, task));
  // é, a surrogate pair (U+1F600), a tab.
  e.runtimeFields.push_back(Field(0, WStr(u"t\u00e9st\U0001F600\t")));
  // A lone surrogate and a control character stay visible as escapes.
  const char16_t lone[] = {u'a', 0xD800, u'\x1F', 0};  // the last control character
  e.runtimeFields.push_back(Field(142, WStr(lone)));
  // An id without a name is keyed by its number.
  e.runtimeFields.push_back(Field(9999, zel::variant_t()));
  return e;
}

TEST(EventPublisher, WritesOneExactJsonLine) {
  const std::string expected =
      "{\"type\":122,\"typeName\":\"ApplicationStartupBlocked\",\"severity\":0,\"severityName\":\"Critical\","
      "\"time\":1700000000,\"subject\":{\"kind\":2,\"userId\":4294967297,\"userName\":\"al\\\"ice\"},"
      "\"fields\":{\"AccessUser\":\"al\\\"ice\",\"AccessUserId\":-7,\"TaskId\":21,"
      "\"FileName\":\"t\xC3\xA9st\xF0\x9F\x98\x80\\t\",\"Category\":\"a\\ud800\\u001f\",\"9999\":null}}";

  std::FILE* out = std::tmpfile();
  ASSERT_NE(out, nullptr);
  host::EventPublisher publisher(out);
  tov::RuntimeEvent event = SampleEvent();
  ASSERT_EQ(publisher.PublishEvent(&event), 0);
  tov::RuntimeEvent second;  // defaults: no type name, no user
  ASSERT_EQ(publisher.PublishEvent(&second), 0);

  std::rewind(out);
  std::string written(4096, '\0');
  written.resize(std::fread(written.data(), 1, written.size(), out));
  std::fclose(out);
  const std::string secondLine =
      "{\"type\":-1,\"typeName\":null,\"severity\":4,\"severityName\":\"Informational\",\"time\":-1,"
      "\"subject\":{\"kind\":2},\"fields\":{}}";
  EXPECT_EQ(written, expected + "\n" + secondLine + "\n");

  // Written events are counted, not kept: a long-running host must not grow.
  EXPECT_EQ(publisher.Count(), 2u);
  EXPECT_TRUE(publisher.Lines().empty());
  EXPECT_TRUE(publisher.Events().empty());

  // Without a stream the copies are what there is (the module tests read the events kept).
  host::EventPublisher keeping;
  ASSERT_EQ(keeping.PublishEvent(&event), 0);
  ASSERT_EQ(keeping.PublishEvent(&second), 0);
  EXPECT_EQ(keeping.Lines(), (std::vector<std::string>{expected, secondLine}));
  EXPECT_EQ(keeping.PublishEvent(nullptr), zel::result::InvalidArgument);
}

}  // namespace
