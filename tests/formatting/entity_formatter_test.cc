// The entity formatter: building stored calls from description values, the
// order of formatting steps, sub-record admission and rejection.

#include <gtest/gtest.h>

#include "formatting/EntityFormatterFixture.h"
#include "support/LogCapture.h"

namespace pc::test {
namespace {

constexpr const char* kEntity = "Test.Entity";

std::shared_ptr<EntityFormatter> withField(const std::string& field, const Value& description) {
  return makeEntityFormatter(kEntity, Dictionary{{"FieldFormatting", Dictionary{{field, description}}}});
}

Value formattedField(const std::shared_ptr<EntityFormatter>& formatter, const std::string& field,
                     const Value& value) {
  Dictionary record{{field, value}};
  if (value.isNull()) record.remove(field);
  auto answer = formatter->formatRecord(record);
  return answer ? answer->get(field) : Value("<rejected>");
}

TEST(EntityFormatterInvocations, BindConstantsByArgumentKind) {
  const struct {
    const char* name;
    Value description, input, expected;
  } cases[] = {
      {"integer written as a string", Array{"maxLength::", "3"}, "abcdefgh", "abc"},
      {"$variable substituted for an integer", Array{"maxLength::", "$len"}, "abcdefgh", "abcde"},
      {"object argument keeps the text as written", Array{"setFieldToValue::", "$name"}, "x", "$name"},
      {"chain feeds each answer to the next", Array{"removeWhiteSpace:", Array{"maxLength::", 3}}, "a b c d", "abc"},
      {"absent field still reaches its call", Array{"setFieldToValue::", "filled"}, Value(), "filled"},
      {"null answer removes the field", "clearField:", "gone", Value()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(formattedField(withField("f", c.description), "f", c.input), c.expected);
  }
}

TEST(EntityFormatterInvocations, MalformedDescriptionsRaiseWhatTheyLog) {
  const struct {
    const char* name;
    Dictionary description;
    std::string reason;
  } cases[] = {
      {"unknown method", Dictionary{{"FieldFormatting", Dictionary{{"f", "noSuchMethod:"}}}},
       "cannot find method signature for \"-[FormattingMethods noSuchMethod:]\""},
      {"too few elements", Dictionary{{"FieldFormatting", Dictionary{{"f", Array{"maxLength::"}}}}},
       "not enough argument for method maxLength::"},
      {"number as a call", Dictionary{{"RecordFormatting", 3}}, "Not implemented yet"},
      {"number inside a chain", Dictionary{{"RecordFormatting", Array{Array{3}, "clearField:"}}},
       "The object (\n    3\n) does not describe a proper invocation"},
      {"list for an integer argument",
       Dictionary{{"FieldFormatting", Dictionary{{"f", Array{"maxLength::", Array{1}}}}}},
       "argument 2 of method maxLength:: must be a number, not (\n    1\n)"},
      {"unknown class", Dictionary{{"FormatterClass", "NoSuchFormatter"}},
       "cannot find the formatting class NoSuchFormatter"},
      {"MaxNumber zero", Dictionary{{"MaxNumber", 0}},
       "MaxNumber should be strictly positive.  Currently, it is 0"},
      {"filter that does not take two records", Dictionary{{"PreFiltering", Array{"clearField:"}}},
       "not enough argument for method clearField:"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    EXPECT_EQ(buildFailure([&] { makeEntityFormatter(kEntity, c.description); }), c.reason);
    const LogLine* line = log.find(c.reason);
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->level, kLogError);
  }
}

TEST(EntityFormatterInvocations, SubstitutionAndPreFilteringOddities) {
  LogCapture log;
  auto formatter = makeEntityFormatter(
      kEntity, Dictionary{{"MaxNumber", "$max"}, {"PreFiltering", 3}});
  EXPECT_EQ(formatter->maxRecord(), 3);
  EXPECT_TRUE(log.contains("what is it: 3"));

  SimulatedSyncService service(Dictionary{{"x", 7}});
  bool undefined = false;
  EXPECT_EQ(reinterpretValueForService("$y", &service, &undefined), Value("$y"));
  EXPECT_TRUE(undefined);
  EXPECT_TRUE(log.contains("the ivar y is not defined"));
  EXPECT_EQ(reinterpretValueForService(Array{"$x"}, &service), Value(Array{"$x"}));
}

TEST(EntityFormatterRecords, StepsRunInOrderAndOnlySupportedKeysRemain) {
  auto formatter = makeEntityFormatter(
      kContactsContact,
      Dictionary{{"FieldFormatting", Dictionary{{"firstName", Array{"maxLength::", 5}}}}},
      Dictionary{{"lastName", Dictionary{{"charsToStrip", ";"}, {"maxLength", 4}}}},
      Array{"firstName", "lastName"});
  auto helper = std::make_shared<RecordingHelper>();
  formatter->setHelper(helper);
  formatter->setHelper(helper);
  EXPECT_EQ(helper->calls, std::vector<std::string>{"willBeUsed"});

  Dictionary record{{"firstName", "  Alexander"}, {"lastName", "Ka;hn;er"}, {"secret", "x"}};
  auto answer = formatter->formatRecord(record);
  ASSERT_TRUE(answer);
  // The field call cuts first; the standard contact formatting trims after.
  EXPECT_EQ(answer->get("firstName"), Value("Ale"));
  EXPECT_EQ(answer->get("lastName"), Value("Kahn"));
  EXPECT_FALSE(answer->contains("secret"));
  EXPECT_EQ(helper->calls.back(), "formatRecord");

  helper->rejectAll = true;
  EXPECT_FALSE(formatter->formatRecord(Dictionary{{"firstName", "A"}}));
  EXPECT_EQ(formatter->lastRejectionReason(), "the data-class helper dropped the record");
}

TEST(EntityFormatterRecords, RejectionsNameTheirCause) {
  const Dictionary mapping{{"mappings", Array{Dictionary{{"originalValue", "home"},
                                                           {"mappedValue", "H"}}}}};
  auto formatter = makeEntityFormatter(kEntity, std::nullopt,
                                       Dictionary{{"a", Dictionary{{"maxLength", 2}}}, {"type", mapping}});
  LogCapture log;
  EXPECT_FALSE(formatter->formatRecord(Dictionary{{"a", "long"}, {"type", "fax"}}));
  EXPECT_EQ(formatter->lastRejectionReason(),
            "the value fax of \"type\" is not one the phone accepts");
  EXPECT_TRUE(log.contains("Somehow, the record has been rejected"));
  auto kept = formatter->formatRecord(Dictionary{{"a", "long"}, {"type", "home"}});
  ASSERT_TRUE(kept);
  EXPECT_TRUE(formatter->lastRejectionReason().empty());

  auto dropping = makeEntityFormatter(kEntity, Dictionary{{"RecordFormatting", "clearField:"}});
  EXPECT_FALSE(dropping->formatRecord(Dictionary{{"a", 1}}));
  EXPECT_NE(dropping->lastRejectionReason().find("clearField:"), std::string::npos);
}

TEST(EntityFormatterSubRecords, PerSubTypeKeepsTheFirstOfEachAcceptableType) {
  const Dictionary type{
      {"relationshipConstraint", "perSubType"},
      {"mappings", Array{Dictionary{{"originalValue", "home"}, {"mappedValue", "HOME"}},
                         Dictionary{{"originalValue", "work"}, {"mappedValue", "WORK"}}}}};
  auto formatter = makeEntityFormatter(kContactsPhoneNumber, std::nullopt,
                                       Dictionary{{"type", type}});
  Dictionary master{{"firstName", "Ann"}};
  Dictionary types;
  std::vector<std::string> kept;
  LogCapture log;
  for (const char* offered : {"home", "home", "work", "fax"}) {
    Dictionary sub{{"type", offered}, {"value", std::string("555-") + offered}};
    Value effective;
    if (auto answer = formatter->canAppendAndFormatSubRecord(sub, master, types, &effective))
      kept.push_back(answer->getString("value"));
  }
  EXPECT_EQ(kept, (std::vector<std::string>{"555-home", "555-work"}));
  EXPECT_EQ(types, (Dictionary{{"home", 1}, {"work", 1}}));
}

TEST(EntityFormatterSubRecords, LimitsPerTypeFromTheFirstFormat) {
  auto formatter = makeEntityFormatter(
      kContactsPhoneNumber,
      Dictionary{{"TypeKey", "type"},
                 {"MaxNumber", 4},
                 {"MaxNumberPerType", Dictionary{{"mobile", 2}, {"pager", 0}}},
                 {"PreFiltering", Array{"dropAlarmInThePast:alarm:"}}});
  Dictionary types;
  auto offer = [&](const Value& type) {
    Dictionary sub{{"value", "1"}};
    if (!type.isNull()) sub.set("type", type);
    return formatter->canAppendAndFormatSubRecord(sub, Dictionary(), types, nullptr).has_value();
  };
  LogCapture log;
  EXPECT_TRUE(offer("mobile"));
  EXPECT_TRUE(offer("mobile"));
  EXPECT_FALSE(offer("mobile"));
  EXPECT_FALSE(offer("pager"));
  EXPECT_TRUE(log.contains("hum, plist may be incorrect"));
  EXPECT_FALSE(offer(Value()));
  EXPECT_TRUE(log.contains("record {\n    value = 1;\n} has no type value"));
}

TEST(EntityFormatterRecords, AssembledRecordsGoThroughGlobalFormattingThenTheHelper) {
  auto formatter = makeEntityFormatter(
      kCalendarsEvent, Dictionary{{"GlobalFormatting", "setTimedDueDate:"}}, std::nullopt);
  auto helper = std::make_shared<RecordingHelper>();
  formatter->setHelper(helper);
  Dictionary record{{"summary", "x"}};
  formatter->formatAssembledRecord(record);
  EXPECT_EQ(record.get("assembled"), Value(true));
  EXPECT_EQ(helper->calls.back(), "formatAssembledRecord");
}

}  // namespace
}  // namespace pc::test
