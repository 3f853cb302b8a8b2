// The final verdict of a run and the lines that tell it.
#ifndef VELPROBE_DRIVER_OUTCOME_H_
#define VELPROBE_DRIVER_OUTCOME_H_

namespace velprobe {

enum class Mode { kTest, kConfigure };

// Verdict sums up the probes. Servers that gave no usable answer have no
// weight beside one that did.
enum class Verdict {
  kNoneAnswered,  // no server answered the protocol
  kAllAccepted,   // every server that answered accepted the agent
  kSomeAccepted,  // some accepted, some refused
  kNoneAccepted,  // every server that answered refused the agent
};

// judge tells the verdict from what the probes of a run found.
Verdict judge(bool any_answered, bool any_accepted, bool any_rejected);

// print_outcome prints the lines of a verdict on standard output.
void print_outcome(Verdict verdict, Mode mode);

}  // namespace velprobe

#endif  // VELPROBE_DRIVER_OUTCOME_H_
