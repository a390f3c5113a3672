// Contacts on their way to a phone and back: mangled by the contact
// transformer, formatted by the phone's entity formatters, written to a
// simulated phone in the phone's own values, read back and unmangled.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "engine/SchemaNames.h"
#include "host/DeviceFormatting.h"
#include "formatting/EntityFormatter.h"
#include "formatting/ExamplePhones.h"
#include "formatting/FormattingKeys.h"
#include "formatting/TestImages.h"
#include "host/ReferenceHost.h"
#include "platform/Registry.h"
#include "platform/Strings.h"
#include "support/LogCapture.h"
#include "transformers/QVTSyncContactTransformer.h"

namespace pc::test {
namespace {

using Strings = std::vector<std::string>;

Dictionary limit(int maxLength) { return Dictionary{{"maxLength", maxLength}}; }

// One phone, its contacts helper, and a simulated phone that stores what it
// is sent.
class ContactPhone {
 public:
  ContactPhone(const Dictionary& description, const Dictionary& entities,
               const DeviceFormattingOptions& options)
      : _formatting(DeviceFormatting::phoneSide(description, entities, options)) {
    if (auto contacts = _formatting->formatterForEntity(kContactsContact))
      _helper = std::dynamic_pointer_cast<QVTSyncContactTransformer>(contacts->helper());
    EXPECT_TRUE(_helper) << "the phone's contacts have no contact transformer";
  }
  // A contacts-only phone with names, company, numbers, e-mail, addresses and
  // URLs, with the given contacts properties and field formatting.
  ContactPhone(const Dictionary& properties, const Dictionary& formatting)
      : ContactPhone(modelDescription(properties, formatting), modelEntities(), {}) {}
  static ContactPhone example(const std::string& name) {
    const testing::ExamplePhone phone = testing::loadExamplePhone(name);
    return ContactPhone(phone.description, phone.entities, phone.options);
  }

  QVTSyncContactTransformer& helper() { return *_helper; }

  // Mangled and formatted as the phone will hold it; nullopt when rejected.
  std::optional<Dictionary> format(const Dictionary& contact) {
    RecordHolder holder(contact);
    _helper->mangleRecordBeforePushingToDevice(holder);
    return _formatting->formatRecord(holder.mutableDictionary()).record;
  }

  // Formatted, written to the phone in its own values, read back and
  // unmangled: the engine's contact as the phone gives it back.
  std::optional<Dictionary> roundTrip(const Dictionary& contact) {
    std::optional<Dictionary> formatted = format(contact);
    if (!formatted) return std::nullopt;
    toPhoneValues(*formatted, kContactsContact);
    for (const auto& [relation, entity] :
         _helper->relationKeysToSubEntitiesForMasterEntity(kContactsContact))
      if (std::optional<Array> list = formatted->getArray(relation))
        for (const Value& element : *list)
          if (std::optional<Dictionary> sub = element.asDictionary())
            toPhoneValues(*sub, entity.stringValue());

    PropertyListParser parser;
    _phone.receiveData(kContacts, parser.dataFromRecords(Array{*formatted}));
    std::optional<Array> read = parser.recordsFromData(_phone.sendData(kContacts));
    if (!read || read->count() != 1 || !read->first().isDictionary()) {
      ADD_FAILURE() << "the phone did not give the contact back";
      return std::nullopt;
    }
    RecordHolder back(read->first().dictionary());
    _helper->unmangleRecordAfterReadingFromDevice(back);
    return back.mutableDictionary();
  }

 private:
  static Dictionary modelDescription(const Dictionary& properties, const Dictionary& formatting) {
    Dictionary contacts = properties.deepCopy();
    contacts.set("MimeType", "text/x-vcard");
    contacts.set("Parser", "PropertyListParser");
    return Dictionary{{"SyncDataClasses", Dictionary{{"Contacts", contacts}}},
                      {"Formatting", formatting.deepCopy()}};
  }
  static Dictionary modelEntities() {
    const Array numberKeys{"value", "type", "label", "contact"};
    return Dictionary{
        {"Entities",
         Dictionary{{kContactsContact, Array{"firstName", "lastName", "companyName", "birthday", "image",
                                             "phoneNumbers", "emailAddresses", "streetAddresses", "urls",
                                             "notes"}},
                    {kContactsPhoneNumber, numberKeys},
                    {kContactsEmailAddress, numberKeys},
                    {kContactsStreetAddress,
                     Array{"street", "city", "state", "postalCode", "country", "type", "contact"}},
                    {kContactsURL, numberKeys}}}};
  }

  // What the phone's parser writes: each mapped field in the phone's value.
  void toPhoneValues(Dictionary& record, const std::string& entity) {
    auto formatter = _formatting->formatterForEntity(entity);
    if (!formatter) return;
    for (const Value& key : record.keys())
      if (QVTSyncMappingPtr mapping = formatter->mapperForFieldName(key.stringValue())) {
        const Value phoneValue = mapping->transportValueFromSSValue(record.get(key));
        if (phoneValue.isNull()) record.remove(key);
        else record.set(key, phoneValue);
      }
  }

  std::unique_ptr<DeviceFormatting> _formatting;
  std::shared_ptr<QVTSyncContactTransformer> _helper;
  SimulatedPhone _phone{"contact-phone"};
};

Dictionary subRecord(const char* entity, std::initializer_list<Dictionary::Entry> entries) {
  Dictionary record{{kEngineRecordEntityNameKey, entity}};
  for (const auto& entry : entries) record.set(entry.first, entry.second);
  return record;
}
Dictionary contact(std::initializer_list<Dictionary::Entry> entries) {
  return subRecord(kContactsContact, entries);
}
Dictionary number(const Value& value, const char* type) {
  return subRecord(kContactsPhoneNumber, {{"value", value}, {"type", type}});
}

// A value as the tables write it: its text, "<none>" for null.
std::string textOf(const Value& value) {
  if (value.isNull()) return "<none>";
  if (const std::string* string = value.asString()) return *string;
  if (const URL* url = value.asURL()) return url->absoluteString();
  return value.description();
}

// The `key` of each sub-record of `relation`, in order.
Strings column(const std::optional<Dictionary>& record, const char* relation, const char* key) {
  Strings values;
  if (!record) return values;
  for (const Value& element : record->getArray(relation).value_or(Array()))
    if (auto sub = element.asDictionary()) values.push_back(textOf(sub->get(key)));
  return values;
}

std::string text(const std::optional<Dictionary>& record, const char* key) {
  return record ? record->getString(key, "<none>") : std::string("<rejected>");
}

bool isUTF16Prefix(const std::string& part, const std::string& whole) {
  return isValidUTF8(part) && hasPrefix(whole, part);
}

const Dictionary kFirstNameOnly{{kContactsContact, Dictionary{{"firstName", limit(20)}}}};

TEST(ContactTransformerTest, CapabilitiesOfTheWrongKindAreLoggedAndLeaveWhatWasSet) {
  auto made = ClassRegistry::createAs<QVTSyncContactTransformer>("QVTSyncContactTransformer");
  ASSERT_TRUE(made);
  LogCapture log;
  made->initWithProperties(Dictionary{{"nokiaSeries40ContactMaxDetails", 4},
                                      {"defaultBirthday", "1970-01-01"},
                                      {"sizeNameField", 20},
                                      {"noNewLines", "YES"},
                                      {"favouriteColour", "blue"}});
  made->initWithProperties(Dictionary{{"defaultBirthday", Array{"1970"}},
                                      {"nokiaSeries40ContactMaxDetails", "many"},
                                      {"sizeNameField", "wide"}});
  EXPECT_EQ(made->nokiaSeries40ContactMaxDetails(), Value(4));
  EXPECT_EQ(made->defaultBirthday(), "1970-01-01");
  EXPECT_EQ(made->sizeNameField(), 20);
  EXPECT_TRUE(made->noNewLines()) << "the base's keys reach the subclass";
  for (const char* line : {"ignored: favouriteColour -> blue", "ignored: sizeNameField -> wide",
                           "ignored: nokiaSeries40ContactMaxDetails -> many"})
    EXPECT_TRUE(log.contains(line)) << line;
}

TEST(ContactTransformerTest, NamesAreCutInUTF16UnitsWithoutSplittingACharacter) {
  ContactPhone phone(Dictionary{{"needsLFCount2X", false}},
                     Dictionary{{kContactsContact, Dictionary{{"firstName", limit(5)},
                                                              {"lastName", limit(6)},
                                                              {"companyName", limit(8)}}}});
  const struct {
    const char* script;
    std::string first, last, expectedFirst, expectedLast;
  } cases[] = {
      {"Latin", "Amélie", "Poulain", "Améli", "Poulai"},
      // Decomposed: the accent is a unit of its own and stays with its letter.
      {"Latin, combining accent", "Ame\u0301lie", "Rene\u0301e", "Ame\u0301l", "Rene\u0301e"},
      {"Greek", "Αλέξανδρος", "Παππάς", "Αλέξα", "Παππάς"},
      {"Cyrillic", "Владимир", "Набоков", "Влади", "Набоко"},
      {"Arabic", "محمد", "عبدالله", "محمد", "عبدالل"},
      {"Chinese", "诸葛亮孔明先生", "司马", "诸葛亮孔明", "司马"},
      // Two units each: a cut at an odd count keeps the whole characters before it.
      {"emoji", "😀😀😀", "a🎉🎉🎉", "😀😀", "a🎉🎉"},
      {"supplementary ideographs", "𠀋𠀋𠀋", "𪚥x", "𠀋𠀋", "𪚥x"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    const auto back = phone.roundTrip(contact({{"firstName", c.first}, {"lastName", c.last}}));
    ASSERT_TRUE(back);
    EXPECT_EQ(text(back, "firstName"), c.expectedFirst);
    EXPECT_EQ(text(back, "lastName"), c.expectedLast);
  }
}

// Every example contact on a seven-bit phone with short names, and on a phone
// that keeps everything up to 64 units.
TEST(ContactTransformerTest, ASevenBitPhoneAndAPhoneThatKeepsEverything) {
  ContactPhone basic = ContactPhone::example("basic-phone");
  ContactPhone full = ContactPhone::example("full-phone");
  int contacts = 0;
  for (const testing::ExampleRecord& example : testing::exampleRecords()) {
    if (example.record.getString(kEngineRecordEntityNameKey) != kContactsContact) continue;
    SCOPED_TRACE(example.path);
    ++contacts;
    const auto narrow = basic.roundTrip(example.record);
    ASSERT_TRUE(narrow);
    for (const char* key : {"firstName", "lastName"}) {
      const std::string name = narrow->getString(key);
      for (unsigned char c : name) EXPECT_LT(c, 0x80) << key << ": " << name;
      EXPECT_LE(utf16Length(name), key == std::string("firstName") ? 12u : 16u);
    }
    EXPECT_FALSE(narrow->contains("companyName"));

    const auto wide = full.roundTrip(example.record);
    ASSERT_TRUE(wide);
    for (const char* key : {"firstName", "middleName", "lastName", "companyName", "jobTitle"}) {
      const std::string name = example.record.getString(key);
      if (utf16Length(name) <= 64) EXPECT_EQ(wide->getString(key), name) << key;
      else EXPECT_TRUE(isUTF16Prefix(wide->getString(key), name)) << key;
    }
  }
  EXPECT_GE(contacts, 40);
}

TEST(ContactTransformerTest, APhoneWithOneNameFieldSharesTheLastNameFormatter) {
  ContactPhone phone(Dictionary{{"needsLFCount2X", false}},
                     Dictionary{{kContactsContact, Dictionary{{"lastName", limit(10)}}}});
  const struct {
    Dictionary input;
    std::string first, last;
  } cases[] = {
      {contact({{"firstName", "Alexandra"}, {"lastName", "Papadopoulou"}}), "Alex", "Papad"},
      {contact({{"firstName", ""}, {"lastName", ""}}), "-", "-"},
      // The company fills the empty name, blanks made hyphens, then both fit in 10.
      {contact({{"companyName", "Acme Corp"}}), "Acme-Cor", "-"},
      {contact({{"firstName", "Zoë"}, {"companyName", "Acme"}}), "Zoë", "-"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input.description());
    const auto formatted = phone.format(c.input);
    ASSERT_TRUE(formatted);
    EXPECT_EQ(text(formatted, "firstName"), c.first);
    EXPECT_EQ(text(formatted, "lastName"), c.last);
    EXPECT_FALSE(formatted->contains("companyName"));
  }
}

TEST(ContactTransformerTest, MissingFormattersAreLoggedAndNothingIsCut) {
  LogCapture log;
  ContactPhone phone(Dictionary{{"needsFullAddressInStreetField", true}},
                     Dictionary{{kContactsContact, Dictionary{{"notes", limit(10)}}},
                                {kContactsStreetAddress, Dictionary{{"city", limit(9)}}}});
  for (const char* field : {"last name", "first name", "street field"})
    EXPECT_TRUE(log.contains(std::string("there must be a fieldFormatter for the ") + field)) << field;
  const auto formatted = phone.format(contact(
      {{"firstName", "Wolfgang Amadeus"},
       {"streetAddresses", Array{subRecord(kContactsStreetAddress, {{"city", "Salzburg"}})}}}));
  ASSERT_TRUE(formatted);
  EXPECT_EQ(text(formatted, "firstName"), "Wolfgang Amadeus");
  EXPECT_EQ(text(formatted, "lastName"), "-");
  EXPECT_EQ(column(formatted, "streetAddresses", "city").size(), 1u);
}

TEST(ContactTransformerTest, TheCompanyTakesTheNamePlaceOnPhonesWithoutACompanyField) {
  ContactPhone basic = ContactPhone::example("basic-phone");
  ContactPhone full = ContactPhone::example("full-phone");
  const struct {
    Dictionary input;
    std::string basicFirst, basicLast, fullCompany;
  } cases[] = {
      {contact({{"companyName", "Pizzeria Bella Napoli"}}), "Pizzeria Bel", "<none>",
       "Pizzeria Bella Napoli"},
      {contact({{"companyName", "Café Noir"}, {"lastName", "Durand"}}), "<none>", "Durand",
       "Café Noir"},
      {contact({{"companyName", "   "}, {"jobTitle", "Teller"}}), "<none>", "<none>", "<none>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input.description());
    const auto narrow = basic.roundTrip(c.input);
    ASSERT_TRUE(narrow);
    EXPECT_EQ(text(narrow, "firstName"), c.basicFirst);
    EXPECT_EQ(text(narrow, "lastName"), c.basicLast);
    EXPECT_FALSE(narrow->contains("companyName"));

    const auto wide = full.roundTrip(c.input);
    ASSERT_TRUE(wide);
    EXPECT_EQ(text(wide, "companyName"), c.fullCompany);
    EXPECT_EQ(wide->get("jobTitle"), c.input.get("jobTitle"));
    EXPECT_EQ(wide->get("firstName"), c.input.get("firstName"));
  }
}

// Sub-records as the phone gives them back: numbers cleaned, whole addresses
// folded into the street, invalid e-mail addresses removed.
TEST(ContactTransformerTest, SubRecordsAreCleanedForThePhone) {
  const auto withNumbers = [](const Strings& values) {
    Array numbers;
    for (const std::string& value : values) numbers.add(number(value, "mobile"));
    return contact({{"firstName", "Ann"}, {"phoneNumbers", numbers}});
  };
  const Dictionary keepAll{{kContactsContact, Dictionary{{"firstName", limit(20)}}},
                           {kContactsPhoneNumber, Dictionary{{"value", limit(30)}}}};
  const Dictionary digitsOnly{
      {kContactsContact, Dictionary{{"firstName", limit(20)}}},
      {kContactsPhoneNumber, Dictionary{{"value", Dictionary{{"maxLength", 30}, {"charsToKeep", "0123456789+*#"}}}}}};
  const Dictionary addressFields{
      {kContactsContact, Dictionary{{"firstName", limit(20)}, {"lastName", limit(20)}}},
      {kContactsStreetAddress, Dictionary{{"street", limit(40)}, {"city", limit(20)}}}};
  const Dictionary addresses = contact(
      {{"lastName", "Holmes"},
       {"streetAddresses",
        Array{subRecord(kContactsStreetAddress, {{"street", "1 Main St"}, {"city", "Springfield"},
                                                 {"postalCode", "12345"}, {"country", "USA"}, {"type", "home"}}),
              subRecord(kContactsStreetAddress, {{"city", "Αθήνα"}, {"country", "Ελλάδα"}, {"type", "work"}}),
              subRecord(kContactsStreetAddress, {{"street", "Flat 12, 221B Baker Street"}, {"city", "London"},
                                                 {"postalCode", "NW1 6XE"}, {"country", "United Kingdom"}})}}});
  const Dictionary folded{{"needsFullAddressInStreetField", true}};
  const Strings allMail{"ann@example.org", "ann@localhost", "ann@b@example.org", "not an address", "ann.example.org@"};
  Array emails;
  for (const std::string& value : allMail)
    emails.add(subRecord(kContactsEmailAddress, {{"value", value}}));
  emails.add(subRecord(kContactsEmailAddress, {{"value", 42}}));
  const Dictionary mail = contact({{"firstName", "Ann"}, {"emailAddresses", emails}});

  const struct {
    const char* name;
    const char* example;  // a shipped phone, or nullptr for the properties and formatting given
    Dictionary properties, formatting, input;
    const char* relation;
    const char* key;
    Strings expected;
  } cases[] = {
      {"letters become keypad digits", nullptr, Dictionary(), digitsOnly,
       withNumbers({"1-800-FLOWERS", "+44 20 7946 0958", "+"}), "phoneNumbers", "value",
       {"18003569377", "+442079460958"}},
      {"letters kept as letters are dropped by the phone", nullptr,
       Dictionary{{"shouldReplaceCapitalLettersInPhoneNumbers", false}}, digitsOnly, withNumbers({"1-800-FLOWERS"}),
       "phoneNumbers", "value", {"1800"}},
      {"a plus before anything but digits goes", nullptr, Dictionary{{"noPlusCharIfAtLeastOneNonDigitChar", true}},
       keepAll, withNumbers({"+49 30 901820", "+4930901820", "+1 (555) CALL-NOW", "+"}), "phoneNumbers", "value",
       {"49 30 901820", "+4930901820", "1 (555) 2255-669"}},
      {"the plus stays without the capability", nullptr, Dictionary(), keepAll, withNumbers({"+49 30 901820"}),
       "phoneNumbers", "value", {"+49 30 901820"}},
      {"address parts joined by line feeds, each counted twice", nullptr, folded, addressFields, addresses,
       "streetAddresses", "street",
       {"1 Main St\nSpringfield\n12345\nUSA", "Αθήνα\nΕλλάδα", "Flat 12, 221B Baker Street\nLondon\nNW1"}},
      {"the folded parts are removed", nullptr, folded, addressFields, addresses, "streetAddresses", "city",
       {"<none>", "<none>", "<none>"}},
      {"address parts joined by blanks on a phone without new lines", nullptr,
       Dictionary{{"needsFullAddressInStreetField", true}, {"noNewLines", true}}, addressFields, addresses,
       "streetAddresses", "street",
       {"1 Main St Springfield 12345 USA", "Αθήνα Ελλάδα", "Flat 12, 221B Baker Street London NW1 6X"}},
      {"address parts kept apart", nullptr, Dictionary(), addressFields, addresses, "streetAddresses", "street",
       {"1 Main St", "<none>", "Flat 12, 221B Baker Street"}},
      // The phone's store gives the types back, the engine's default for none.
      {"address types", nullptr, folded, addressFields, addresses, "streetAddresses", "type",
       {"home", "work", "other"}},
      {"invalid e-mail addresses removed", "full-phone", {}, {}, mail, "emailAddresses", "value", {"ann@example.org"}},
      {"e-mail type default", "full-phone", {}, {}, mail, "emailAddresses", "type", {"other"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ContactPhone phone = c.example ? ContactPhone::example(c.example) : ContactPhone(c.properties, c.formatting);
    EXPECT_EQ(column(phone.roundTrip(c.input), c.relation, c.key), c.expected);
  }

  // A phone that does not ask keeps every e-mail address.
  Strings kept = column(ContactPhone(Dictionary(), kFirstNameOnly).format(mail), "emailAddresses", "value");
  ASSERT_GE(kept.size(), allMail.size());
  kept.resize(allMail.size());
  EXPECT_EQ(kept, allMail);
}

TEST(ContactTransformerTest, NumberTypesGoThroughThePhoneValuesAndBack) {
  ContactPhone basic = ContactPhone::example("basic-phone");
  const Dictionary input = contact(
      {{"firstName", "Ann"},
       {"phoneNumbers", Array{number("111", "mobile"), number("222", "home"), number("333", "work"),
                              subRecord(kContactsPhoneNumber, {{"value", "444"}})}}});
  const auto formatted = basic.format(input);
  const auto back = basic.roundTrip(input);
  ASSERT_TRUE(formatted && back);
  EXPECT_EQ(column(back, "phoneNumbers", "value"), column(formatted, "phoneNumbers", "value"));
  // Stored as "M", "H", "W": read back as the engine's types.
  const Strings types = column(back, "phoneNumbers", "type");
  ASSERT_GE(types.size(), 3u);
  EXPECT_EQ(Strings(types.begin(), types.begin() + 3), (Strings{"mobile", "home", "work"}));

  // Unmangling what is already the engine's changes nothing.
  RecordHolder again(*back);
  basic.helper().unmangleRecordAfterReadingFromDevice(again);
  EXPECT_EQ(again.mutableDictionary(), *back);
}

TEST(ContactTransformerTest, SubRecordsSortByTypePriority) {
  QVTSyncContactTransformer helper;
  // Records "1", "2", ... of `entity` with these types.
  auto records = [](const char* entity, std::vector<const char*> types) {
    Dictionary byId;
    for (std::size_t i = 0; i < types.size(); ++i)
      byId.set(std::to_string(i + 1), subRecord(entity, {{"type", types[i]}}));
    return byId;
  };
  const struct {
    const char* name;
    const char* entity;
    std::vector<const char*> types;
    Array identifiers, sorted;
  } cases[] = {
      {"every phone type, reversed", kContactsPhoneNumber,
       {"other", "main", "home fax", "work fax", "pager", "home", "work", "mobile"},
       Array{"1", "2", "3", "4", "5", "6", "7", "8"}, Array{"8", "7", "6", "5", "4", "3", "2", "1"}},
      {"unknown types after known ones, in their order", kContactsPhoneNumber,
       {"car", "other", "boat", "work"}, Array{"1", "2", "3", "4"}, Array{"4", "2", "1", "3"}},
      {"e-mail addresses", kContactsEmailAddress, {"other", "work", "home"}, Array{"1", "2", "3"},
       Array{"2", "3", "1"}},
      {"URLs", kContactsURL, {"work", "home page"}, Array{"1", "2"}, Array{"2", "1"}},
      {"other entities are not sorted", kContactsIM, {"other", "home"}, Array{"1", "2"}, Array{"1", "2"}},
      {"a count that differs leaves the order", kContactsPhoneNumber, {"home", "mobile"},
       Array{"1", "2", "x"}, Array{"1", "2", "x"}},
      {"a missing record compares equal", kContactsPhoneNumber, {"home", "mobile", "work"},
       Array{"1", "x", "2"}, Array{"1", "x", "2"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Array identifiers = c.identifiers.copy();
    helper.sortRelation("r", identifiers, records(c.entity, c.types), c.entity);
    EXPECT_EQ(identifiers, c.sorted);
  }
}

TEST(ContactTransformerTest, DetailsAreLimitedOnPhonesThatCountThem) {
  const Dictionary formatting{{kContactsContact, Dictionary{{"firstName", limit(20)}}},
                              {kContactsStreetAddress, Dictionary{{"street", limit(60)}}}};
  Array emails, urls, addresses;
  for (int i = 0; i < 3; ++i) {
    emails.add(subRecord(kContactsEmailAddress, {{"value", fmt::format("a{}@b.org", i)}}));
    urls.add(subRecord(kContactsURL, {{"value", fmt::format("http://b.org/{}", i)}}));
    addresses.add(subRecord(kContactsStreetAddress, {{"street", fmt::format("{} Main St", i)}}));
  }
  const Dictionary input = contact({{"firstName", "Ann"}, {"notes", "met at the fair"},
                                    {"emailAddresses", emails}, {"urls", urls}, {"streetAddresses", addresses}});
  const struct {
    Dictionary properties;
    std::size_t emails, urls, addresses;
  } cases[] = {
      {Dictionary{{"nokiaSeries40ContactMaxDetails", 5}}, 2, 2, 3},
      {Dictionary{{"nokiaSeries40ContactMaxDetails", 5}, {"needsFullAddressInStreetField", true}}, 2, 1, 1},
      {Dictionary{{"nokiaSeries40ContactMaxDetails", 0}}, 3, 3, 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.properties.description());
    const auto formatted = ContactPhone(c.properties, formatting).format(input);
    ASSERT_TRUE(formatted);
    EXPECT_EQ(column(formatted, "emailAddresses", "value").size(), c.emails);
    EXPECT_EQ(column(formatted, "urls", "value").size(), c.urls);
    EXPECT_EQ(column(formatted, "streetAddresses", "street").size(), c.addresses);
  }
}

TEST(ContactTransformerTest, BadSubRecordsAreLoggedAndDroppedAndTheContactKept) {
  ContactPhone phone = ContactPhone::example("full-phone");
  LogCapture log;
  const auto back = phone.roundTrip(contact(
      {{"firstName", "Ann"},
       {"phoneNumbers", Array{number(Dictionary{{"digits", "123"}}, "mobile"), number("555", "work"),
                              number(Array{"1"}, "home")}},
       {"streetAddresses", Array{subRecord(kContactsStreetAddress, {{"city", "Oslo"}})}},
       {"birthday", "next tuesday"}}));
  ASSERT_TRUE(back);
  EXPECT_EQ(column(back, "phoneNumbers", "value"), (Strings{"555"}));
  EXPECT_EQ(column(back, "streetAddresses", "city"), (Strings{"Oslo"}));
  EXPECT_FALSE(back->contains("birthday"));
  EXPECT_TRUE(log.contains("birthday is not a date, removed: next tuesday"));
}

TEST(ContactTransformerTest, URLsWithoutASchemeGetTheDefaultOne) {
  const struct {
    Value in;
    std::string out;
  } cases[] = {
      {URL("host.example:8080/path"), "http://host.example:8080/path"},
      {Value("www.example.org"), "http://www.example.org"},
      {URL("mailto:ann@example.org"), "mailto:ann@example.org"},
      {Value("ftp://files.example.org"), "ftp://files.example.org"},
      // Not a URL even with a scheme: kept as it is.
      {Value("my home page"), "my home page"},
  };
  Array urls;
  for (const auto& c : cases) urls.add(subRecord(kContactsURL, {{"value", c.in}, {"type", "work"}}));
  const auto back = ContactPhone::example("full-phone").roundTrip(contact({{"firstName", "Ann"}, {"urls", urls}}));
  ASSERT_TRUE(back);
  const Array stored = back->getArray("urls").value_or(Array());
  ASSERT_EQ(stored.count(), std::size(cases));
  for (std::size_t i = 0; i < stored.count(); ++i) {
    const Value value = stored[i].dictionary().get("value");
    EXPECT_EQ(textOf(value), cases[i].out);
    EXPECT_EQ(value.kind(), cases[i].in.kind()) << "the kind of the value is kept";
  }
  QVTSyncContactTransformer noDefault;
  EXPECT_EQ(noDefault.formatURLValue(Value("example.net")), Value("example.net"));
}

TEST(ContactTransformerTest, ContactsWithoutABirthdayGetTheDefaultAtNoonGMT) {
  const struct {
    const char* name;
    Value defaultBirthday;
    Value birthday;
    std::string expected;  // "%Y-%m-%d %H:%M:%S" in GMT, or "<none>"
  } cases[] = {
      {"the default for none", "1970-01-01", Value(), "1970-01-01 12:00:00"},
      {"a birthday kept", "1970-01-01", CalendarDate::dateWithYear(1984, 2, 29, 12, 0, 0), "1984-02-29 12:00:00"},
      {"a text birthday in the default's form read as a date", Value(), "1999-12-31", "1999-12-31 12:00:00"},
      {"an unreadable birthday removed, then the default", "2000-06-15", "31/12/1999", "2000-06-15 12:00:00"},
      {"an unreadable default ignored", "01/01/1970", Value(), "<none>"},
      {"an impossible default ignored", "1970-02-30", Value(), "<none>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Dictionary properties;
    if (!c.defaultBirthday.isNull()) properties.set("defaultBirthday", c.defaultBirthday);
    Dictionary input = contact({{"firstName", "Ann"}});
    if (!c.birthday.isNull()) input.set("birthday", c.birthday);
    const auto back = ContactPhone(properties, kFirstNameOnly).roundTrip(input);
    ASSERT_TRUE(back);
    const Value birthday = back->get("birthday");
    EXPECT_EQ(birthday.isDate() ? birthday.date()
                                      .dateWithTimeZone(TimeZone::timeZoneWithName("GMT"))
                                      .descriptionWithCalendarFormat("%Y-%m-%d %H:%M:%S")
                                : std::string("<none>"),
              c.expected);
  }
}

TEST(ContactTransformerTest, PhotosAreReducedToWhatThePhoneTakes) {
  const Data small = makeImage(40, 50, "jpeg");
  const Data large = makeImage(900, 1200, "jpeg", false, "100");
  const Data corrupt = Data::fromString(std::string(20000, 'x'));
  ASSERT_GT(large.length(), 65536u);
  ASSERT_LT(small.length(), 8192u);
  struct Case {
    const char* phone;
    int threshold, width, height;
  };
  for (const Case& c : {Case{"photo-phone", 8192, 120, 160}, Case{"full-phone", 65536, 480, 640}}) {
    SCOPED_TRACE(c.phone);
    ContactPhone phone = ContactPhone::example(c.phone);
    for (const Data& photo : {small, large, corrupt}) {
      const auto back = phone.roundTrip(contact({{"firstName", "Ann"}, {"image", photo}}));
      ASSERT_TRUE(back);
      const Value image = back->get("image");
      ASSERT_TRUE(image.isData());
      if (photo.length() <= static_cast<std::size_t>(c.threshold) || photo.length() == corrupt.length()) {
        EXPECT_EQ(image.data(), photo);
        continue;
      }
      EXPECT_LE(image.data().length(), static_cast<std::size_t>(c.threshold));
      const Size size = decodedSize(image);
      EXPECT_GT(size.width, 0);
      EXPECT_LE(size.width, c.width);
      EXPECT_LE(size.height, c.height);
    }
  }
  const auto none = ContactPhone::example("basic-phone").roundTrip(contact({{"firstName", "Ann"}, {"image", large}}));
  ASSERT_TRUE(none);
  EXPECT_FALSE(none->contains("image"));
}

TEST(ContactTransformerTest, TheAssemblerIsAnsweredThroughTheContactManager) {
  auto helper = ClassRegistry::createAs<QVTSyncContactTransformer>("QVTSyncContactTransformer");
  ContactManager manager;
  EXPECT_TRUE(manager.masterRelationKeysForMasterEntity(kContactsContact).empty());
  EXPECT_TRUE(manager.setAssemblerDelegate(helper));
  EXPECT_FALSE(ContactManager().setAssemblerDelegate(std::make_shared<PropertyListParser>()));

  EXPECT_EQ(manager.masterRelationKeysForMasterEntity(kContactsContact).count(), 8u);
  const Dictionary back = manager.entityToBackRelationShipForMasterEntity(kContactsContact);
  EXPECT_EQ(back.getString(kContactsPhoneNumber), "contact");
  Array identifiers{"h", "m"};
  manager.sortRelation("phoneNumbers", identifiers,
                       Dictionary{{"h", number("1", "home")}, {"m", number("2", "mobile")}},
                       kContactsPhoneNumber);
  EXPECT_EQ(identifiers, (Array{"m", "h"}));

  helper.reset();
  EXPECT_FALSE(manager.assemblerDelegate());
  EXPECT_TRUE(manager.relationKeysToSubEntitiesForMasterEntity(kContactsContact).empty());
}

}  // namespace
}  // namespace pc::test
