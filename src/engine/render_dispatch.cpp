// Which kernel set draws. The choice is made once, at the first frame: the
// set named by the environment variable KAVLEN_CPU ("plain", "avx2" or
// "avx512") where the processor can run it, or else the fastest it can run.
// kvl_cpu_use changes it later, for tests and benchmarks that compare sets.
#include <stdio.h>
#include <stdlib.h>

#include "render_internal.h"

namespace kvl_px {

namespace {

// Fastest first.
const kernels* const kSets[] = {
#if KAVLEN_SIMD_X86
    &kAvx512Kernels,
    &kAvx2Kernels,
#endif
    &kPlainKernels,
};

bool runs_here(const kernels* k) {
#if KAVLEN_SIMD_X86
  if (k == &kAvx512Kernels)
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
           __builtin_cpu_supports("avx512dq");
  if (k == &kAvx2Kernels) return __builtin_cpu_supports("avx2");
#endif
  return k == &kPlainKernels;
}

const kernels* find(const char* name) {
  for (const kernels* k : kSets)
    if (strcmp(k->name, name) == 0) return runs_here(k) ? k : nullptr;
  return nullptr;
}

const kernels* fastest() {
  for (const kernels* k : kSets)
    if (runs_here(k)) return k;
  return &kPlainKernels;
}

const kernels* choose_at_start() {
  const kernels* best = fastest();
  const char* env = getenv("KAVLEN_CPU");
  if (!env || !*env) return best;
  if (const kernels* k = find(env)) return k;
  fprintf(stderr, "kavlen: KAVLEN_CPU=%s: no such kernel set in this build for this processor; using %s\n", env,
          best->name);
  return best;
}

const kernels* g_forced = nullptr;  // set by kvl_cpu_use

const kernels* started_with() {
  static const kernels* const chosen = choose_at_start();
  return chosen;
}

}  // namespace

const kernels* active_kernels() {
  const kernels* k = __atomic_load_n(&g_forced, __ATOMIC_ACQUIRE);
  return k ? k : started_with();
}

}  // namespace kvl_px

const char* kvl_cpu_kernels(void) { return kvl_px::active_kernels()->name; }

bool kvl_cpu_use(const char* name) {
  const kvl_px::kernels* k = nullptr;
  if (name && *name) {
    k = kvl_px::find(name);
    if (!k) return false;
  }
  __atomic_store_n(&kvl_px::g_forced, k, __ATOMIC_RELEASE);
  return true;
}
