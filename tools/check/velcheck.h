// The program: the verdict on many servers at once, in bounded time.
#ifndef VELPROBE_CHECK_VELCHECK_H_
#define VELPROBE_CHECK_VELCHECK_H_

namespace velprobe::check {

// run_velcheck does what the command line asks for and ends the program: with 0
// (OK), 1 (WARNING), 2 (CRITICAL) or 3 (UNKNOWN, also after a complaint,
// without memory and without a place for the output). It ends it at once:
// threads that hang in a look-up are not waited for.
[[noreturn]] void run_velcheck(int argc, char** argv);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_VELCHECK_H_
