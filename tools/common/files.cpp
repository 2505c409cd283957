// SPDX-License-Identifier: MIT
#include "common/files.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "common/failure.h"

namespace tool {
namespace {

constexpr mode_t kNewFileMode = 0666;  // before the umask
constexpr mode_t kModeBits = 07777;

[[noreturn]] void fail(const std::string& name, int error) {
  throw Failure(name + ": " + std::generic_category().message(error));
}

class File {
 public:
  explicit File(int descriptor) : descriptor_(descriptor) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }

  int get() const { return descriptor_; }

  // Some file systems report a full disk only here.
  void close(const std::string& name) {
    if (::close(std::exchange(descriptor_, -1)) != 0 && errno != EINTR) fail(name, errno);
  }

 private:
  int descriptor_;
};

// Removes the file unless it was renamed.
class Temporary {
 public:
  explicit Temporary(std::string path) : path_(std::move(path)) {}
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;
  ~Temporary() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }

  int rename_to(const std::string& path) {
    if (std::rename(path_.c_str(), path.c_str()) != 0) return errno;
    path_.clear();
    return 0;
  }

 private:
  std::string path_;
};

void write_descriptor(int descriptor, const std::string& name, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) fail(name, errno);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::string directory_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// A link in /proc, as behind /dev/stdout, to a file that this process has open, wherever that is and whatever its name is
// now.
constexpr int kNoDescriptor = -1;
int open_descriptor(const std::string& link) {
  const std::string directory = directory_of(link);
  struct statfs system {};
  if (::statfs(directory.empty() ? "." : directory.c_str(), &system) != 0 || system.f_type != PROC_SUPER_MAGIC)
    return kNoDescriptor;
  int descriptor = kNoDescriptor;
  std::from_chars(link.data() + directory.size(), link.data() + link.size(), descriptor);
  struct stat named {}, open {};
  const bool same = ::stat(link.c_str(), &named) == 0 && ::fstat(descriptor, &open) == 0 &&
                    named.st_dev == open.st_dev && named.st_ino == open.st_ino;
  return same ? descriptor : kNoDescriptor;
}

struct Target {
  std::string path;
  int descriptor;  // or kNoDescriptor
};

// Where the last link of a chain points, which may not exist yet: realpath would refuse that.
Target follow_links(std::string path) {
  constexpr int kMostLinks = 40;  // as the kernel's own limit
  for (int links = 0; links <= kMostLinks; ++links) {
    std::array<char, 4096> target;
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0) return {path, kNoDescriptor};
    if (const int descriptor = open_descriptor(path); descriptor >= 0) return {path, descriptor};
    const std::string next(target.data(), static_cast<std::size_t>(length));
    path = (next.front() == '/' ? std::string() : directory_of(path)).append(next);
  }
  fail(path, ELOOP);
}

mode_t new_file_mode() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return kNewFileMode & ~mask;
}

void write_directly(const std::string& path, std::string_view text) {
  File file(::open(path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
  if (file.get() < 0) fail(path, errno);
  write_descriptor(file.get(), path, text);
  file.close(path);
}

}  // namespace

std::string input_name(const std::string& path) { return path == kStandardStream ? "standard input" : path; }

std::string read_whole(const std::string& path) {
  const bool standard = path == kStandardStream;
  const std::string name = input_name(path);
  const File opened(standard ? -1 : ::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC));
  if (!standard && opened.get() < 0) fail(name, errno);
  const int descriptor = standard ? STDIN_FILENO : opened.get();
  std::string text;
  std::array<char, 65536> block;
  for (;;) {
    const ssize_t got = ::read(descriptor, block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail(name, errno);
    if (got == 0) return text;
    text.append(block.data(), static_cast<std::size_t>(got));
  }
}

void write_standard_output(std::string_view text) { write_descriptor(STDOUT_FILENO, "standard output", text); }

void replace_file(const std::string& path, std::string_view text) {
  struct stat existing {};
  const bool exists = ::stat(path.c_str(), &existing) == 0;
  if (!exists && errno != ENOENT) fail(path, errno);
  if (exists && S_ISDIR(existing.st_mode)) fail(path, EISDIR);
  const Target target = follow_links(path);
  if (target.descriptor >= 0) return write_descriptor(target.descriptor, path, text);
  if (exists && !S_ISREG(existing.st_mode)) return write_directly(path, text);
  // A rename asks for the directory's permission only: a file that was made read-only must not lose its contents.
  if (exists && ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0) fail(path, errno);

  std::string beside = directory_of(target.path) + ".ox-XXXXXX";
  File file(::mkostemp(beside.data(), O_CLOEXEC));
  if (file.get() < 0) fail(path, errno);
  Temporary temporary(beside);
  write_descriptor(file.get(), path, text);
  // The owner comes first, as changing it may clear mode bits. Only root can give a file away: with others it
  // becomes theirs, and that is no failure.
  const bool same_owner = exists && ::fchown(file.get(), existing.st_uid, existing.st_gid) == 0;
  static_cast<void>(same_owner);
  if (::fchmod(file.get(), exists ? existing.st_mode & kModeBits : new_file_mode()) != 0) fail(path, errno);
  // Without it a crash soon after the rename can leave an empty file in place of the old one.
  if (::fsync(file.get()) != 0) fail(path, errno);
  file.close(path);
  if (const int error = temporary.rename_to(target.path)) fail(path, error);
}

void guard_standard_streams() {
  // Neither can fail for a signal that exists.
  for (const int signal : {SIGPIPE, SIGXFSZ}) static_cast<void>(std::signal(signal, SIG_IGN));
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) != -1) continue;
    // Opened the wrong way round, so that use fails: open takes the lowest free number, which is this one.
    if (::open("/dev/null", descriptor == STDOUT_FILENO ? O_RDONLY : O_WRONLY) != descriptor) return;
  }
}

}  // namespace tool
