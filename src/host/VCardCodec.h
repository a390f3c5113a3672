#pragma once
// Contacts as vCards: the records a phone holds ("Contacts.Contact" with its
// phone numbers, e-mail and street addresses, web addresses, photo) written
// as vCard 2.1 and read back from vCard 2.1, 3.0 or 4.0.
//
//   N        lastName;firstName;middleName;title;suffix
//   FN       the names joined (read only when there is no N)
//   ORG      companyName;department      TITLE  jobTitle
//   NOTE     notes                       BDAY   birthday (a day: "1989-08-08")
//   TEL      phoneNumbers: value, type as parameters, label as X-LABEL
//   EMAIL    emailAddresses (INTERNET)   URL    urls
//   ADR      streetAddresses: ;;street;city;state;postalCode;country,
//            countryCode as X-COUNTRYCODE
//   PHOTO    image, base64 with its TYPE (JPEG, PNG, GIF, BMP)
//   X-IRMC-LUID  the entry's identifier (UID when there is none)
//
// Types: a record type that is the engine's ("mobile", "home fax") is
// written as the vCard parameters for it (CELL; HOME;FAX); any other value
// (a phone's own, after value mapping: "CELL") as its own words. Reading
// turns the parameters into the phone's own type names when the options
// list them, else into the engine's.
//
// Fields with no vCard property go in X-PC-FIELD lines (VFormatValues.h).
// Unknown and X- properties of other programs are left out of the record
// and counted by name; a line that does not read is skipped with its line
// number, and the rest of the entry is kept.

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "host/ContentLines.h"
#include "host/PhoneStore.h"
#include "host/PhoneStoreFormat.h"

namespace pc {

struct VCardOptions {
  // By relation ("phoneNumbers", "emailAddresses", "streetAddresses",
  // "urls"): the type names the phone itself uses (the phone side of its
  // value mappings); a line whose type parameters are one of them reads as it.
  std::map<std::string, std::vector<std::string>> typeNames;
};

class VCardCodec {
 public:
  explicit VCardCodec(VCardOptions options = {}) : _options(std::move(options)) {}

  std::string write(const std::vector<PhoneStoreRecord>& records) const;
  void writeEntry(ContentWriter& out, const PhoneStoreRecord& record) const;
  // A file is its entries' texts one after another.
  std::string entryText(const PhoneStoreRecord& record) const;
  VFormatReadResult read(std::string_view text) const;
  // One VCARD object as a record; problems and ignored properties are added
  // to `result`.
  PhoneStoreRecord readEntry(const ContentObject& card, VFormatReadResult& result) const;

 private:
  VCardOptions _options;
};

}  // namespace pc
