#include "file_replacement.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "text.h"

namespace velprobe {
namespace {

// A dot, eight digits and the NUL.
constexpr std::size_t kGenerationSuffixSize = 10;
constexpr int kMostGenerations = 99'999'999;

// keep_backup makes backup a second name of destination. A destination that
// does not exist needs no backup.
bool keep_backup(const char* destination, const char* backup) {
  ::unlink(backup);
  if (::link(destination, backup) == 0) return true;
  // The same error number stands for a missing folder of the backup.
  struct stat status;
  return errno == ENOENT && ::lstat(destination, &status) != 0 &&
         errno == ENOENT;
}

}  // namespace

int make_backup_name(char* buffer, std::size_t size, const char* path) {
  return std::snprintf(buffer, size, "%s.bak", path);
}

int make_temp_name(char* buffer, std::size_t size, const char* path) {
  return std::snprintf(buffer, size, "%s.tmp", path);
}

ErrorText get_file_size(const char* path, std::uint64_t* out_size) {
  struct stat status;
  if (::stat(path, &status) != 0) {
    const int error_number = take_last_os_error();
    return {format_error_text("Error retrieving file size for %s: %s", path,
                              os_error_text(error_number)),
            error_number};
  }
  *out_size = static_cast<std::uint64_t>(status.st_size);
  return {};
}

int replace_with_backup(const char* destination, const char* backup,
                        const char* new_file, const char** out_text) {
  const bool has_backup = keep_backup(destination, backup);
  if (std::rename(new_file, destination) != 0) {
    *out_text = "Failed renaming new file to destination";
    ::unlink(new_file);
    return 0;
  }
  *out_text = has_backup ? "No Error" : "Failed linking to backup file";
  return has_backup ? 1 : 0;
}

ErrorText rotate_numbered_files(const char* path, int generations) {
  if (generations < 2) return {};
  const std::size_t size = std::strlen(path) + kGenerationSuffixSize;
  Text newer = new_text(size);
  Text older = new_text(size);
  if (!newer || !older) return kNoMemory;

  generations = std::min(generations, kMostGenerations);
  std::snprintf(older.get(), size, "%s.%i", path, generations);
  std::remove(older.get());
  for (int i = generations - 1; i >= 1; --i) {
    std::snprintf(newer.get(), size, "%s.%i", path, i);
    std::rename(newer.get(), older.get());
    std::swap(newer, older);
  }
  if (const int result = std::rename(path, older.get()); result != 0) {
    const int error_number = take_last_os_error();
    return {format_error_text("Rename failed with code %d, error %s", result,
                              os_error_text(error_number)),
            error_number};
  }
  return {};
}

}  // namespace velprobe
