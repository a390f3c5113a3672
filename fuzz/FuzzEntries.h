#pragma once
// The entry points of the fuzz targets: each feeds one input (the bytes of a
// file) through the path a command of the program or the host takes with such
// a file. The fuzz targets (built by clang with libFuzzer) and the regression
// run of the normal build (tests/fuzz_regressions/) call the same functions.
//
// An entry returns normally when the input was read or refused the way a
// user would be told (a nullopt with an error, CommandError, the library's
// Exception). Anything else is a finding: a crash, a standard-library
// exception escaping (out of range, bad optional access), or a broken
// property of what was read, reported as FuzzFinding.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace pc::fuzz {

class FuzzFinding : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

using FuzzEntry = void (*)(const std::uint8_t* data, std::size_t size);

// XML property-list text: read; what reads must write and read back equal.
void fuzzXMLPropertyList(const std::uint8_t* data, std::size_t size);
// A record file (nice plist text): read, tagged dates and addresses rebuilt;
// what reads must write and read back equal.
void fuzzNicePList(const std::uint8_t* data, std::size_t size);
// A device description as check-device takes it: checked, then a phone built
// from it when the check finds no problem.
void fuzzDeviceDescription(const std::uint8_t* data, std::size_t size);
// A record file as format takes it, formatted for every example phone on the
// phone side and on the engine side, and written as format prints it.
void fuzzFormatRecord(const std::uint8_t* data, std::size_t size);
// An event record file as explode takes it, preceded by a first line with the
// dates of --from and --to ("20261101 20261201"; a third word "events" asks
// for the event records instead of the dates).
void fuzzExplodeRecurrence(const std::uint8_t* data, std::size_t size);
// The same input as fuzzExplodeRecurrence handed to the exploder without the
// program's checks, as the host hands it the engine's events.
void fuzzExplodeUnchecked(const std::uint8_t* data, std::size_t size);
// What the phone sends back (an XML property list of records), read as the
// host's parser reads it, each record written as a record file.
void fuzzPhoneStore(const std::uint8_t* data, std::size_t size);

// A phone's contacts file (vCard) and calendar file (vCalendar): read; what
// reads must write, read back as the same entries without a problem, and
// write again as the same text (a calendar file in UTC instants and in the
// wall clocks of a phone without zones).
void fuzzVCard(const std::uint8_t* data, std::size_t size);
void fuzzVCalendar(const std::uint8_t* data, std::size_t size);
// A user's contacts file as import takes it: every record a contact with an
// identifier; written as export writes it, it reads back as the same records
// with the same identifiers.
void fuzzVCardFile(const std::uint8_t* data, std::size_t size);
// A user's iCalendar file as import takes it: what reads must export and
// read back as entries with the same identifiers, none skipped.
void fuzzICalendar(const std::uint8_t* data, std::size_t size);

struct NamedFuzzEntry {
  // The target's name: fuzz_<name> and tests/fuzz_regressions/<name>/.
  const char* name;
  FuzzEntry entry;
};

const std::vector<NamedFuzzEntry>& fuzzEntries();

// Sends the library's log lines, every level, to a logger that formats them
// and writes nothing: the log texts are formatted as in a real run without
// filling the terminal.
void silenceLogs();

}  // namespace pc::fuzz
