#pragma once
// Whole-file reads and atomic replacement, shared by every store that keeps
// its data in one file (property lists, the phone store, record files).
//
// Errors are one line that names the file and the system's reason:
//   "phone/Contacts.plist: cannot write: No space left on device"
// No library exception escapes; a temporary file is never left behind.
//
// File modes: a file that is replaced keeps the permission bits it had (a
// user's chmod 600 stays); a new file is created as 0666 less the process's
// umask, like any file an ordinary program creates.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace pc {

// The bytes of the file at `path`; nullopt with `error` for a file that is
// missing, unreadable, or not a regular file (a directory, a device).
std::optional<std::string> readWholeFile(const std::string& path, std::string* error = nullptr);

struct AtomicWriteOptions {
  // Stops after this many bytes and fails, as a full disk would (for tests
  // of what an interrupted write leaves).
  std::optional<std::size_t> interruptAfter;
  // Also flushes the folder so that the rename itself is on the disk.
  bool syncFolder = true;
};

// Replaces the file at `path` with `bytes`: they go to a temporary file in
// the same folder, reach the disk and are renamed over `path`, so a reader
// sees the old file or the new one, never a part. On failure `path` is left
// as it was, the temporary file is removed, and `error` names the file and
// says why.
bool writeFileAtomically(const std::string& path, std::string_view bytes,
                         std::string* error = nullptr, const AtomicWriteOptions& options = {});

}  // namespace pc
