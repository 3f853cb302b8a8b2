// What the resolver's error codes mean.
#ifndef VELPROBE_NET_RESOLVER_FAILURE_H_
#define VELPROBE_NET_RESOLVER_FAILURE_H_

#include "../util/error_text.h"

namespace velprobe {

// resolver_failure is the text of resolve_host for one error code of the
// resolver (h_errno).
ErrorText resolver_failure(const char* name, int code);

}  // namespace velprobe

#endif  // VELPROBE_NET_RESOLVER_FAILURE_H_
