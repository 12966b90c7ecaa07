// Platform hook table: printing, file access, line reading and the microsecond delay that
// the access layer and the commands use instead of calling the C library directly.
#include <cstdio>

#include "access/access.h"

namespace {
// The delay slot starts empty: start-up installs the microsecond sleep.
constexpr platform_hooks_t kDefaults{
    printf, fprintf, fgets, fopen, fread, fclose, nullptr,
};

template <typename Fn>
int32_t set_slot(Fn &slot, Fn f) {
  if (!f) return -1;
  slot = f;
  return 0;
}
}  // namespace

platform_hooks_t platform_hooks = kDefaults;

int32_t platform_print_set(plat_print_fn f) { return set_slot(platform_hooks.print, f); }
int32_t platform_fprint_set(plat_fprint_fn f) { return set_slot(platform_hooks.fprint, f); }
int32_t platform_gets_set(plat_gets_fn f) { return set_slot(platform_hooks.gets, f); }
int32_t platform_fopen_set(plat_fopen_fn f) { return set_slot(platform_hooks.fopen, f); }
int32_t platform_fread_set(plat_fread_fn f) { return set_slot(platform_hooks.fread, f); }
int32_t platform_fclose_set(plat_fclose_fn f) { return set_slot(platform_hooks.fclose, f); }
int32_t platform_delay_set(plat_delay_fn f) { return set_slot(platform_hooks.delay, f); }

void hx_delay_us(uint32_t usec) {
  if (platform_hooks.delay) platform_hooks.delay(usec);
}
