#include "host/PhoneStore.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include <sys/stat.h>

#include "platform/TimeZone.h"
#include "support/TemporaryFolder.h"

namespace pc {
namespace {

std::string text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class PhoneStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder = test::folderOfThisTest("phone-store");
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  PhoneStoreContents contacts(const std::string& name) const {
    const CalendarDate birthday =
        CalendarDate::dateWithYear(1980, 3, 30, 2, 30, 0, TimeZone::timeZoneWithName("America/Sao_Paulo"));
    return {"Contacts",
            {{"c1", "Contacts.Contact",
              Dictionary{{"firstName", name},
                         {"birthday", Value(birthday)},
                         {"phoneNumbers", Array{Dictionary{{"value", "+1 555"}, {"type", "mobile"}}}}}},
             {"c2", "Contacts.Contact", Dictionary{{"firstName", "Émile"}}}}};
  }

  std::string folder;
};

TEST_F(PhoneStoreTest, WritesReadsBackAndRewritesOnlyChanges) {
  PhoneStore store(folder);
  EXPECT_TRUE(store.read("Contacts")->records.empty());  // nothing yet

  std::string error;
  ASSERT_EQ(store.write(contacts("Ann"), &error), PhoneStore::WriteResult::written) << error;
  const auto back = store.read("Contacts", &error);
  ASSERT_TRUE(back) << error;
  ASSERT_EQ(back->records.size(), 2u);
  EXPECT_EQ(back->records[0].identifier, "c1");
  EXPECT_EQ(back->records[0].entity, "Contacts.Contact");
  EXPECT_EQ(back->records[0].fields, contacts("Ann").records[0].fields);
  // The zone survives, not only the instant.
  EXPECT_EQ(back->records[0].fields.get("birthday").date().timeZone()->name(), "America/Sao_Paulo");

  const auto before = std::filesystem::last_write_time(store.pathForDataClass("Contacts"));
  EXPECT_EQ(store.write(contacts("Ann")), PhoneStore::WriteResult::unchanged);
  EXPECT_EQ(std::filesystem::last_write_time(store.pathForDataClass("Contacts")), before);
  EXPECT_EQ(store.write(contacts("Bob")), PhoneStore::WriteResult::written);
  EXPECT_EQ(store.read("Contacts")->records[0].fields.getString("firstName"), "Bob");
}

TEST_F(PhoneStoreTest, InterruptedWriteLeavesTheOldFileWhole) {
  PhoneStore store(folder);
  ASSERT_EQ(store.write(contacts("Ann")), PhoneStore::WriteResult::written);
  const std::string path = store.pathForDataClass("Contacts");
  const std::string old = text(path);

  for (std::size_t cut : {std::size_t(0), std::size_t(1), old.size() / 2, old.size() - 1}) {
    store.interruptWritesAfter(cut);
    std::string error;
    EXPECT_EQ(store.write(contacts("Bob"), &error), PhoneStore::WriteResult::failed) << cut;
    EXPECT_NE(error.find(path), std::string::npos) << error;
    EXPECT_EQ(text(path), old) << cut;
    EXPECT_EQ(store.read("Contacts")->records[0].fields.getString("firstName"), "Ann");
  }
  store.interruptWritesAfter(std::nullopt);
  // Each failure said why and took its temporary file away.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
  EXPECT_EQ(store.write(contacts("Bob")), PhoneStore::WriteResult::written);
  EXPECT_EQ(store.read("Contacts")->records[0].fields.getString("firstName"), "Bob");
}

TEST_F(PhoneStoreTest, ContactDataStaysPrivateUnderAStrictUmaskAndAUsersChmod) {
  PhoneStore store(folder);
  const std::string path = store.pathForDataClass("Contacts");
  const auto mode = [&] { return std::filesystem::status(path).permissions(); };
  using std::filesystem::perms;
  const mode_t saved = ::umask(077);
  const auto written = store.write(contacts("Ann"));
  ::umask(saved);
  ASSERT_EQ(written, PhoneStore::WriteResult::written);
  EXPECT_EQ(mode(), perms::owner_read | perms::owner_write);

  std::filesystem::permissions(path, perms::owner_read | perms::owner_write | perms::group_read);
  ASSERT_EQ(store.write(contacts("Bob")), PhoneStore::WriteResult::written);
  EXPECT_EQ(mode(), perms::owner_read | perms::owner_write | perms::group_read);
}

TEST_F(PhoneStoreTest, AStoreFileThatIsAFolderIsAnErrorNamingItAndTheReason) {
  PhoneStore store(folder);
  const std::string path = store.pathForDataClass("Contacts");
  std::filesystem::create_directories(path);
  std::string error;
  EXPECT_FALSE(store.read("Contacts", &error));
  EXPECT_EQ(error, path + ": cannot read: Is a directory");
  EXPECT_EQ(store.write(contacts("Ann"), &error), PhoneStore::WriteResult::failed);
  EXPECT_EQ(error, path + ": cannot write: Is a directory");
}

TEST_F(PhoneStoreTest, CorruptOrTruncatedFilesGiveAnErrorNamingTheFile) {
  PhoneStore store(folder);
  ASSERT_EQ(store.write(contacts("Ann")), PhoneStore::WriteResult::written);
  const std::string path = store.pathForDataClass("Contacts");
  const std::string whole = text(path);

  struct Case {
    std::string bytes;
    std::string says;  // part of the error after the file name
  };
  const std::vector<Case> cases{
      {whole.substr(0, whole.size() / 3), ""},
      {whole.substr(0, whole.size() - 10), ""},
      {"", ""},
      {"not a property list", ""},
      {"<plist version=\"1.0\"><array/></plist>", ""},
      {"<plist version=\"1.0\"><dict><key>DataClass</key><string>Contacts</string></dict></plist>",
       "Records"},
      {"<plist version=\"1.0\"><dict><key>DataClass</key><string>Contacts</string>"
       "<key>Records</key><array><dict><key>entityName</key><string>Contacts.Contact</string>"
       "<key>fields</key><dict/></dict></array></dict></plist>",
       "Records/0/identifier"},
      {"<plist version=\"1.0\"><dict><key>DataClass</key><string>Contacts</string>"
       "<key>Records</key><array><string>x</string></array></dict></plist>",
       "Records/0"},
      {"<plist version=\"1.0\"><dict><key>DataClass</key><string>Calendars</string>"
       "<key>Records</key><array/></dict></plist>",
       "DataClass"},
  };
  for (const Case& c : cases) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << c.bytes;
    std::string error;
    EXPECT_FALSE(store.read("Contacts", &error)) << c.bytes;
    EXPECT_EQ(error.rfind(path + ": ", 0), 0u) << error;
    EXPECT_NE(error.find(c.says), std::string::npos) << error;
    EXPECT_FALSE(PhoneStore::contentsFromBytes(c.bytes, "x.plist", nullptr) &&
                 c.says != "DataClass");
  }
}

}  // namespace
}  // namespace pc
