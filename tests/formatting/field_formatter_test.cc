// The field formatter of the second description format and the value
// mapping it uses.

#include <gtest/gtest.h>

#include "formatting/EntityFormatterFixture.h"
#include "formatting/QVTSyncMapping.h"
#include "support/LogCapture.h"

namespace pc::test {
namespace {

struct FieldResult {
  Value value;
  bool rejected = false;
};

FieldResult formatWith(const Dictionary& properties, const Value& value,
                       const std::string& field = "note") {
  auto owner = makeEntityFormatter("Test.Entity", std::nullopt, Dictionary{{field, properties}});
  FieldResult result;
  result.value = owner->fieldFormatterForFieldName(field)->formatField(value, &result.rejected);
  return result;
}

Dictionary entry(const Value& original, const Value& mapped) {
  Dictionary d{{"originalValue", original}};
  if (!mapped.isNull()) d.set("mappedValue", mapped);
  return d;
}

TEST(FieldFormatter, CharactersAndLengths) {
  const struct {
    const char* name;
    Dictionary properties;
    Value input, expected;
  } cases[] = {
      {"strip", Dictionary{{"charsToStrip", ";,"}}, "a;b,c", "abc"},
      {"keep alone deletes everything else", Dictionary{{"charsToKeep", "0123456789+"}},
       "+33 (0)1-23", "+330123"},
      {"a character both kept and stripped goes",
       Dictionary{{"charsToKeep", "0123456789"}, {"charsToStrip", "0"}}, "10203", "123"},
      {"replace by a blank, with written line breaks",
       Dictionary{{"charsToReplaceByWSP", "\\r\\n"}}, "a\nb\rc", "a b c"},
      {"trim blanks around", Dictionary{{"charsToTrimWSP", "/"}}, "a  / b /c", "a/b/c"},
      {"blanks around line breaks always go", Dictionary(), "one \n two", "one\ntwo"},
      {"length in UTF-16 units", Dictionary{{"maxLength", 3}}, "h\xC3\xA9llo", "h\xC3\xA9l"},
      {"below 1 means no limit", Dictionary{{"maxLength", 0}}, "abcdef", "abcdef"},
      {"address keeps its kind", Dictionary{{"charsToStrip", " "}}, Value(URL("http://a b")),
       Value(URL("http://ab"))},
      {"default for an absent value", Dictionary{{"defaultValWhenEmpty", "none"}}, Value(),
       "none"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FieldResult result = formatWith(c.properties, c.input);
    EXPECT_FALSE(result.rejected);
    EXPECT_EQ(result.value, c.expected);
  }
}

TEST(FieldFormatter, WrongKindsAreReportedAndPassed) {
  LogCapture log;
  FieldResult result = formatWith(Dictionary{{"charsToStrip", ";"}}, 42);
  EXPECT_EQ(result.value, Value(42));
  EXPECT_TRUE(log.contains("condition \"value is a string or an address\" failed"));
  result = formatWith(Dictionary{{"imageThresholdSize", 10}, {"imageMaxWidth", 4},
                                 {"imageMaxHeight", 4}},
                      "not an image", "image");
  EXPECT_EQ(result.value, Value("not an image"));
  EXPECT_TRUE(log.contains("condition \"value is a byte buffer\" failed"));
}

TEST(FieldFormatter, MappingsRejectTheRecordAndNormaliseValues) {
  const Array mappings{entry("mobile", Array{"CELL", "MOBILE"}), entry("iPhone", "CELL"),
                       entry("home", "HOME"), entry("other", "")};
  const Dictionary properties{{"mappings", mappings}};
  EXPECT_EQ(formatWith(properties, "iPhone").value, Value("mobile"));
  FieldResult fax = formatWith(properties, "fax");
  EXPECT_TRUE(fax.rejected);
  EXPECT_TRUE(fax.value.isNull());
  Dictionary withDefault = properties.copy();
  withDefault.set("defaultValWhenEmpty", "home");
  EXPECT_EQ(formatWith(withDefault, Value()).value, Value("home"));

  QVTSyncMapping mapping;
  mapping.initWithArray(mappings, "other");
  EXPECT_TRUE(mapping.transportValueFromSSValue("other").isNull());
  EXPECT_EQ(mapping.SSValueFomTransportValue("CELL"), Value("mobile"));
  EXPECT_EQ(mapping.SSValueFomTransportValue(""), Value("other"));
  EXPECT_EQ(mapping.allAcceptableValues(), (Array{"mobile", "iPhone", "home", "other"}));

  LogCapture log;
  EXPECT_EQ(mapping.SSValueFomTransportValue("PAGER"), Value("other"));
  EXPECT_TRUE(log.contains(
      "formatting description is incorrect.  Phone sends PAGER.  Will insert other in the "
      "SyncEngine"));
  QVTSyncMapping noDefault;
  noDefault.initWithArray(Array{entry("home", "HOME")}, Value());
  EXPECT_TRUE(noDefault.SSValueFomTransportValue("PAGER").isNull());
  EXPECT_TRUE(log.contains("condition \"we should always provide a non nil attribut in that "
                           "case. PAGER\" failed"));
}

TEST(FieldFormatter, ConstructionFailuresRaiseWhatTheyLog) {
  struct Case {
    const char* name;
    Dictionary properties;
    std::string reason;
  };
  const Case cases[] = {
      {"duplicate engine value",
       Dictionary{{"mappings", Array{entry("home", "H"), entry("home", "X")}}},
       "inconsistent mapping description.  A given Tarn Key should only occur once"},
      {"threshold without height",
       Dictionary{{"imageThresholdSize", 1000}, {"imageMaxWidth", 80}},
       "can't have a positive threshold and a non positive dimension.  Fix the client "
       "formatting description"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    EXPECT_EQ(buildFailure([&] { formatWith(c.properties, Value()); }), c.reason);
    EXPECT_TRUE(log.contains(c.reason));
  }
  LogCapture log;
  auto owner = makeEntityFormatter(
      "Test.Entity", std::nullopt,
      Dictionary{{"f", Dictionary{{"relationshipConstraint", "global"}, {"relationshipSize", 0}}}});
  EXPECT_TRUE(log.contains("this is absurd, fix the plist"));
  auto plain = makeEntityFormatter("Test.Entity", std::nullopt, Dictionary{{"f", Dictionary()}});
  plain->fieldFormatterForFieldName("f")->maxSubRecord();
  EXPECT_TRUE(log.contains("condition \"FilteringMaxPerRecord == _filteringType\" failed"));
}

}  // namespace
}  // namespace pc::test
