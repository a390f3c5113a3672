// Contact names, companies, addresses and the detail budget of Series 40 phones.

#include <gmock/gmock.h>

#include "FormattingFixture.h"
#include "engine/SchemaNames.h"
#include "formatting/FormattingKeys.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

using namespace formatting_keys;

Dictionary contact(std::initializer_list<Dictionary::Entry> entries) {
  Dictionary record{{kEngineRecordEntityNameKey, kContactsContact}};
  for (const auto& [key, value] : entries) record.set(key, value);
  return record;
}

TEST(NamesTest, FirstAndLastNameShareTheLength) {
  auto methods = test::makeFormatter();
  const struct {
    const char* first;
    const char* last;
    int length;
    bool firstNameFirst;
    const char* wantFirst;  // nullptr: removed
    const char* wantLast;
    bool lineFeedsTwice = false;
  } cases[] = {
      // Both longer than their share: 4 and 5 of 10 (one for the blank).
      {"Jean Pierre", "Dupont-Durand", 10, true, "Jean", "Dupon"},
      // Only the first name too long: it gets what the last name leaves.
      {"Maximilian", "Li", 10, true, "Maximil", "Li"},
      // No last name, first name first: the first name alone is cut.
      {"Bartholomew", "", 5, true, "Barth", nullptr},
      // No first name, last-name order: the last name alone is cut.
      {"", "Bartholomew", 5, false, nullptr, "Barth"},
      // Fits: unchanged, blanks become hyphens.
      {"Ann Marie", "Ng", 30, false, "Ann-Marie", "Ng"},
      // A line feed counts twice when asked.
      {"", "ab\ncdef", 5, false, nullptr, "ab\nc", true},
  };
  for (const auto& c : cases) {
    Dictionary record = contact({{kContactsContactFirstName, c.first}, {kContactsContactLastName, c.last}});
    methods->maxFirstNameAndLastName(record, c.length, c.firstNameFirst, c.lineFeedsTwice);
    SCOPED_TRACE(std::string(c.first) + " / " + c.last);
    EXPECT_EQ(record.get(kContactsContactFirstName), c.wantFirst ? Value(c.wantFirst) : Value());
    EXPECT_EQ(record.get(kContactsContactLastName), c.wantLast ? Value(c.wantLast) : Value());
  }
}

TEST(NamesTest, CompanyBecomesTheFirstNameOfNamelessContacts) {
  auto methods = test::makeFormatter();
  // Hyphens left by name cleaning count as no name.
  Dictionary dashes = contact({{kContactsContactFirstName, "-"}, {kContactsContactLastName, "-"},
                               {kContactsContactCompanyName, "Acme"}});
  methods->putCompanyInFirstName(dashes);
  EXPECT_EQ(dashes.getString(kContactsContactFirstName), "Acme");
  EXPECT_FALSE(dashes.contains(kContactsContactCompanyName));

  // A named contact keeps its name; clearing still removes the company.
  Dictionary named = contact({{kContactsContactLastName, "Smith"}, {kContactsContactCompanyName, "Acme"}});
  methods->putCompanyInFirstName(named, true);
  EXPECT_FALSE(named.contains(kContactsContactFirstName));
  EXPECT_FALSE(named.contains(kContactsContactCompanyName));
}

TEST(NamesTest, SonyEricssonNamesLoseCommasAndNeverStayEmpty) {
  auto methods = test::makeFormatter();
  Dictionary record = contact({{kContactsContactFirstName, "Jo,;"}, {kContactsContactLastName, ",,"},
                               {kContactsContactCompanyName, ";"}});
  methods->formatContactSonyEricsson(record, false, true);
  EXPECT_EQ(record.getString(kContactsContactFirstName), "Jo");
  EXPECT_EQ(record.getString(kContactsContactLastName), "-");
  EXPECT_FALSE(record.contains(kContactsContactCompanyName));

  Dictionary keepSemi = contact({{kContactsContactFirstName, "a;b,c"}, {kContactsContactLastName, "x"}});
  methods->formatContactSonyEricsson(keepSemi, false, false);
  EXPECT_EQ(keepSemi.getString(kContactsContactFirstName), "a;bc");
}

TEST(NamesTest, StandardFormatsCleanOrDrop) {
  auto methods = test::makeFormatter();
  Dictionary person = contact({{kContactsContactFirstName, "  Ann\r\n"}, {kContactsContactNotes, "a\r\nb\rc"},
                               {kContactsContactJobTitle, " \t "}});
  methods->standardFormatContact(person);
  EXPECT_EQ(person.getString(kContactsContactFirstName), "Ann");
  EXPECT_EQ(person.getString(kContactsContactNotes), "a\nb\nc");
  EXPECT_FALSE(person.contains(kContactsContactJobTitle));

  test::LogCapture log;
  EXPECT_TRUE(methods->standardFormatEMail(Dictionary{{kContactsEmailAddressValue, " a@b.org "}}).isDictionary());
  EXPECT_TRUE(methods->standardFormatEMail(Dictionary{{kContactsEmailAddressValue, "zoë@b.org"}}).isNull());
  EXPECT_TRUE(log.contains("Dropping illegal email address: zoë@b.org"));
  // An address whose every part is blank is dropped.
  EXPECT_TRUE(methods->standardFormatStreetAddresses(Dictionary{{kContactsStreetAddressCity, " \n"}}).isNull());
}

TEST(NamesTest, FullAddressGoesIntoTheStreet) {
  auto methods = test::makeFormatter();
  Dictionary address{{kContactsStreetAddressStreet, "1 Main St\r\n"}, {kContactsStreetAddressCity, "Springfield"}};
  methods->putFullAddressInStreetField(address, ", ", 40, true);
  EXPECT_EQ(address.getString(kContactsStreetAddressStreet), "1 Main St, Springfield");
  EXPECT_EQ(address.count(), 1u);

  Dictionary cut{{kContactsStreetAddressStreet, "1 Main St"}, {kContactsStreetAddressCity, "Springfield"}};
  methods->putFullAddressInStreetField(cut, " ", 12, false);
  EXPECT_EQ(cut.getString(kContactsStreetAddressStreet), "1 Main St Sp");
  EXPECT_TRUE(cut.contains(kContactsStreetAddressCity));
}

TEST(NamesTest, SeriesFortyShareTheDetailBudgetInTurns) {
  auto methods = test::makeFormatter();
  auto list = [](int n) {
    Array items;
    for (int i = 0; i < n; ++i) items.add(Dictionary{{"value", i}});
    return items;
  };
  Dictionary record = contact({{kContactsContactEmailAddresses, list(4)}, {kContactsContactURLs, list(3)},
                               {kContactsContactNotes, "n"}, {kContactsContactStreetAddresses, list(2)}});
  methods->formatContactNokiaSeries40(record, 5, false);
  EXPECT_EQ(record.getArray(kContactsContactEmailAddresses)->count(), 2u);
  EXPECT_EQ(record.getArray(kContactsContactURLs)->count(), 2u);
  EXPECT_EQ(record.getArray(kContactsContactStreetAddresses)->count(), 2u);
  // The first ones stay.
  EXPECT_EQ(record.getArray(kContactsContactURLs)->at(1).dictionary().getInteger("value"), 1);

  Dictionary second = contact({{kContactsContactEmailAddresses, list(1)}, {kContactsContactURLs, list(3)},
                               {kContactsContactStreetAddresses, list(3)}});
  methods->formatContactNokiaSeries40SecondEd(second);
  EXPECT_EQ(second.getArray(kContactsContactEmailAddresses)->count(), 1u);
  EXPECT_EQ(second.getArray(kContactsContactURLs)->count(), 2u);
  EXPECT_EQ(second.getArray(kContactsContactStreetAddresses)->count(), 2u);
}

}  // namespace
}  // namespace pc
