#include "wipe.h"

namespace velprobe {

#if defined(__x86_64__)

// Vector registers hold keys and blocks after AES, and pieces of whatever the C
// library copied last. It copies with the widest there are; registers 16 to 31
// the compiler itself does not use.
void clear_registers() {
  __asm__ volatile(
      ".irp n,0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15\n\t"
      "pxor %%xmm\\n, %%xmm\\n\n\t"
      ".endr"
      :
      :
      : "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8",
        "xmm9", "xmm10", "xmm11", "xmm12", "xmm13", "xmm14", "xmm15");
  if (__builtin_cpu_supports("avx")) __asm__ volatile("vzeroall");
  if (__builtin_cpu_supports("avx512f")) {
    __asm__ volatile(
        ".irp n,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31\n\t"
        "vpxorq %zmm\\n, %zmm\\n, %zmm\\n\n\t"
        ".endr");
  }
  __asm__ volatile(
      "xor %%eax, %%eax\n\txor %%ecx, %%ecx\n\txor %%edx, %%edx\n\t"
      "xor %%esi, %%esi\n\txor %%edi, %%edi\n\txor %%r8d, %%r8d\n\t"
      "xor %%r9d, %%r9d\n\txor %%r10d, %%r10d\n\txor %%r11d, %%r11d"
      :
      :
      : "rax", "rcx", "rdx", "rsi", "rdi", "r8", "r9", "r10", "r11", "cc");
}

#elif defined(__aarch64__)

// Of registers 8 to 15 a call leaves the lower halves alone.
void clear_registers() {
  __asm__ volatile(
      ".irp n,0,1,2,3,4,5,6,7,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31\n"
      "movi v\\n\\().2d, #0\n"
      ".endr\n"
      ".irp n,0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17\n"
      "mov x\\n, #0\n"
      ".endr"
      :
      :
      : "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v16", "v17", "v18",
        "v19", "v20", "v21", "v22", "v23", "v24", "v25", "v26", "v27", "v28",
        "v29", "v30", "v31", "x0", "x1", "x2", "x3", "x4", "x5", "x6", "x7",
        "x8", "x9", "x10", "x11", "x12", "x13", "x14", "x15", "x16", "x17");
}

#else

void clear_registers() {}

#endif

}  // namespace velprobe
