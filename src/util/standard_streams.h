// The standard streams a program starts with.
#ifndef VELPROBE_UTIL_STANDARD_STREAMS_H_
#define VELPROBE_UTIL_STANDARD_STREAMS_H_

namespace velprobe {

// prepare_standard_streams opens descriptors 0, 1 and 2 on the null device
// where the caller closed them, so that no socket or file takes their numbers,
// and makes standard output show each line at once, through a pipe too. To be
// called before anything else is opened. False when the null device is not to
// be had or the buffer cannot be set: standard error then says so.
[[nodiscard]] bool prepare_standard_streams();

}  // namespace velprobe

#endif  // VELPROBE_UTIL_STANDARD_STREAMS_H_
