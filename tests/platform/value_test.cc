#include "platform/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <unordered_set>

#include "platform/Exception.h"

namespace pc {
namespace {

struct Coercion {
  Value value;
  std::int64_t integer;
  double real;
  bool boolean;
};

class ValueCoercion : public ::testing::TestWithParam<Coercion> {};

TEST_P(ValueCoercion, ReadsNumbersAsThePlatformDoes) {
  const Coercion& c = GetParam();
  EXPECT_EQ(c.value.integerValue(), c.integer) << c.value.description();
  EXPECT_DOUBLE_EQ(c.value.doubleValue(), c.real) << c.value.description();
  EXPECT_EQ(c.value.boolValue(), c.boolean) << c.value.description();
}

INSTANTIATE_TEST_SUITE_P(
    Platform, ValueCoercion,
    ::testing::Values(Coercion{Value(), 0, 0, false}, Coercion{true, 1, 1, true},
                      Coercion{-2.9, -2, -2.9, true}, Coercion{"  42abc", 42, 42, true},
                      Coercion{"-3.5e1", -3, -35, true}, Coercion{"abc", 0, 0, false},
                      Coercion{"Y", 0, 0, true}, Coercion{"NO", 0, 0, false},
                      Coercion{" 99999999999999999999", std::numeric_limits<std::int64_t>::max(),
                               1e20, true},
                      // Underflow is zero, overflow infinity; words are not numbers.
                      Coercion{"1e-400", 1, 0, false}, Coercion{"-1e-400", -1, 0, false},
                      Coercion{"1e400", 1, std::numeric_limits<double>::infinity(), true},
                      Coercion{"inf", 0, std::numeric_limits<double>::infinity(), false},
                      Coercion{"-Infinity", 0, -std::numeric_limits<double>::infinity(), false},
                      Coercion{" .5", 0, 0.5, true}));

TEST(Value, NotANumberIsNotTrue) {
  EXPECT_FALSE(Value("nan").boolValue());
  EXPECT_FALSE(Value("-NaN").boolValue());
  EXPECT_TRUE(std::isnan(Value("nan").doubleValue()));
}

TEST(Value, OtherKindsAreRefusedAsNumbersWithAClearError) {
  for (const Value& v : {Value(Array{1}), Value(Dictionary{}), Value(Data::fromString("x")),
                         Value(URL("http://a")), Value(CalendarDate())}) {
    try {
      (void)v.integerValue();
      FAIL() << "no error for " << v.kindName();
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), kInvalidArgumentException);
      EXPECT_NE(e.reason().find(v.kindName()), std::string::npos) << e.reason();
    }
    EXPECT_FALSE(v.integerIfNumeric().has_value());
  }
  EXPECT_THROW((void)Value("x").dictionary(), Exception);
}

TEST(Value, NumbersAreEqualByValueAndHashAlike) {
  const std::vector<std::pair<Value, Value>> equal = {
      {Value(1), Value(true)}, {Value(-0.0), Value(0)}, {Value(1LL << 53), Value(double(1LL << 53))}};
  for (const auto& [a, b] : equal) {
    EXPECT_EQ(a, b) << a.description() << " vs " << b.description();
    EXPECT_EQ(a.hash(), b.hash()) << a.description();
  }
  EXPECT_NE(Value(3), Value(3.5));
  EXPECT_NE(Value(1), Value("1"));
  const double nan = std::nan("");
  EXPECT_NE(Value(nan), Value(nan));
}

TEST(Value, ContainersAreSharedByReferenceUntilCopied) {
  Dictionary record{{"name", "Ann"}, {"phones", Array{"1", "2"}}};
  Value held = record;
  held.dictionary().set("name", "Bob");
  EXPECT_EQ(record.get("name"), Value("Bob"));

  Dictionary shallow = record.copy();
  shallow.set("name", "Cid");
  shallow.getArray("phones")->add("3");
  EXPECT_EQ(record.getArray("phones")->count(), 3u) << "a shallow copy shares nested arrays";

  Dictionary deep = record.deepCopy();
  deep.getArray("phones")->add("4");
  EXPECT_EQ(record.getArray("phones")->count(), 3u);
  EXPECT_TRUE(Value(record).isIdenticalTo(held));

  // Byte buffers are values: copies share bytes only until one changes.
  Data photo = Data::fromString("jpeg");
  Data copy = photo;
  copy.mutableBytes()[0] = 'J';
  EXPECT_EQ(photo.asString(), "jpeg");
}

TEST(Value, DictionaryKeepsInsertionOrderThroughReplaceAndRemove) {
  Dictionary d;
  for (const char* k : {"c", "a", "b", "d"}) d.set(k, k);
  d.set("a", 1);  // replaced in place
  d.remove("b");
  d.set("e", 2);
  std::vector<std::string> keys;
  for (const auto& [k, v] : d) keys.push_back(k.string());
  EXPECT_EQ(keys, (std::vector<std::string>{"c", "a", "d", "e"}));
  EXPECT_EQ(d.get("d"), Value("d"));  // the index follows the removal
  EXPECT_EQ(d.getString("a", "fallback"), "fallback");

  d.addEntriesFrom(d);  // adding a dictionary to itself changes nothing
  EXPECT_EQ(d.count(), 4u);
}

// Small dictionaries find keys by walking their entries, large ones through
// an index: lookups, replacement and removal agree on both sides of the size
// where one gives way to the other, and through copies.
TEST(Value, DictionaryLookupsHoldAsItGrowsAndShrinks) {
  Dictionary d;
  auto key = [](int i) { return "key" + std::to_string(i); };
  for (int i = 0; i < 40; ++i) {
    d.set(key(i), i);
    for (int j = 0; j <= i; j += 7) ASSERT_EQ(d.get(key(j)), Value(j)) << "after " << i;
    ASSERT_FALSE(d.contains(key(i + 1)));
  }
  d.set(key(3), "three");  // replaced in place
  EXPECT_EQ(d.count(), 40u);
  const Dictionary copied = d.copy();
  const Dictionary deep = d.deepCopy();
  for (int i = 39; i >= 0; i -= 2) d.remove(key(i));
  EXPECT_EQ(d.count(), 20u);
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(d.contains(key(i)), i % 2 == 0) << key(i);
    EXPECT_EQ(copied.contains(key(i)), true);
    EXPECT_EQ(deep.get(key(i)), i == 3 ? Value("three") : Value(i));
  }
  std::vector<std::string> keys;
  for (const auto& [k, v] : d) keys.push_back(k.string());
  EXPECT_EQ(keys.front(), "key0");
  EXPECT_EQ(keys.back(), "key38");

  // Number keys are found by value, whatever their kind, below and above the index.
  for (int size : {3, 30}) {
    Dictionary numbers;
    for (int i = 0; i < size; ++i) numbers.set(Value(i), i);
    EXPECT_EQ(numbers.get(Value(2.0)), Value(2)) << size;
    EXPECT_EQ(numbers.get(Value(true)), Value(1)) << size;
    numbers.set(Value(1.0), "one");
    EXPECT_EQ(numbers.count(), static_cast<std::size_t>(size)) << size;
    EXPECT_EQ(numbers.get(Value(1)), Value("one")) << size;
  }
}

// A key given as text (a literal, a std::string, a string_view) finds the
// entry of the string value with that text and no other, below and above
// the index, and after removals from the middle have moved later entries.
TEST(Value, TextKeysFindStringKeysOnly) {
  for (int size : {4, 15, 16, 17, 40}) {
    Dictionary d;
    for (int i = 0; i < size; ++i) d.set(Value("k" + std::to_string(i)), i);
    d.set(Value(7), "number seven");
    d.set("7", "text seven");
    for (int i = 1; i < size; i += 3) d.remove(std::string_view("k" + std::to_string(i)));
    const std::string seven = "7";
    EXPECT_EQ(d.get(Value(7)), Value("number seven")) << size;
    EXPECT_EQ(d.get(seven), Value("text seven")) << size;
    EXPECT_EQ(d.get(std::string_view(seven)), d.get(Value(seven))) << size;
    for (int i = 0; i < size; ++i) {
      const std::string key = "k" + std::to_string(i);
      const bool kept = i % 3 != 1;
      EXPECT_EQ(d.contains(key.c_str()), kept) << size << " " << key;
      EXPECT_EQ(d.contains(Value(key)), kept) << size << " " << key;
      if (kept) {
        EXPECT_EQ(d.getInteger(key, -1), i) << size << " " << key;
      }
    }
    EXPECT_FALSE(d.contains("")) << size;
  }
}

// A date held in a value reads back as the same date in the same zone;
// copies of the value (and deep copies of its record) compare and hash alike.
TEST(Value, DatesReadBackThroughCopies) {
  const CalendarDate start = CalendarDate::dateWithYear(2026, 3, 29, 2, 30, 0);
  const Dictionary record{{"startDate", Value(start)}, {"summary", "Walk"}};
  const Dictionary deep = record.deepCopy();
  ASSERT_NE(deep.get("startDate").asDate(), nullptr);
  EXPECT_EQ(deep.get("startDate").date(), start);
  EXPECT_EQ(deep.get("startDate").date().description(), start.description());
  EXPECT_EQ(Value(deep), Value(record));
  EXPECT_EQ(Value(deep).hash(), Value(record).hash());
  EXPECT_NE(Value(start.dateByAddingYears(0, 0, 0, 0, 0, 1)), record.get("startDate"));
  EXPECT_THROW(record.get("summary").date(), Exception);
}

TEST(Value, EqualityIgnoresDictionaryOrderAndHashesAgree) {
  Dictionary a{{"x", 1}, {"y", Array{1, "two", Dictionary{{"z", 3.0}}}}};
  Dictionary b{{"y", Array{true, "two", Dictionary{{"z", 3}}}}, {"x", 1.0}};
  EXPECT_EQ(Value(a), Value(b));
  EXPECT_EQ(Value(a).hash(), Value(b).hash());
  b.set("x", 2);
  EXPECT_NE(Value(a), Value(b));

  std::unordered_set<Value> values{Value(1), Value(1.0), Value("1"), Value(Array{1})};
  EXPECT_EQ(values.size(), 3u);
  EXPECT_TRUE(values.contains(Value(Array{true})));
  EXPECT_EQ(Set({3, "a", 3.0}).count(), 2u);
}

TEST(Value, ArrayRangeErrorsAreExceptionsNotCrashes) {
  Array a{1, 2};
  EXPECT_THROW((void)a.at(2), Exception);
  EXPECT_THROW(a.insert(0, 3), Exception);
  EXPECT_THROW(a.removeRange(1, 2), Exception);
  a.insert(0, 2);
  a.remove(Value(1));
  EXPECT_EQ(Value(a), Value(Array{2, 0}));
  EXPECT_EQ(a.indexOf(0), 1u);
  a.addAll(a);
  EXPECT_EQ(a.count(), 4u);
}

TEST(Value, DescriptionsAreReadable) {
  EXPECT_EQ(Value("plain").description(), "plain");
  EXPECT_EQ(Value().description(), "<null>");
  EXPECT_EQ(Value(Data::fromString("abcde")).description(), "<61626364 65>");
  Dictionary d{{"name", "Ann Lee"}, {"list", Array{1, "x"}}, {"empty", Array{}}};
  EXPECT_EQ(d.description(),
            "{\n    name = \"Ann Lee\";\n    list = (\n        1,\n        x\n    );\n    empty = ();\n}");
}

}  // namespace
}  // namespace pc
