#pragma once
// Engine attribute names the formatting operations read beyond those of
// engine/SchemaNames.h, named and valued by the same rule (the attribute's
// last component in lowerCamel case).

namespace pc::formatting_keys {

inline constexpr const char* kCalendarsEventSummary = "summary";
inline constexpr const char* kCalendarsEventDescription = "description";
inline constexpr const char* kCalendarsTaskSummary = "summary";
inline constexpr const char* kCalendarsTaskDescription = "description";
inline constexpr const char* kContactsContactMiddleName = "middleName";
inline constexpr const char* kContactsContactSuffix = "suffix";
inline constexpr const char* kContactsContactTitle = "title";
inline constexpr const char* kContactsContactDepartment = "department";
inline constexpr const char* kContactsContactJobTitle = "jobTitle";
inline constexpr const char* kContactsContactNotes = "notes";
inline constexpr const char* kContactsStreetAddressCity = "city";
inline constexpr const char* kContactsStreetAddressState = "state";
inline constexpr const char* kContactsStreetAddressPostalCode = "postalCode";
inline constexpr const char* kContactsStreetAddressCountry = "country";
inline constexpr const char* kContactsStreetAddressCountryCode = "countryCode";

}  // namespace pc::formatting_keys
