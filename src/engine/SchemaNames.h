#pragma once
// The sync engine's schema names: data classes, entities, attributes,
// relationships and enumeration values. An entity's value is its dotted path;
// an attribute or relationship is its last component in lowerCamel case; an
// enumeration value is its last component as lower-case words. Constants of
// different entities for the same attribute therefore carry the same string,
// which code comparing records across entities relies on.

namespace pc {

// Data classes.
inline constexpr const char* kCalendars = "Calendars";
inline constexpr const char* kContacts = "Contacts";

// The key under which a record holds its entity name.
inline constexpr const char* kEngineRecordEntityNameKey = "entityName";
// The key of the entities entry in a client description.
inline constexpr const char* kEngineClientEntitiesKey = "Entities";

// Calendars.Attendee
inline constexpr const char* kCalendarsAttendee = "Calendars.Attendee";

// Calendars.AudioAlarm
inline constexpr const char* kCalendarsAudioAlarm = "Calendars.AudioAlarm";
inline constexpr const char* kCalendarsAudioAlarmOwner = "owner";
inline constexpr const char* kCalendarsAudioAlarmTriggerdate = "triggerdate";
inline constexpr const char* kCalendarsAudioAlarmTriggerduration = "triggerduration";

// Calendars.Calendar
inline constexpr const char* kCalendarsCalendar = "Calendars.Calendar";
inline constexpr const char* kCalendarsCalendarReadOnly = "readOnly";

// Calendars.DisplayAlarm
inline constexpr const char* kCalendarsDisplayAlarm = "Calendars.DisplayAlarm";
inline constexpr const char* kCalendarsDisplayAlarmOwner = "owner";
inline constexpr const char* kCalendarsDisplayAlarmTriggerdate = "triggerdate";

// Calendars.Event
inline constexpr const char* kCalendarsEvent = "Calendars.Event";
inline constexpr const char* kCalendarsEventAllDay = "allDay";
inline constexpr const char* kCalendarsEventAudioAlarms = "audioAlarms";
inline constexpr const char* kCalendarsEventCalendar = "calendar";
inline constexpr const char* kCalendarsEventClassification = "classification";
inline constexpr const char* kCalendarsEventDetachedEvents = "detachedEvents";
inline constexpr const char* kCalendarsEventDisplayAlarms = "displayAlarms";
inline constexpr const char* kCalendarsEventEndDate = "endDate";
inline constexpr const char* kCalendarsEventExceptionDates = "exceptionDates";
inline constexpr const char* kCalendarsEventLocation = "location";
inline constexpr const char* kCalendarsEventMainEvent = "mainEvent";
inline constexpr const char* kCalendarsEventOriginalDate = "originalDate";
inline constexpr const char* kCalendarsEventPriority = "priority";
inline constexpr const char* kCalendarsEventRecurrences = "recurrences";
inline constexpr const char* kCalendarsEventStartDate = "startDate";
inline constexpr const char* kCalendarsEventStatus = "status";

// Calendars.MailAlarm
inline constexpr const char* kCalendarsMailAlarm = "Calendars.MailAlarm";
inline constexpr const char* kCalendarsMailAlarmTriggerdate = "triggerdate";

// Calendars.Organizer
inline constexpr const char* kCalendarsOrganizer = "Calendars.Organizer";

// Calendars.Recurrence
inline constexpr const char* kCalendarsRecurrence = "Calendars.Recurrence";
inline constexpr const char* kCalendarsRecurrenceBydaydays = "bydaydays";
inline constexpr const char* kCalendarsRecurrenceBydayfreq = "bydayfreq";
inline constexpr const char* kCalendarsRecurrenceBymonth = "bymonth";
inline constexpr const char* kCalendarsRecurrenceBymonthday = "bymonthday";
inline constexpr const char* kCalendarsRecurrenceBysetpos = "bysetpos";
inline constexpr const char* kCalendarsRecurrenceByweeknumber = "byweeknumber";
inline constexpr const char* kCalendarsRecurrenceByyearday = "byyearday";
inline constexpr const char* kCalendarsRecurrenceCount = "count";
inline constexpr const char* kCalendarsRecurrenceFrequency = "frequency";
inline constexpr const char* kCalendarsRecurrenceInterval = "interval";
inline constexpr const char* kCalendarsRecurrenceOwner = "owner";
inline constexpr const char* kCalendarsRecurrenceUntil = "until";
inline constexpr const char* kCalendarsRecurrenceWeekstartday = "weekstartday";

// Calendars.Task
inline constexpr const char* kCalendarsTask = "Calendars.Task";
inline constexpr const char* kCalendarsTaskAudioAlarms = "audioAlarms";
inline constexpr const char* kCalendarsTaskCalendar = "calendar";
inline constexpr const char* kCalendarsTaskClassification = "classification";
inline constexpr const char* kCalendarsTaskCompletionDate = "completionDate";
inline constexpr const char* kCalendarsTaskDisplayAlarms = "displayAlarms";
inline constexpr const char* kCalendarsTaskDueDate = "dueDate";
inline constexpr const char* kCalendarsTaskDueDateIsDateOnly = "dueDateIsDateOnly";
inline constexpr const char* kCalendarsTaskPriority = "priority";
inline constexpr const char* kCalendarsTaskRecurrences = "recurrences";
inline constexpr const char* kCalendarsTaskStartDate = "startDate";
inline constexpr const char* kCalendarsTaskStatus = "status";

// Contacts.Contact
inline constexpr const char* kContactsContact = "Contacts.Contact";
inline constexpr const char* kContactsContactBirthday = "birthday";
inline constexpr const char* kContactsContactCompanyName = "companyName";
inline constexpr const char* kContactsContactCustomFields = "customFields";
inline constexpr const char* kContactsContactDates = "dates";
inline constexpr const char* kContactsContactEmailAddresses = "emailAddresses";
inline constexpr const char* kContactsContactFirstName = "firstName";
inline constexpr const char* kContactsContactIMs = "ims";
inline constexpr const char* kContactsContactLastName = "lastName";
inline constexpr const char* kContactsContactPhoneNumbers = "phoneNumbers";
inline constexpr const char* kContactsContactRelatedNames = "relatedNames";
inline constexpr const char* kContactsContactStreetAddresses = "streetAddresses";
inline constexpr const char* kContactsContactURLs = "urls";

// Contacts.CustomField
inline constexpr const char* kContactsCustomField = "Contacts.CustomField";
inline constexpr const char* kContactsCustomFieldContact = "contact";

// Contacts.Date
inline constexpr const char* kContactsDate = "Contacts.Date";
inline constexpr const char* kContactsDateContact = "contact";
inline constexpr const char* kContactsDateType = "type";

// Contacts.EmailAddress
inline constexpr const char* kContactsEmailAddress = "Contacts.EmailAddress";
inline constexpr const char* kContactsEmailAddressContact = "contact";
inline constexpr const char* kContactsEmailAddressType = "type";
inline constexpr const char* kContactsEmailAddressTypeOther = "other";
inline constexpr const char* kContactsEmailAddressValue = "value";

// Contacts.Group
inline constexpr const char* kContactsGroup = "Contacts.Group";

// Contacts.IM
inline constexpr const char* kContactsIM = "Contacts.IM";
inline constexpr const char* kContactsIMContact = "contact";
inline constexpr const char* kContactsIMService = "service";
inline constexpr const char* kContactsIMType = "type";

// Contacts.PhoneNumber
inline constexpr const char* kContactsPhoneNumber = "Contacts.PhoneNumber";
inline constexpr const char* kContactsPhoneNumberContact = "contact";
inline constexpr const char* kContactsPhoneNumberLabel = "label";
inline constexpr const char* kContactsPhoneNumberType = "type";
inline constexpr const char* kContactsPhoneNumberTypeHome = "home";
inline constexpr const char* kContactsPhoneNumberTypeHomeFax = "home fax";
inline constexpr const char* kContactsPhoneNumberTypeMain = "main";
inline constexpr const char* kContactsPhoneNumberTypeMobile = "mobile";
inline constexpr const char* kContactsPhoneNumberTypeOther = "other";
inline constexpr const char* kContactsPhoneNumberTypePager = "pager";
inline constexpr const char* kContactsPhoneNumberTypeWork = "work";
inline constexpr const char* kContactsPhoneNumberTypeWorkFax = "work fax";
inline constexpr const char* kContactsPhoneNumberValue = "value";

// Contacts.RelatedName
inline constexpr const char* kContactsRelatedName = "Contacts.RelatedName";
inline constexpr const char* kContactsRelatedNameContact = "contact";
inline constexpr const char* kContactsRelatedNameType = "type";
inline constexpr const char* kContactsRelatedNameTypeOther = "other";

// Contacts.StreetAddress
inline constexpr const char* kContactsStreetAddress = "Contacts.StreetAddress";
inline constexpr const char* kContactsStreetAddressContact = "contact";
inline constexpr const char* kContactsStreetAddressStreet = "street";
inline constexpr const char* kContactsStreetAddressType = "type";
inline constexpr const char* kContactsStreetAddressTypeOther = "other";

// Contacts.URL
inline constexpr const char* kContactsURL = "Contacts.URL";
inline constexpr const char* kContactsURLContact = "contact";
inline constexpr const char* kContactsURLIMTypeOther = "other";
inline constexpr const char* kContactsURLLabel = "label";
inline constexpr const char* kContactsURLType = "type";
inline constexpr const char* kContactsURLTypeHomePage = "home page";
inline constexpr const char* kContactsURLTypeOther = "other";
inline constexpr const char* kContactsURLValue = "value";

}  // namespace pc
