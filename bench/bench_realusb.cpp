// CPU per register read through the real libusb-0.1 under the usbfs test bed, beside the
// same reads on the in-process board. Each way runs the tool twice, with 0 and with N
// `reg get` lines, and takes the difference, so start-up drops out. CPU is counted for the
// tool (its children's rusage) and for this process (the bed's ioctl handler thread).
// Then the start-up of a one-shot run on a host with two adapters, with and without an
// adapter selector, runs interleaved, medians.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

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

// One-shot `reg get` runs on a bed with two adapters, each way in turn; median wall time
// and tool CPU per way.
void startup(int runs) {
  const std::vector<std::vector<std::string>> ways = {
      {}, {"-a", "path:1-3.1"}, {"-a", "serial:A1"}, {"-a", "dev:001/003"}};
  const std::string dir = make_temp_dir("bench-startup");
  UsbfsBed bed(dir + "/bed");
  bed.plug_adapter_at("1-2", "B2", dir + "/B");
  bed.plug_adapter_at("1-3.1", "A1", dir + "/A");
  std::vector<std::vector<double>> wall(ways.size()), cpu(ways.size());
  for (int i = 0; i < runs; ++i) {
    for (size_t w = 0; w < ways.size(); ++w) {
      ToolRun r;
      r.args = ways[w];
      for (const char *a : {"reg", "get", "0x4A180048"}) r.args.push_back(a);
      r.cwd = dir;
      r.sim = false;
      r.env = bed.child_env(false);
      const double child0 = cpu_ms(RUSAGE_CHILDREN);
      const auto t0 = std::chrono::steady_clock::now();
      const ToolResult res = run_tool(r);
      wall[w].push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
      cpu[w].push_back(cpu_ms(RUSAGE_CHILDREN) - child0);
      if (res.out.find("Success!!") == std::string::npos) fprintf(stderr, "run failed:\n%s\n", res.out.c_str());
    }
  }
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  printf("\none-shot start-up with two adapters on the host (reg get), median of %d runs each\n", runs);
  printf("%-22s %12s %12s\n", "selector", "wall", "tool CPU");
  for (size_t w = 0; w < ways.size(); ++w)
    printf("%-22s %9.2f ms %9.2f ms\n", ways[w].empty() ? "(none)" : ways[w][1].c_str(), median(wall[w]),
           median(cpu[w]));
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
  startup(argc > 2 ? atoi(argv[2]) : 31);
  return 0;
}
