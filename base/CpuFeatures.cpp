#include "base/CpuFeatures.h"

#if defined(_MSC_VER) && !defined(__clang__) && (defined(_M_X64) || defined(_M_IX86))
#include <immintrin.h>  // _xgetbv
#include <intrin.h>     // __cpuid, __cpuidex
#endif

namespace Pendrel::base {

#if defined(_MSC_VER) && !defined(__clang__) && (defined(_M_X64) || defined(_M_IX86))

bool ProcessorHasSsse3() {
  int info[4] = {};
  __cpuid(info, 1);
  return (info[2] & (1 << 9)) != 0;
}

bool ProcessorHasAvx512Vbmi2() {
  int info[4] = {};
  __cpuid(info, 0);
  if (info[0] < 7) return false;
  __cpuid(info, 1);
  const bool osSavesRegisters = (info[2] & (1 << 27)) != 0;  // OSXSAVE
  const bool popcnt = (info[2] & (1 << 23)) != 0;
  if (!osSavesRegisters) return false;
  // The operating system saves the SSE, AVX and all three AVX-512 register states.
  if ((_xgetbv(0) & 0xE6) != 0xE6) return false;
  __cpuidex(info, 7, 0);
  const bool f = (info[1] & (1 << 16)) != 0;
  const bool bmi2 = (info[1] & (1 << 8)) != 0;
  const bool bw = (info[1] & (1 << 30)) != 0;
  const bool vbmi = (info[2] & (1 << 1)) != 0;
  const bool vbmi2 = (info[2] & (1 << 6)) != 0;
  return f && bmi2 && bw && vbmi && vbmi2 && popcnt;
}

#elif defined(__x86_64__) || defined(__i386__)

bool ProcessorHasSsse3() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("ssse3") != 0;
}

bool ProcessorHasAvx512Vbmi2() {
  // These also check that the operating system saves the AVX-512 registers.
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vbmi2") &&
         __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("popcnt");
}

#else  // not x86

bool ProcessorHasSsse3() { return false; }
bool ProcessorHasAvx512Vbmi2() { return false; }

#endif

}  // namespace Pendrel::base
