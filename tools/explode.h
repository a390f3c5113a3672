#pragma once
// What `explode` prints for an event record, apart from reading the file, so
// that other drivers of the same path (the fuzz targets) run exactly it.

#include <string>

#include "calcore/CALDate.h"
#include "validation.h"

namespace pc::tools {

// The occurrences of the event `record` (one recurrence) from `from` up to
// `to` (excluded): one ISO date a line, or with `events` a record file holding
// one event record per occurrence. Stops with CommandError, naming the key
// path, when the record holds a value the recurrence rules cannot use.
std::string explodedText(const Field& record, const CALDateRef& from, const CALDateRef& to,
                         bool ignoreExceptionDates, bool events);

}  // namespace pc::tools
