// The configuration file as bytes.
#ifndef VELPROBE_CONFIG_CONFIG_FILE_H_
#define VELPROBE_CONFIG_CONFIG_FILE_H_

#include <sys/stat.h>

#include "../util/byte_buffer.h"
#include "../util/error_text.h"
#include "../util/owners.h"
#include "config_paths.h"

namespace velprobe {

// OldFile is the file that a rewrite replaces.
struct OldFile {
  // None: there is no file. It holds the lock, for whose end another process
  // waits.
  FileDescriptor descriptor;
  // Somebody else had the lock for as long as this process waited.
  bool is_refused = false;
  // Empty when the file could be looked at only.
  ByteBuffer bytes;
  // Of the descriptor that the bytes come from.
  struct stat status;
};

// read_old_file locks (flock) and reads the whole file. It waits up to five
// seconds for the lock, and as long for a file that another rewrite has between
// two names; without the lock the file is read all the same. A file that cannot
// be opened is no failure here.
//
// Failures: could_not_open's text, for what is no regular file, a read error, a
// file of more than 64 MiB, and when memory runs out; error_opening's text,
// when the file's owner and mode are not to be had, or when it is still between
// two names after five seconds.
ErrorText read_old_file(const ConfigPaths& paths, OldFile& out);

// read_config_bytes reads the whole file, and then deletes the side files
// unless another process is rewriting the file. It never waits for a lock, but
// up to five seconds for a file that another process has between two names.
// out_open_error is 0, or the number with which the system refused to open the
// file.
//
// Failure: could_not_open's text, for a read error, more than 64 MiB, and when
// memory runs out.
ErrorText read_config_bytes(const ConfigPaths& paths, ByteBuffer& out_bytes,
                            int& out_open_error);

// read_whole appends everything up to the end of a file, pipe or device.
// Returns 0 or a system error number, EFBIG after 64 MiB.
int read_whole(int descriptor, ByteBuffer& bytes);

// could_not_open gives "Could not open configuration file %s: %s" with the
// system's text for the number.
ErrorText could_not_open(const char* path, int error_number);

// error_opening gives "Error opening %s: %s" with the temporary file's name and
// the last error of the system.
ErrorText error_opening(const ConfigPaths& paths);

}  // namespace velprobe

#endif  // VELPROBE_CONFIG_CONFIG_FILE_H_
