#include "output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "joined.h"
#include "util/owners.h"

namespace velprobe::check {
namespace {

constexpr int kNameAttempts = 100;
constexpr mode_t kModeOfNewFile = 0666;

struct FreeDeleter {
  void operator()(char* text) const { std::free(text); }
};

// Place is where the new file goes: a folder held open and a name in it.
struct Place {
  FileDescriptor folder;
  std::string name;
  bool replaces = false;  // there is an old file, with this status
  struct stat old {};
};

ErrorText failure(const char* what, const char* path) {
  return format_error_text("Error %s %s: %s", what, path, last_os_error_text());
}

bool is_same_file(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool open_folder(const std::string& path, Place& place) {
  const std::size_t slash = path.rfind('/');
  const bool here = slash == path.npos;
  const std::string folder = here ? "." : path.substr(0, slash + 1);
  place.name = here ? path : path.substr(slash + 1);
  place.folder = FileDescriptor(
      ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (place.name.empty()) errno = EISDIR;
  return place.folder && !place.name.empty();
}

// is_trusted_name follows fs.protected_symlinks (proc(5)) whatever its setting
// is: in a folder like /tmp, a link that neither this account nor the folder's
// owner made may have been planted. Nor is a link to nothing replaced.
bool is_trusted_name(const char* path, bool exists) {
  Place place;
  struct stat link {
  }, folder{};
  if (!open_folder(path, place) || ::fstat(place.folder.get(), &folder) != 0 ||
      ::fstatat(place.folder.get(), place.name.c_str(), &link,
                AT_SYMLINK_NOFOLLOW) != 0) {
    return !exists && errno == ENOENT;
  }
  if (!S_ISLNK(link.st_mode)) return true;
  constexpr mode_t kShared = S_ISVTX | S_IWOTH;
  const bool is_shared = (folder.st_mode & kShared) == kShared;
  const bool is_ours =
      link.st_uid == ::geteuid() || link.st_uid == folder.st_uid;
  errno = exists ? EACCES : ENOENT;
  return exists && (is_ours || !is_shared);
}

// find_old_place finds where the opened file stands, behind links. The system
// judged these as it opened the file, so the name they lead to must still be
// that file.
bool find_old_place(const char* path, int opened, Place& place) {
  if (::fstat(opened, &place.old) != 0) return false;
  const std::unique_ptr<char, FreeDeleter> real(::realpath(path, nullptr));
  if (!real || !open_folder(real.get(), place)) return false;
  struct stat named {};
  if (::fstatat(place.folder.get(), place.name.c_str(), &named,
                AT_SYMLINK_NOFOLLOW) != 0) {
    return false;
  }
  place.replaces = is_same_file(named, place.old);
  if (!place.replaces) errno = EAGAIN;
  return place.replaces;
}

FileDescriptor create_beside(const Place& place, std::string& out_name) {
  for (int i = 0; i < kNameAttempts; ++i) {
    out_name = joined({".", place.name.substr(0, NAME_MAX / 2), ".",
                       std::to_string(::getpid()), ".", std::to_string(i)});
    FileDescriptor file(::openat(place.folder.get(), out_name.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                                 place.replaces ? 0600 : kModeOfNewFile));
    if (file || errno != EEXIST) return file;
  }
  return {};
}

bool keep_mode(int file, const struct stat& old) {
  // Only root may give a file away; for others the mode is what can be kept.
  if (::fchown(file, old.st_uid, old.st_gid) != 0) errno = 0;
  return ::fchmod(file, old.st_mode & 0777) == 0;
}

bool write_and_rename(const Place& place, const std::string& temporary,
                      int file, std::string_view text) {
  if (!write_all(file, text)) return false;
  if (place.replaces && !keep_mode(file, place.old)) return false;
  if (::fsync(file) != 0 ||
      ::renameat(place.folder.get(), temporary.c_str(), place.folder.get(),
                 place.name.c_str()) != 0) {
    return false;
  }
  // Not every file system can flush a folder.
  ::fsync(place.folder.get());
  return true;
}

ErrorText replace_at(const Place& place, const char* path,
                     std::string_view text) {
  std::string temporary;
  const FileDescriptor file = create_beside(place, temporary);
  if (!file) return failure("opening", path);
  if (write_and_rename(place, temporary, file.get(), text)) return {};
  const ErrorText error = failure("writing to", path);
  ::unlinkat(place.folder.get(), temporary.c_str(), 0);
  return error;
}

// What is no regular file is written to as it is, if the path still leads to
// it. A pipe that nobody reads is an error instead of a wait.
ErrorText write_in_place(const char* path, int looked_at,
                         std::string_view text) {
  const FileDescriptor file(
      ::open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) return failure("opening", path);
  struct stat before {
  }, now{};
  if (::fstat(looked_at, &before) != 0 || ::fstat(file.get(), &now) != 0) {
    return failure("opening", path);
  }
  if (!is_same_file(before, now)) {
    errno = EAGAIN;
    return failure("opening", path);
  }
  if (::fcntl(file.get(), F_SETFL, 0) != 0 || !write_all(file.get(), text)) {
    return failure("writing to", path);
  }
  return {};
}

// By way of /dev/stdout, say, a log that the shell appends to would be lost.
bool is_standard_output(int file) {
  struct stat named {
  }, output{};
  return ::fstat(file, &named) == 0 && ::fstat(STDOUT_FILENO, &output) == 0 &&
         is_same_file(named, output);
}

bool is_regular(int file) {
  struct stat status {};
  return ::fstat(file, &status) != 0 || S_ISREG(status.st_mode);
}

// The pipe that a caller hands down may be non-blocking.
bool wait_for_room(int descriptor) {
  pollfd waited = {descriptor, POLLOUT, 0};
  return ::poll(&waited, 1, -1) >= 0 || errno == EINTR;
}

}  // namespace

bool write_all(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EAGAIN && wait_for_room(descriptor)) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

ErrorText replace_file(const char* path, std::string_view text) {
  Place place;
  const FileDescriptor old(::open(path, O_PATH | O_CLOEXEC));
  if (!old && errno != ENOENT) return failure("opening", path);
  if (!is_trusted_name(path, static_cast<bool>(old))) {
    return failure("opening", path);
  }
  if (old && is_standard_output(old.get())) {
    return write_all(STDOUT_FILENO, text) ? ErrorText()
                                          : failure("writing to", path);
  }
  if (old && !is_regular(old.get())) {
    return write_in_place(path, old.get(), text);
  }
  const bool found =
      old ? find_old_place(path, old.get(), place) : open_folder(path, place);
  if (!found) return failure("opening", path);
  return replace_at(place, path, text);
}

}  // namespace velprobe::check
