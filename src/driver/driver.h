// The program: two operations, one story.
#ifndef VELPROBE_DRIVER_DRIVER_H_
#define VELPROBE_DRIVER_DRIVER_H_

namespace velprobe {

// run_velprobe does what the command line asks for and returns the exit status:
// 1 after a failure of start-up, usage, configuration, scan, memory, prompt or
// update, else 0, also when no server accepted the agent. It prints on standard
// output; the complaints about the command line go to standard error.
int run_velprobe(int argc, char** argv);

}  // namespace velprobe

#endif  // VELPROBE_DRIVER_DRIVER_H_
