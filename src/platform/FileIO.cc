#include "platform/FileIO.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <csignal>
#include <mutex>
#include <random>
#include <utility>

#include <fmt/format.h>

namespace pc {

namespace {

void setError(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

std::string systemReason(int code) { return std::strerror(code); }

// Closes a descriptor on every path out.
struct Descriptor {
  int fd = -1;
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
  int release() { return std::exchange(fd, -1); }
};

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Creates a new temporary file beside `path`. Mode 0666 lets the umask
// decide the bits of a new file, as open() does for any program.
int createTemporary(const std::string& path, std::string& temporary) {
  static constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  thread_local std::mt19937_64 random{std::random_device{}()};
  for (int attempt = 0; attempt < 100; ++attempt) {
    temporary = path + ".";
    for (int i = 0; i < 6; ++i) temporary += kLetters[random() % (sizeof kLetters - 1)];
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  errno = EEXIST;
  return -1;
}

// A write past the file size limit raises SIGXFSZ, which ends the process
// and leaves the temporary file behind; ignored, the write fails with EFBIG
// and is reported like any other. A handler someone installed is kept.
void ignoreFileSizeSignal() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction current {};
    if (::sigaction(SIGXFSZ, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
      ::signal(SIGXFSZ, SIG_IGN);
  });
}

}  // namespace

std::optional<std::string> readWholeFile(const std::string& path, std::string* error) {
  const auto fail = [&](const char* what) -> std::optional<std::string> {
    setError(error, fmt::format("{}: {}: {}", path, what, systemReason(errno)));
    return std::nullopt;
  };
  Descriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (file.fd < 0) return fail("cannot open");
  struct stat status {};
  if (::fstat(file.fd, &status) != 0) return fail("cannot read");
  if (S_ISDIR(status.st_mode)) {
    errno = EISDIR;
    return fail("cannot read");
  }
  if (!S_ISREG(status.st_mode)) {
    setError(error, fmt::format("{}: cannot read: not a regular file", path));
    return std::nullopt;
  }
  std::string contents;
  contents.reserve(static_cast<std::size_t>(status.st_size));
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(file.fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return fail("cannot read");
    if (n == 0) break;
    contents.append(buffer, static_cast<std::size_t>(n));
  }
  return contents;
}

bool writeFileAtomically(const std::string& path, std::string_view bytes, std::string* error,
                         const AtomicWriteOptions& options) {
  ignoreFileSizeSignal();
  std::string temporary;
  Descriptor file{createTemporary(path, temporary)};
  if (file.fd < 0) {
    setError(error, fmt::format("{}: cannot write: {}", path, systemReason(errno)));
    return false;
  }
  // Any failure from here removes the temporary file.
  const auto fail = [&](int code) {
    setError(error, fmt::format("{}: cannot write: {}", path, systemReason(code)));
    ::close(file.release());
    ::unlink(temporary.c_str());
    return false;
  };

  // A file being replaced keeps its permission bits; a new one keeps those
  // the umask gave the temporary file.
  struct stat existing {};
  if (::stat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode) &&
      ::fchmod(file.fd, existing.st_mode & 07777) != 0)
    return fail(errno);

  const std::size_t wanted =
      options.interruptAfter ? std::min(*options.interruptAfter, bytes.size()) : bytes.size();
  for (std::size_t done = 0; done < wanted;) {
    const ssize_t n = ::write(file.fd, bytes.data() + done, wanted - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return fail(errno);
    if (n == 0) return fail(EIO);
    done += static_cast<std::size_t>(n);
  }
  if (wanted < bytes.size()) return fail(ENOSPC);  // the simulated interruption
  if (::fsync(file.fd) != 0) return fail(errno);
  if (::close(file.release()) != 0) {
    const int code = errno;
    ::unlink(temporary.c_str());
    setError(error, fmt::format("{}: cannot write: {}", path, systemReason(code)));
    return false;
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    const int code = errno;
    ::unlink(temporary.c_str());
    setError(error, fmt::format("{}: cannot write: {}", path, systemReason(code)));
    return false;
  }
  if (options.syncFolder) {
    if (const int folder = ::open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        folder >= 0) {
      ::fsync(folder);
      ::close(folder);
    }
  }
  return true;
}

}  // namespace pc
