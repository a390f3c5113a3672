#pragma once
// Runs the phoneconduit program built with the tests and captures what it
// prints, for the tests of its commands.

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>

namespace pc::testing {

struct ProgramRun {
  int status;
  std::string output;          // standard output and standard error, as they came
  std::string standardOutput;  // each on its own
  std::string standardError;
};

// `arguments` are read by the shell.
inline ProgramRun runProgram(const std::string& arguments) {
  ProgramRun run{-1, {}, {}, {}};
  const std::string command = std::string(PC_PROGRAM) + " " + arguments;
  int out[2], err[2];
  if (pipe(out) != 0) return run;
  if (pipe(err) != 0) {
    close(out[0]);
    close(out[1]);
    return run;
  }
  const pid_t child = fork();
  if (child == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    close(out[0]);
    close(err[0]);
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  pollfd streams[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* texts[2] = {&run.standardOutput, &run.standardError};
  int open = 2;
  std::array<char, 4096> buffer;
  while (open > 0 && poll(streams, 2, -1) > 0) {
    for (int i = 0; i < 2; ++i) {
      if (streams[i].fd < 0 || !(streams[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t n = read(streams[i].fd, buffer.data(), buffer.size());
      if (n > 0) {
        texts[i]->append(buffer.data(), static_cast<std::size_t>(n));
        run.output.append(buffer.data(), static_cast<std::size_t>(n));
      } else {
        close(streams[i].fd);
        streams[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  if (child > 0 && waitpid(child, &status, 0) == child) run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// A path under examples/.
inline std::string examplePath(const std::string& relativePath) {
  return std::string(PC_SOURCE_DIR) + "/examples/" + relativePath;
}

// The text of a file ("" when it cannot be read).
inline std::string fileText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Writes `text` to a file of the tests' temporary folder; answers its path.
inline std::string temporaryFile(const std::string& name, const std::string& text) {
  const std::string path = ::testing::TempDir() + "phoneconduit-" + std::to_string(getpid()) + "-" + name;
  std::ofstream(path) << text;
  return path;
}

// Skips the tests of a fixture when the program was not built.
class ProgramTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string(PC_PROGRAM).empty()) GTEST_SKIP() << "the program is not built";
  }
};

}  // namespace pc::testing
