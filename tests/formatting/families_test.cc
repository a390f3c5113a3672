// Phone families (Motorola, Symbian), the Symbian labels in several
// languages, and operations reached by selector as descriptions name them.

#include <gmock/gmock.h>

#include <cstdlib>

#include "FormattingFixture.h"
#include "engine/SchemaNames.h"
#include "formatting/FormattingKeys.h"
#include "formatting/QVTAgentFormatting.h"
#include "formatting/QVTMotorolaFormatter.h"
#include "platform/LocalizedStrings.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

using namespace formatting_keys;

std::shared_ptr<QVTMotorolaFormatter> motorola(const Value& information, bool asciiOnly = false) {
  auto client = test::phoneClient("Europe/Paris");
  if (!information.isNull()) client->setObject(information, kMotorolaPhoneInformationKey);
  auto formatter = test::makeFormatter<QVTMotorolaFormatter>(
      "QVTMotorolaFormatter", "", Dictionary{{kOnlySupportASCIICharKey, asciiOnly}}, client);
  formatter->awakeFromSynchronization();
  return formatter;
}

TEST(MotorolaTest, RecordsFitTheLimitsThePhoneReports) {
  test::LogCapture log;
  motorola(Value());
  EXPECT_TRUE(log.contains("phone information should be provided"));
  EXPECT_TRUE(log.contains("got _maxNameLength=30 _maxPhoneLength=20 _maxEmailAddressLength=30 _maxEventTitleLength=30"));

  auto phone = motorola(Dictionary{{kMaxNameLengthKey, 8}, {kMaxPhoneLengthKey, "10"},
                                   {kMaxEmailAddressLengthKey, 6}, {kMaxEventTitleLength, 5}},
                        true);
  Dictionary person{{kContactsContactFirstName, "Zoë Anne"}, {kContactsContactLastName, "Ng"}};
  phone->formatContactRecord(person);
  EXPECT_EQ(person.getString(kContactsContactFirstName), "Zo?-A");
  EXPECT_EQ(person.getString(kContactsContactLastName), "Ng");

  Dictionary company{{kContactsContactCompanyName, "Acme"}};
  phone->formatContactRecord(company);
  EXPECT_EQ(company.getString(kContactsContactFirstName), "Acme");
  EXPECT_FALSE(company.contains(kContactsContactCompanyName));

  Dictionary number{{kContactsPhoneNumberType, kContactsPhoneNumberTypeOther},
                    {kContactsPhoneNumberValue, "+1 (800) CALLNOW"}};
  phone->formatPhoneRecord(number);
  EXPECT_EQ(number.getString(kContactsPhoneNumberType), kContactsPhoneNumberTypeHome);
  EXPECT_EQ(number.getString(kContactsPhoneNumberValue), "+180022556");

  Dictionary mail{{kContactsEmailAddressType, "home"}, {kContactsEmailAddressValue, "ann@example.org"}};
  phone->formatEmailAddressRecord(mail);
  EXPECT_EQ(mail.getString(kContactsEmailAddressType), "work");
  EXPECT_EQ(mail.getString(kContactsEmailAddressValue), "ann@ex");

  Dictionary event{{kCalendarsEventSummary, "Board meeting"}};
  phone->formatEventRecord(event);
  EXPECT_EQ(event.getString(kCalendarsEventSummary), "Board");
}

// Sets an environment variable while it lives.
struct ScopedEnvironment {
  ScopedEnvironment(const char* name, const char* value) : name(name) {
    if (const char* old = std::getenv(name)) saved = old;
    setenv(name, value, 1);
  }
  ~ScopedEnvironment() { saved ? setenv(name, saved->c_str(), 1) : unsetenv(name); }
  const char* name;
  std::optional<std::string> saved;
};

// Runs `body` with LANGUAGE set to `language`, the label table rebuilt.
template <class F>
void inLanguage(const char* language, F body) {
  {
    ScopedEnvironment environment("LANGUAGE", language);
    resetLocalizedStrings();
    QVTAgentFormatting::initialize();
    body();
  }
  resetLocalizedStrings();
  QVTAgentFormatting::initialize();
}

TEST(AgentTest, UIQKeepsOnlyThePhonesOwnLabels) {
  auto agent = test::makeFormatter<QVTAgentFormatting>("QVTAgentFormatting");
  auto other = [](const char* label) {
    return Dictionary{{kContactsPhoneNumberType, kContactsPhoneNumberTypeOther}, {kContactsPhoneNumberLabel, label}};
  };
  struct Language {
    const char* name;
    const char* homePager;  // the phone's label in that language
    const char* foreign;    // another language's label, not the phone's
  };
  for (const Language& language : {Language{"fr_FR.UTF-8", "Bip domicile", "Home pager"},
                                    Language{"de", "Pager privat", "Bip domicile"},
                                    Language{"en_GB:fr", "Home pager", "Pager privat"}}) {
    SCOPED_TRACE(language.name);
    inLanguage(language.name, [&] {
      EXPECT_EQ(QVTAgentFormatting::symbianLocalizer()->getString("home pager"), language.homePager);
      test::LogCapture log;
      Dictionary kept = other(language.homePager);
      agent->UIQPhoneNumbers(kept);
      EXPECT_EQ(kept.getString(kContactsPhoneNumberLabel), language.homePager);
      EXPECT_EQ(kept.getString(kContactsPhoneNumberType), "other");
      EXPECT_TRUE(log.contains("symbian label, keep it"));

      for (const char* label : {language.foreign, "Cottage"}) {
        Dictionary dropped = other(label);
        agent->UIQPhoneNumbers(dropped);
        EXPECT_FALSE(dropped.contains(kContactsPhoneNumberLabel)) << label;
        EXPECT_EQ(dropped.getString(kContactsPhoneNumberType), "main");
      }
      EXPECT_TRUE(log.contains("other label, drop it"));
    });
  }
  // No language known: the keys themselves.
  inLanguage("xx_YY", [] { EXPECT_EQ(localizedString("Synchro", "home pager"), "home pager"); });
  Dictionary mobile{{kContactsPhoneNumberType, "mobile"}, {kContactsPhoneNumberLabel, "Cottage"}};
  agent->UIQPhoneNumbers(mobile);
  EXPECT_EQ(mobile.getString(kContactsPhoneNumberLabel), "Cottage");
}

TEST(AgentTest, LanguagePreferencesFollowTheEnvironment) {
  {
    ScopedEnvironment language("LANGUAGE", "pt_BR:de"), all("LC_ALL", "fr_CA.UTF-8@x");
    EXPECT_THAT(preferredLanguages(), ::testing::ElementsAre("pt_BR", "pt", "de", "fr_CA", "fr"));
  }
  ScopedEnvironment language("LANGUAGE", ""), all("LC_ALL", "C");
  EXPECT_THAT(preferredLanguages(), ::testing::IsEmpty());
}

TEST(AgentTest, SeriesSixtyAndURLTypes) {
  auto agent = test::makeFormatter<QVTAgentFormatting>("QVTAgentFormatting");
  // On Series 60 a labelled "other" number stays "other".
  Dictionary labelled{{kContactsPhoneNumberType, "other"}, {kContactsPhoneNumberLabel, "Cottage"}};
  agent->series60PhoneNumbers(labelled);
  EXPECT_EQ(labelled.getString(kContactsPhoneNumberType), "other");

  // The type asked for is ignored: a plain "other" address is a home page.
  Dictionary url{{kContactsURLType, "other"}, {kContactsURLLabel, ""}};
  agent->changeRegularOtherTypeButKeepCustomType(url, "work");
  EXPECT_EQ(url.getString(kContactsURLType), "home page");
  Dictionary custom{{kContactsURLType, "other"}, {kContactsURLLabel, "Blog"}};
  agent->changeRegularOtherTypeButKeepCustomType(custom, "work");
  EXPECT_EQ(custom.getString(kContactsURLType), "other");
}

TEST(MethodTableTest, DescriptionsReachOperationsBySelector) {
  auto motorolaPhone = motorola(Dictionary{{kMaxPhoneLengthKey, 4}});
  // A family inherits every base operation, with its argument kinds.
  EXPECT_EQ(test::callSelector(motorolaPhone, "maxLength::", {"abcdef", 3}), Value("abc"));
  EXPECT_EQ(test::callSelector(motorolaPhone, "maxFirstNameAndLastName:length:firstNameFirst:",
                               {Dictionary{{kContactsContactFirstName, "Abcdef"}}, "4", "YES"})
                .dictionary().getString(kContactsContactFirstName), "Abcd");

  // Chained value operations, and sub-record filters that stop at a drop.
  auto chain = Array{Value(Invocation::invocationWithTarget(motorolaPhone, "removeWhiteSpace:")),
                     Value(Invocation::invocationWithTarget(motorolaPhone, "ensureNotEmpty:"))};
  EXPECT_EQ(motorolaPhone->_catenateInvocation(" \t", chain), Value("-"));

  auto filter = [&](const char* selector) { return Value(Invocation::invocationWithTarget(motorolaPhone, selector)); };
  const Dictionary event{{kEngineRecordEntityNameKey, kCalendarsEvent}};
  const Dictionary alarm{{kCalendarsAudioAlarmTriggerduration, 0}};
  EXPECT_FALSE(motorolaPhone->onObject(event, alarm, Array{filter("dropAlarmInThePast:alarm:")}).isNull());
  EXPECT_TRUE(motorolaPhone->onObject(event, alarm,
                                      Array{filter("genericAlarmFilterWithNoAlarmOnEventOrAfter:alarm:"),
                                            filter("dropAlarmInThePast:alarm:")}).isNull());

  // Every registered selector of the base class is found again by name.
  const auto selectors = FormattingMethods::registeredSelectors("FormattingMethods");
  EXPECT_GE(selectors.size(), 60u);
  for (const auto& entry : selectors) {
    const MethodInfo* method = MethodTable::lookup("QVTAgentFormatting", entry.selector);
    ASSERT_NE(method, nullptr) << entry.selector;
    EXPECT_EQ(method->argumentTypes, entry.argumentTypes);
    // Each colon of a selector stands for one argument.
    EXPECT_EQ(std::count(entry.selector.begin(), entry.selector.end(), ':'),
              static_cast<long>(entry.argumentTypes.size())) << entry.selector;
  }
}

}  // namespace
}  // namespace pc
