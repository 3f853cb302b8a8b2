// A library to preload into a program under test: it counts calls of the system
// by kind and lets a chosen one fail, or ends the process there.
//
//   VELPROBE_FAULT="KIND NTH ERROR FOREVER"   from the NTH call on when FOREVER
//                                             is 1; ERROR 0: killed instead
//   VELPROBE_FAULT_REPORT=FILE                "KIND CALLS" a line at the end,
//                                             and "left-open DESCRIPTORS"
//
// It includes no header that declares what it replaces, and waits last a
// twentieth of what they should.
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

constexpr int kMaxKinds = 32;
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
  if (kind->calls != fault.nth && !(fault.forever && kind->calls > fault.nth))
    return false;
  if (fault.error == 0) kill(getpid(), 9);
  errno = fault.error;
  return true;
}

}  // namespace

// FAULTY(RESULT, NAME, (PARAMETERS), (ARGUMENTS), FAILURE) replaces a function.
#define FAULTY(result, name, parameters, arguments, failure)                  \
  extern "C" result shim_##name parameters asm(#name);                        \
  result shim_##name parameters {                                             \
    static result(*real) parameters;                                          \
    const bool was_armed = armed;                                             \
    armed = false;                                                            \
    if (real == nullptr)                                                      \
      real = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name)); \
    armed = was_armed;                                                        \
    if (strikes(#name)) return failure;                                       \
    return real arguments;                                                    \
  }

FAULTY(int, socket, (int a, int b, int c), (a, b, c), -1)
FAULTY(int, fcntl, (int a, int b, long c), (a, b, c), -1)
FAULTY(int, ioctl, (int a, unsigned long b, void* c), (a, b, c), -1)
FAULTY(int, setsockopt, (int a, int b, int c, const void* d, unsigned e),
       (a, b, c, d, e), -1)
FAULTY(int, getsockopt, (int a, int b, int c, void* d, void* e),
       (a, b, c, d, e), -1)
FAULTY(int, getsockname, (int a, void* b, void* c), (a, b, c), -1)
FAULTY(int, connect, (int a, const void* b, unsigned c), (a, b, c), -1)
FAULTY(int, shutdown, (int a, int b), (a, b), -1)
FAULTY(long, sendto,
       (int a, const void* b, size_t c, int d, const void* e, unsigned f),
       (a, b, c, d, e, f), -1)
FAULTY(long, recvfrom, (int a, void* b, size_t c, int d, void* e, void* f),
       (a, b, c, d, e, f), -1)
FAULTY(int, open, (const char* a, int b, unsigned c), (a, b, c), -1)
FAULTY(long, read, (int a, void* b, size_t c), (a, b, c), -1)
FAULTY(long, write, (int a, const void* b, size_t c), (a, b, c), -1)
FAULTY(int, fchown, (int a, unsigned b, unsigned c), (a, b, c), -1)
FAULTY(int, fchmod, (int a, unsigned b), (a, b), -1)
FAULTY(int, fsync, (int a), (a), -1)
FAULTY(int, stat, (const char* a, void* b), (a, b), -1)
FAULTY(int, rename, (const char* a, const char* b), (a, b), -1)
FAULTY(int, unlink, (const char* a), (a), -1)
FAULTY(int, sigaction, (int a, const void* b, void* c), (a, b, c), -1)
FAULTY(int, setvbuf, (FILE * a, char* b, int c, size_t d), (a, b, c, d), -1)
FAULTY(char*, fgets, (char* a, int b, FILE* c), (a, b, c), nullptr)
// A close that fails has closed all the same.
FAULTY(int, close, (int a), (a), (real(a), errno = fault.error, -1))
FAULTY(int, select, (int a, void* b, void* c, void* d, long* time),
       (a, b, c, d, (time[1] = time[0] * 50000 % 1000000, time[0] /= 20, time)),
       -1)

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
  for (int descriptor = 3; descriptor < 64; ++descriptor)
    if (shim_fcntl(descriptor, 1, 0) >= 0) ++count;
  return count;
}

[[gnu::constructor]] void arm() {
  const char* order = getenv("VELPROBE_FAULT");
  if (order != nullptr)
    sscanf(order, "%15s %ld %d %d", fault.kind, &fault.nth, &fault.error,
           &fault.forever);
  inherited = count_descriptors();
  armed = true;
}

[[gnu::destructor]] void report() {
  armed = false;
  FILE* file = fopen(getenv("VELPROBE_FAULT_REPORT"), "w");
  if (file == nullptr) return;
  fprintf(file, "left-open %d\n", count_descriptors() - inherited);
  for (const Kind* kind = kinds; kind->name != nullptr; ++kind)
    fprintf(file, "%s %ld\n", kind->name, kind->calls);
  fclose(file);
}

}  // namespace
