// The name of an interface, as the system hands it out.
#ifndef VELPROBE_NET_INTERFACE_NAME_H_
#define VELPROBE_NET_INTERFACE_NAME_H_

#include <net/if.h>

#include "interfaces.h"

namespace velprobe {

// set_nic_name stores an interface's name as the system gave it, with or
// without a NUL at its end; an empty one becomes "no name(%d)" with index.
void set_nic_name(NicInfo& nic, const char (&system_name)[IFNAMSIZ], int index);

}  // namespace velprobe

#endif  // VELPROBE_NET_INTERFACE_NAME_H_
