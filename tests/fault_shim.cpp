// A library to preload into a program under test: it counts calls of the system
// by kind and lets a chosen one fail, or stops the process before it.
//
//   VELPROBE_FAULT="KIND NTH ERROR FOREVER"   from the NTH call on when FOREVER
//                                             is 1; ERROR -1: stopped first,
//                                             and then as it should be
//   VELPROBE_FAULT="fstatfs 0 -2 1"           files are as on NFS
//   VELPROBE_FAULT_REPORT=FILE                "KIND CALLS" a line at the end,
//                                             and "left-open DESCRIPTORS"
//
// It includes no header that declares what it replaces. Waits for a socket last
// a fiftieth of what they should, pauses even less.
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
int kill(int process, int signal);
int getpid();
}

namespace {

struct Kind {
  const char* name;
  long calls;
};

struct Fault {
  char kind[16];
  long nth;
  int error;
  int forever;
};

constexpr int kMaxKinds = 64;
Kind kinds[kMaxKinds];
Fault fault;
bool armed;
int inherited;

// strikes counts a call and tells whether it is to fail, errno being set then.
bool strikes(const char* name) {
  if (!armed) return false;
  Kind* kind = kinds;
  while (kind->name != nullptr && strcmp(kind->name, name) != 0) ++kind;
  kind->name = name;
  ++kind->calls;
  if (strcmp(name, fault.kind) != 0) return false;
  if (kind->calls != fault.nth && !(fault.forever && kind->calls > fault.nth)) {
    return false;
  }
  if (fault.error == -1) {
    kill(getpid(), 19);
    return false;
  }
  errno = fault.error;
  return true;
}

// haste gives a part of the time that an argument of a waiting call points at.
long haste(long time, long part) {
  if (time == 0) return 0;
  const long* const given = reinterpret_cast<const long*>(time);
  constexpr long kSecond = 1000000000;
  const long nanoseconds = (given[0] * kSecond + given[1]) / part;
  static long shortened[2];
  shortened[0] = nanoseconds / kSecond;
  shortened[1] = nanoseconds % kSecond;
  return reinterpret_cast<long>(shortened);
}

}  // namespace

// FAULTY(NAME, KIND, A, C, FAILURE) replaces a function, whose first and third
// argument become A and C. Whatever its type, its arguments are in the first
// six registers for whole numbers and pointers, and its result in one of them.
using Any = long;
using Function = Any (*)(Any, Any, Any, Any, Any, Any);
#define FAULTY(name, kind, first, third, failure)                      \
  extern "C" Any shim_##name(Any, Any, Any, Any, Any, Any) asm(#name); \
  Any shim_##name(Any a, Any b, Any c, Any d, Any e, Any f) {          \
    static Function real;                                              \
    const bool was_armed = armed;                                      \
    armed = false;                                                     \
    if (real == nullptr)                                               \
      real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, #name));      \
    armed = was_armed;                                                 \
    if (strikes(kind)) return failure;                                 \
    return real(first, b, third, d, e, f);                             \
  }
// clang-format off
#define FAULTY_EACH(X)                                                     \
  X(socket) X(ioctl) X(setsockopt) X(getsockopt) X(getsockname) X(connect) \
  X(shutdown) X(sendto) X(recvfrom) X(open) X(openat) X(read) X(write)     \
  X(fstat) X(fstatat) X(fchown) X(fchmod) X(fgetxattr)          \
  X(fsetxattr) X(fremovexattr) X(fsync) X(renameat) X(unlinkat)            \
  X(sigaction) X(setvbuf) X(fflush) X(listen) X(accept4) X(signalfd)      \
  X(eventfd)
// clang-format on
#define FAULTY_MINUS_ONE(name) FAULTY(name, #name, a, c, -1)

FAULTY_EACH(FAULTY_MINUS_ONE)
// What a checking C library calls for flags that the compiler does not know.
FAULTY(__openat_2, "openat", a, c, -1)
FAULTY(ppoll, "ppoll", a, haste(c, 50), -1)
FAULTY(nanosleep, "nanosleep", haste(a, 500), c, -1)
FAULTY(fgets, "fgets", a, c, 0)
FAULTY(pthread_create, "pthread_create", a, c, fault.error)
// Asking for a descriptor's flags (1) cannot fail but for one that is not open.
FAULTY(fcntl, b == 1 ? "getfd" : "fcntl", a, c, -1)
FAULTY(fstatfs, "fstatfs", a, c,
       fault.error == -2 ? (*reinterpret_cast<Any*>(b) = 0x6969, 0) : -1)
// NFS locks exclusively (2) only what is open for writing (F_GETFL, O_ACCMODE).
FAULTY(flock, "flock",
       fault.error == -2 && (b & 2) != 0 &&
               (shim_fcntl(a, 3, 0, 0, 0, 0) & 3) == 0
           ? -1
           : a,
       c, -1)
// A close that fails has closed all the same.
FAULTY(close, "close", a, c, (real(a, b, c, d, e, f), errno = fault.error, -1))

#define FAULTY_MEMORY(name, parameters, arguments)                \
  extern "C" void* shim_##name parameters asm(#name);             \
  void* shim_##name parameters {                                  \
    return strikes("memory") ? nullptr : __libc_##name arguments; \
  }

FAULTY_MEMORY(malloc, (size_t a), (a))
FAULTY_MEMORY(calloc, (size_t a, size_t b), (a, b))
FAULTY_MEMORY(realloc, (void* a, size_t b), (a, b))

namespace {

int count_descriptors() {
  int count = 0;
  for (int descriptor = 3; descriptor < 64; ++descriptor) {
    if (static_cast<int>(shim_fcntl(descriptor, 1, 0, 0, 0, 0)) >= 0) ++count;
  }
  return count;
}

[[gnu::constructor]] void arm() {
  const char* order = getenv("VELPROBE_FAULT");
  if (order != nullptr) {
    sscanf(order, "%15s %ld %d %d", fault.kind, &fault.nth, &fault.error,
           &fault.forever);
  }
  inherited = count_descriptors();
  armed = true;
}

[[gnu::destructor]] void report() {
  armed = false;
  const int left_open = count_descriptors() - inherited;
  const char* name = getenv("VELPROBE_FAULT_REPORT");
  FILE* file = name != nullptr ? fopen(name, "w") : nullptr;
  if (file == nullptr) return;
  fprintf(file, "left-open %d\n", left_open);
  for (const Kind* kind = kinds; kind->name != nullptr; ++kind) {
    fprintf(file, "%s %ld\n", kind->name, kind->calls);
  }
  fclose(file);
}

}  // namespace
