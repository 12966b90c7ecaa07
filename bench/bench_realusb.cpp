// CPU per register read through the real libusb-0.1 under the usbfs test bed, beside the
// same reads on the in-process board. Each way runs the tool twice, with 0 and with N
// `reg get` lines, and takes the difference, so start-up drops out. CPU is counted for the
// tool (its children's rusage) and for this process (the bed's ioctl handler thread).
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "run_tool.h"
#include "sim/usbfs/usbfs_bed.h"

namespace {

struct Cost {
  double toolCpuMs = 0, bedCpuMs = 0, wallMs = 0;
};

double cpu_ms(int who) {
  rusage ru{};
  getrusage(who, &ru);
  return (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1e3 + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e3;
}

Cost measure(bool usbfs, int reads) {
  std::string script;
  for (int i = 0; i < reads; ++i) script += "reg get 0x4A180048\n";
  const std::string dir = make_temp_dir("bench-realusb");
  ToolRun r;
  r.input = script;
  r.cwd = dir;
  r.timeoutMs = 600000;
  const double child0 = cpu_ms(RUSAGE_CHILDREN), self0 = cpu_ms(RUSAGE_SELF);
  const auto t0 = std::chrono::steady_clock::now();
  ToolResult res;
  if (usbfs) {
    UsbfsBed bed(dir + "/board");
    bed.plug_decoy();
    bed.plug_adapter();
    r.sim = false;
    r.env = bed.child_env(false);
    res = run_tool(r);
  } else {
    r.env.emplace_back("KIVTOOL_SIM", dir + "/board");
    res = run_tool(r);
  }
  Cost c;
  c.wallMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  c.toolCpuMs = cpu_ms(RUSAGE_CHILDREN) - child0;
  c.bedCpuMs = cpu_ms(RUSAGE_SELF) - self0;
  if (res.status != 0 || res.out.find("Errno") != std::string::npos) fprintf(stderr, "run failed:\n%s\n", res.out.c_str());
  return c;
}

}  // namespace

int main(int argc, char **argv) {
  std::string why;
  if (!usbfs_bed_available(why)) {
    fprintf(stderr, "%s\n", why.c_str());
    return 1;
  }
  const int n = argc > 1 ? atoi(argv[1]) : 500;
  printf("register reads: %d per run (difference of a run with %d reads and one with none)\n", n, n);
  printf("%-22s %14s %14s %14s\n", "path", "tool CPU/read", "bed CPU/read", "wall/read");
  for (bool usbfs : {false, true}) {
    const Cost base = measure(usbfs, 0), full = measure(usbfs, n);
    printf("%-22s %11.1f us %11.1f us %11.1f us\n", usbfs ? "libusb-0.1 + usbfs bed" : "in-process board",
           (full.toolCpuMs - base.toolCpuMs) * 1e3 / n, (full.bedCpuMs - base.bedCpuMs) * 1e3 / n,
           (full.wallMs - base.wallMs) * 1e3 / n);
  }
  return 0;
}
