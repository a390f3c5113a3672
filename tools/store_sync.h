#pragma once
// sync --store: the two-way synchronisation of a store file with a phone
// folder (see host/StoreSync.h), its report and exit status.

#include <string>

#include "host/ReferenceSync.h"

namespace pc::tools {

struct StoreSyncOptions {
  std::string storePath;
  std::string conflicts = "engine";
  bool dryRun = false;
  bool log = false;
  std::string report = "text";
};

// Runs the sync of `run`'s phone with the store; prints the report; throws
// CommandError (nothing written) or CommandStatus (3: records rejected).
void syncWithStore(const SyncRun& run, const StoreSyncOptions& options);

}  // namespace pc::tools
