// Replacing a file without ever leaving it missing, keeping what it held
// before, and numbered generations of a file that grows.
#ifndef VELPROBE_UTIL_FILE_REPLACEMENT_H_
#define VELPROBE_UTIL_FILE_REPLACEMENT_H_

#include <cstddef>
#include <cstdint>

#include "error_text.h"

#pragma GCC visibility push(default)
namespace velprobe {

// make_backup_name forms "<path>.bak" in the size bytes of buffer, cut to
// size - 1 characters, and returns the uncut length. A name that got cut can
// equal the path: whoever must not touch the path compares first.
int make_backup_name(char* buffer, std::size_t size, const char* path);

// make_temp_name does the same with "<path>.tmp".
int make_temp_name(char* buffer, std::size_t size, const char* path);

// get_file_size stores the size in bytes of the file that path names, links
// followed.
//
// Failure: "Error retrieving file size for %s: %s" (path, system's text).
ErrorText get_file_size(const char* path, std::uint64_t* out_size);

// replace_with_backup puts the finished new_file in the place of destination
// and keeps the previous destination, when there is one, as backup. The
// destination is missing at no moment. The three paths must differ and be on
// one file system.
//
// Returns 1 and sets *out_text to "No Error". Otherwise returns 0 and sets it
// to "Failed linking to backup file" (destination replaced, but no backup) or
// "Failed renaming new file to destination" (destination as it was, new_file
// deleted). The texts are constants.
int replace_with_backup(const char* destination, const char* backup,
                        const char* new_file, const char** out_text);

// rotate_numbered_files renames path to path.1, what was path.1 to path.2 and
// so on up to path.<generations>; what had that name is removed. Missing
// generations are skipped. Fewer than 2 generations: nothing is done. More than
// 99,999,999 count as that many.
//
// Failures: "Rename failed with code %d, error %s" (-1, system's text) when
// path itself cannot be renamed, the others have been by then; "Out of memory".
ErrorText rotate_numbered_files(const char* path, int generations);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_UTIL_FILE_REPLACEMENT_H_
