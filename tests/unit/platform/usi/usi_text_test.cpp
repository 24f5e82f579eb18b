#include "usi_text.h"

#include "usi.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace {

struct parsed {
  explicit parsed(const std::string& content) {
    char* bytes = static_cast<char*>(malloc(content.size() + 1));
    std::copy(content.begin(), content.end(), bytes);
    code = usi_text_parse(&text, bytes, content.size());
  }
  ~parsed() { usi_text_release(&text); }
  parsed(const parsed&) = delete;
  parsed& operator=(const parsed&) = delete;

  [[nodiscard]] std::optional<std::string> value(const std::string& key, size_t limit = 1000) const {
    const usi_entry* entry = usi_text_find(&text, key.data(), key.size());
    if (!entry) return {};
    char* copy = usi_text_copy_value(&text, entry, limit);
    std::string result{copy};
    free(copy);
    return result;
  }

  usi_text text{};
  int code;
};

struct change {
  std::string key;
  std::optional<std::string> value;
};

struct change_list {
  explicit change_list(const std::vector<change>& wanted) {
    for (const change& one : wanted)
      list.push_back({strdup(one.key.c_str()), one.value ? strdup(one.value->c_str()) : nullptr,
                      usi_hash(one.key.data(), one.key.size()), 0});
  }
  ~change_list() {
    for (usi_change& one : list) {
      free(one.key);
      free(one.value);
    }
  }
  change_list(const change_list&) = delete;
  change_list& operator=(const change_list&) = delete;

  std::vector<usi_change> list;
};

std::string merge(const std::string& content, const std::vector<change>& wanted) {
  const parsed before{content};
  const change_list changes{wanted};
  usi_text merged{};
  EXPECT_EQ(usi_text_merge(&before.text, changes.list.data(), changes.list.size(), &merged), 0);
  EXPECT_FALSE(usi_text_differs(&merged, changes.list.data(), changes.list.size()));
  std::string result{merged.bytes, merged.size};
  usi_text_release(&merged);
  return result;
}

TEST(UsiText, KeyAndValueAreTakenFromTheLine) {
  const struct {
    const char* content;
    const char* key;
    std::optional<std::string> value;
  } cases[] = {
      {"k=v\n", "k", "v"},
      {"k=v", "k", "v"},
      {"k=\n", "k", ""},
      {"k=", "k", ""},
      {" \tk\t =v\n", "k", "v"},
      {"k= v \n", "k", " v "},
      {"k=a=b=\n", "k", "a=b="},
      {"k=#v\n", "k", "#v"},
      {"k#=v\n", "k#", "v"},
      {"two words=v\n", "two words", "v"},
      {"k=v\r\n", "k", "v\r"},
      {"k=gr\xc3\xbc\xc3\x9f\n", "k", "gr\xc3\xbc\xc3\x9f"},
      {"k\xc3\xbc=v\n", "k\xc3\xbc", "v"},
      {"k=1\nk=2\n", "k", "2"},
      {"k=1\nj=5\n k =3", "k", "3"},
      {"#k=v\n", "k", {}},
      {"#k=v\n", "#k", {}},
      {"  #k=v\n", "#k", {}},
      {"=v\n", "", {}},
      {"  =v\n", "", {}},
      {"k\n", "k", {}},
      {"\n\n \nk=v\n\n", "k", "v"},
      {"", "k", {}},
      {"K=v\n", "k", {}},
      {"kk=v\n", "k", {}},
  };
  for (const auto& one : cases) {
    const parsed text{one.content};
    ASSERT_EQ(text.code, 0) << one.content;
    EXPECT_EQ(text.value(one.key), one.value) << one.content;
  }
}

TEST(UsiText, EscapesAreResolvedAndOtherBackslashesStay) {
  const struct {
    const char* written;
    const char* value;
  } cases[] = {
      {"a\\nb", "a\nb"},  {"a\\rb", "a\rb"}, {"a\\\\b", "a\\b"}, {"a\\tb", "a\\tb"},
      {"\\\\n", "\\n"},   {"a\\", "a\\"},    {"\\", "\\"},       {"\\\\\\", "\\\\"},
      {"\\n\\r", "\n\r"}, {"\\N", "\\N"},    {"\\=", "\\="},     {"\\\\\\n", "\\\n"},
  };
  for (const auto& one : cases) {
    const parsed text{std::string{"k="} + one.written + "\n"};
    EXPECT_EQ(text.value("k"), one.value) << one.written;
  }
}

TEST(UsiText, ValueIsCutToTheLimitAfterUnescaping) {
  const parsed text{"k=a\\nb\\nc\n"};
  EXPECT_EQ(text.value("k", 0), "");
  EXPECT_EQ(text.value("k", 2), "a\n");
  EXPECT_EQ(text.value("k", 3), "a\nb");
  EXPECT_EQ(text.value("k", 5), "a\nb\nc");
  EXPECT_EQ(text.value("k", 6), "a\nb\nc");
}

TEST(UsiText, MergeChangesOnlyWhatItMust) {
  const struct {
    const char* what;
    std::string content;
    std::vector<change> changes;
    std::string result;
  } cases[] = {
      {"new key in an empty file", "", {{"k", "v"}}, "k=v\n"},
      {"new keys in their order", "a=1\n", {{"z", "2"}, {"b", "3"}}, "a=1\nz=2\nb=3\n"},
      {"new key behind a line without end", "a=1", {{"b", "2"}}, "a=1\nb=2\n"},
      {"changed in place", "a=1\nb=2\nc=3\n", {{"b", "22"}}, "a=1\nb=22\nc=3\n"},
      {"changed in place without line end", "a=1\nb=2", {{"b", "22"}}, "a=1\nb=22"},
      {"comments, blanks and odd lines stay",
       "# c\n\n  a = 1\nodd\n=x\n",
       {{"a", "2"}},
       "# c\n\n  a =2\nodd\n=x\n"},
      {"commented key is appended", "#a=1\n", {{"a", "2"}}, "#a=1\na=2\n"},
      {"last one of a repeated key", "a=1\nb=2\na=3\n", {{"a", "4"}}, "a=1\nb=2\na=4\n"},
      {"removed", "a=1\nb=2\nc=3\n", {{"b", {}}}, "a=1\nc=3\n"},
      {"removed without line end", "a=1\nb=2", {{"b", {}}}, "a=1\n"},
      {"repeated key removed everywhere", "a=1\nb=2\na=3\n", {{"a", {}}}, "b=2\n"},
      {"absent key removed", "a=1\n", {{"b", {}}}, "a=1\n"},
      {"removed, changed and added", "a=1\nb=2\n", {{"a", {}}, {"b", "x"}, {"c", "y"}}, "b=x\nc=y\n"},
      {"removed and added behind it", "a=1", {{"a", {}}, {"c", "y"}}, "c=y\n"},
      {"escapes", "a=1\n", {{"a", "l1\nl2\r\\n"}, {"b", "\\"}}, "a=l1\\nl2\\r\\\\n\nb=\\\\\n"},
      {"same meaning stays as written", "a=\\x\n", {{"a", "\\x"}}, "a=\\x\n"},
      {"empty value", "a=1\n", {{"a", ""}, {"b", ""}}, "a=\nb=\n"},
  };
  for (const auto& one : cases)
    EXPECT_EQ(merge(one.content, one.changes), one.result) << one.what;
}

TEST(UsiText, DiffersTellsWhetherAChangeMatters) {
  const struct {
    change wanted;
    bool differs;
  } cases[] = {
      {{"a", "1"}, false},    {{"a", "2"}, true},      {{"a", "11"}, true},    {{"a", ""}, true},
      {{"a", {}}, true},      {{"none", {}}, false},   {{"none", ""}, true},   {{"e", "x\ny"}, false},
      {{"e", "x\\ny"}, true}, {{"twice", "2"}, false}, {{"twice", "1"}, true},
  };
  const parsed text{"a=1\ne=x\\ny\ntwice=1\ntwice=2\n"};
  for (const auto& one : cases) {
    const change_list changes{{one.wanted}};
    EXPECT_EQ(usi_text_differs(&text.text, changes.list.data(), 1), one.differs)
        << one.wanted.key << "=" << one.wanted.value.value_or("(removed)");
  }
}

TEST(UsiText, EveryValueSurvivesMergeAndParse) {
  unsigned random = 1;
  const char alphabet[] = "\\nr\n\r=# ab\t\xff";
  for (int round = 0; round < 2000; ++round) {
    std::string value;
    for (unsigned length = (random >> 8U) % 12; length > 0; --length) {
      random = random * 1103515245U + 12345U;
      value += alphabet[(random >> 16U) % (sizeof alphabet - 1)];
    }
    random = random * 1103515245U + 12345U;
    const parsed text{merge("first=1\nk=old\nlast=2", {{"k", value}, {"new", value}})};
    ASSERT_EQ(text.value("k"), value);
    ASSERT_EQ(text.value("new"), value);
    ASSERT_EQ(text.value("first"), "1");
    ASSERT_EQ(text.value("last"), "2");
  }
}

TEST(UsiText, ThousandsOfKeysAreAllFound) {
  std::string content;
  for (int i = 0; i < 5000; ++i)
    content += "key_" + std::to_string(i) + "=" + std::to_string(i * 7) + "\n";
  const parsed text{content};
  ASSERT_EQ(text.text.count, 5000U);
  for (int i = 0; i < 5000; ++i)
    ASSERT_EQ(text.value("key_" + std::to_string(i)), std::to_string(i * 7));
  EXPECT_EQ(text.value("key_5000"), std::nullopt);
}

TEST(UsiText, WhatIsNoSettingsTextIsRefused) {
  const std::string longest(USI_MAX_LINE - 2, 'v');
  const std::string biggest(USI_MAX_FILE, '\n');
  EXPECT_EQ(parsed("k=" + longest + "\n").code, 0);
  EXPECT_EQ(parsed("k=" + longest).code, 0);
  EXPECT_EQ(parsed("k=" + longest + "v\n").code, USI_LINE_TOO_LONG);
  EXPECT_EQ(parsed("a=1\n#" + longest + "vv").code, USI_LINE_TOO_LONG);
  EXPECT_EQ(parsed(biggest).code, 0);
  EXPECT_EQ(parsed(biggest + "\n").code, USI_FILE_TOO_BIG);
  EXPECT_EQ(parsed(std::string{"a=1\n\0b=2\n", 9}).code, USI_NOT_TEXT);
  EXPECT_EQ(parsed(std::string(3, '\0')).code, USI_NOT_TEXT);
}

TEST(UsiText, MergeThatWouldBeRefusedOnReadingFails) {
  const parsed indented{std::string(100, ' ') + "k=v\n"};
  const change_list widest{{{"k", std::string(USI_MAX_LINE - 2, 'v')}}};
  usi_text merged{};
  EXPECT_EQ(usi_text_merge(&indented.text, widest.list.data(), 1, &merged), USI_LINE_TOO_LONG);
  EXPECT_EQ(merged.bytes, nullptr);

  const parsed full{std::string(USI_MAX_FILE, '\n')};
  const change_list one_more{{{"k", "v"}}};
  EXPECT_EQ(usi_text_merge(&full.text, one_more.list.data(), 1, &merged), USI_FILE_TOO_BIG);
  EXPECT_EQ(merged.bytes, nullptr);
}

TEST(UsiText, KeysThatCanNotBeStoredAreTold) {
  const struct {
    const char* key;
    bool valid;
  } cases[] = {
      {"q_agent_id", true}, {"a#", true},    {"\xc3\xbc", true}, {"k.v-1/2", true},
      {"\\n", true},        {"", false},     {"#a", false},      {"a=b", false},
      {"=", false},         {"a b", false},  {" a", false},      {"a\n", false},
      {"a\tb", false},      {"\x01", false}, {"a\x7f", false},   {"a\r", false},
  };
  for (const auto& one : cases)
    EXPECT_EQ(usi_key_is_valid(one.key), one.valid) << one.key;
}

// The look-up takes the low bits and goes on from there: keys that differ only at their end must not gather.
TEST(UsiText, KeysOfEqualLengthSpreadOverTheTable) {
  for (const char* format :
       {"q_%03d", "q_handler_%03d", "q_handler_ab%03d", "q_handler_abc_%03d", "q_handler_sensor_%03d"}) {
    std::vector<bool> taken(1024);
    for (int number = 0; number < 500; ++number) {
      char key[64];
      const int size = std::snprintf(key, sizeof key, format, number);
      taken[usi_hash(key, static_cast<size_t>(size)) % taken.size()] = true;
    }
    EXPECT_GT(std::count(taken.begin(), taken.end(), true), 350) << format;  // by chance it would be 395
  }
}

}  // namespace
