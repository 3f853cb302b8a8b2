#include "outcome.h"

#include <cstdio>

namespace velprobe {
namespace {

// What to do when the server speaks the protocol but has no Node for us.
constexpr const char* kNodeAdvice =
    "You may keep this agent configuration, but afterward you\n"
    "should log in to the Veltra server, and configure a Node.\n"
    "The name of that Node must be the same as the name specified\n"
    "in the configuration of this agent. The easiest way to do this, is to\n"
    "start this agent and let it check in. This will show a box in the\n"
    "web interface (under the configure tab) allowing you to add the newly\n"
    "checked in agent as a Node.";

constexpr const char* kNobodyAccepts =
    "Found no Veltra server willing to accept us, sorry.";

// Each text is printed as one line; unused places are null.
struct Outcome {
  Verdict verdict;
  Mode mode;
  const char* lines[4];
};

constexpr Outcome kOutcomes[] = {
    {Verdict::kNoneAnswered,
     Mode::kTest,
     {kNobodyAccepts, "You may want to try 'configure' instead of 'test'."}},
    {Verdict::kNoneAnswered, Mode::kConfigure, {kNobodyAccepts}},
    {Verdict::kAllAccepted,
     Mode::kTest,
     {"Test completed successfully. All OK.\n"}},
    {Verdict::kSomeAccepted,
     Mode::kTest,
     {"This agent could only check in to some of specified servers.",
      "\nTest completed with partial success ",
      "     -> Some, but not all servers accepted connection.\n"}},
    {Verdict::kNoneAccepted,
     Mode::kTest,
     {"It appears this agent is not yet configured on the Veltra Server.",
      kNodeAdvice,
      "\nTest completed with partial success -> Add node on server.\n"}},
    {Verdict::kAllAccepted,
     Mode::kConfigure,
     {"Found the following working settings:"}},
    {Verdict::kSomeAccepted,
     Mode::kConfigure,
     {"This agent could only check in to some of specified servers.\n",
      "Found the following working settings:"}},
    {Verdict::kNoneAccepted,
     Mode::kConfigure,
     {"Found the following settings, but it appears this agent is not ",
      "yet configured on the Veltra Server.", kNodeAdvice}},
};

}  // namespace

Verdict judge(bool any_answered, bool any_accepted, bool any_rejected) {
  if (!any_answered) return Verdict::kNoneAnswered;
  if (!any_rejected) return Verdict::kAllAccepted;
  return any_accepted ? Verdict::kSomeAccepted : Verdict::kNoneAccepted;
}

void print_outcome(Verdict verdict, Mode mode) {
  for (const Outcome& outcome : kOutcomes) {
    if (outcome.verdict != verdict || outcome.mode != mode) continue;
    for (const char* line : outcome.lines) {
      if (line != nullptr) std::puts(line);
    }
  }
}

}  // namespace velprobe
