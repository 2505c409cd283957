// SPDX-License-Identifier: MIT
// Runs the tools as a user would, each test in a directory of its own.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace command {

struct Result {
  int status;  // of the exit; 128 and the signal's number after a signal
  std::string out, err;
};

inline std::string quote(const std::string &text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

class Directory : public testing::Test {
 protected:
  Directory() {
    std::string name = (std::filesystem::temp_directory_path() / "ox-test-XXXXXX").string();
    if (!mkdtemp(name.data())) throw std::runtime_error("no temporary directory");
    root_ = name;
  }
  ~Directory() override {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  std::string path(const std::string &name) const { return (root_ / name).string(); }

  std::string write(const std::string &name, const std::string &text) const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
  }

  std::string read(const std::string &name) const {
    std::ifstream file(path(name), std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }

  bool exists(const std::string &name) const { return std::filesystem::exists(root_ / name); }

  // Names in the directory, apart from those that shell() makes.
  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto &entry : std::filesystem::directory_iterator(root_)) {
      const std::string name = entry.path().filename().string();
      if (name != "stdout" && name != "stderr") found.push_back(name);
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  mode_t mode(const std::string &name) const {
    struct stat status {};
    stat(path(name).c_str(), &status);
    return status.st_mode & 07777;
  }

  // Redirections in the line come after, and so before, the ones added here.
  Result shell(const std::string &line) const {
    const std::string all =
        "{ " + line + "\n} >" + quote(path("stdout")) + " 2>" + quote(path("stderr")) + " </dev/null";
    const int status = std::system(all.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), read("stdout"), read("stderr")};
  }

  // The start of a command line: on another machine's programs an emulator goes before them.
  static std::string tool(const std::string &program) {
    const char *emulator = std::getenv("OX_EMULATOR");
    return (emulator ? std::string(emulator) + " " : std::string()) + quote(program) + " ";
  }

  Result track(const std::string &arguments) const { return shell(tool(OXTRACK_PATH) + arguments); }
  Result scene(const std::string &arguments) const { return shell(tool(OXSCENE_PATH) + arguments); }

 private:
  std::filesystem::path root_;
};

}  // namespace command
