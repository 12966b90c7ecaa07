// Cost of the access layer on the simulated board: CPU per adapter exchange, bulk
// transfers per register access (counted from a capture) and the CPU a completion wait
// burns while nothing answers.
#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "access/access.h"
#include "access/usbio.h"
#include "sim/sim.h"

namespace {

std::string temp_dir() {
  char tmpl[] = "/tmp/kivbench.XXXXXX";
  const char *d = mkdtemp(tmpl);
  return d ? d : "/tmp";
}

bool board_up() {
  static bool up = false;
  if (up) return true;
  const usb_ops_t *ops = sim_attach(temp_dir().c_str());
  if (!ops) return false;
  usb_ops_set(ops);
  usbio_use_i2c();
  usbio_connect();
  up = usbio_handle != nullptr;
  return up;
}

void select_interface(int iface) {
  if (iface == ACCESS_IF_I2C) usbio_use_i2c();
  if (iface == ACCESS_IF_SMI) usbio_use_smi();
  if (iface == ACCESS_IF_SPI) usbio_use_spi();
}

// Bulk transfers per access from a capture of `n` accesses: one record pair per transfer.
double transfers_per_access(int iface, bool write, int n) {
  const std::string path = temp_dir() + "/count.pcap";
  select_interface(iface);
  if (usb_capture_open(path.c_str()) != 0) return -1;
  uint32_t v = 0;
  for (int i = 0; i < n; ++i) {
    if (write) reg_write(1, 0x100, static_cast<uint32_t>(i));
    else reg_read(1, 0x100, &v);
  }
  usb_capture_close();
  FILE *f = fopen(path.c_str(), "rb");
  if (!f) return -1;
  fseek(f, 24, SEEK_SET);
  long records = 0;
  uint32_t rh[4];
  while (fread(rh, sizeof rh, 1, f) == 1) {
    ++records;
    fseek(f, rh[2], SEEK_CUR);
  }
  fclose(f);
  remove(path.c_str());
  return static_cast<double>(records) / 2.0 / n;
}

void RegisterAccess(benchmark::State &state, int iface, bool write) {
  if (!board_up()) {
    state.SkipWithError("board not available");
    return;
  }
  select_interface(iface);
  uint32_t v = 0;
  uint32_t i = 0;
  for (auto _ : state) {
    const int32_t rc = write ? reg_write(1, 0x100, i++) : reg_read(1, 0x100, &v);
    benchmark::DoNotOptimize(rc);
  }
  const double xfers = transfers_per_access(iface, write, 50);
  state.counters["bulk_per_access"] = xfers;
  state.counters["usb_fs_ms_per_access"] = xfers * 1.0;  // 1 ms per transfer at full speed
  select_interface(ACCESS_IF_I2C);
}

// One exchange at the adapter level (no register dispatch on top).
void Exchange(benchmark::State &state) {
  if (!board_up()) {
    state.SkipWithError("board not available");
    return;
  }
  const uint8_t a[3] = {0x00, 0x01, 0x00};
  uint8_t d[4] = {};
  for (auto _ : state) benchmark::DoNotOptimize(usbio_read(usbio_handle, 0x14, 1, a, 3, d, 4, 200000));
}

// ---- a completion wait that never ends: wall time against CPU time ---------------------------
int silent_status = 0;
void s_init() {}
int s_zero() { return 0; }
usb_bus *s_busses() { return nullptr; }
usb_dev_handle *s_open(struct usb_device *) { return nullptr; }
int s_close(usb_dev_handle *) { return 0; }
int s_iface(usb_dev_handle *, int) { return 0; }
int s_write(usb_dev_handle *, int, char *, int size, int) { return size; }
// Acknowledges the command, then fails every read at once: the host must not spin on it.
int s_read(usb_dev_handle *, int, char *bytes, int, int) {
  if (silent_status) {
    silent_status = 0;
    bytes[0] = static_cast<char>(0xAA);
    return 1;
  }
  return -ETIMEDOUT;
}
constexpr usb_ops_t kSilent = {s_init, s_zero, s_zero, s_busses, s_open, s_close, s_iface, s_iface, s_write, s_read};

double cpu_seconds() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

void CompletionWaitTimesOut(benchmark::State &state) {
  const usb_ops_t *saved = usb_ops_get();
  usb_ops_set(&kSilent);
  int objHandle = 0;
  usb_dev_handle *h = reinterpret_cast<usb_dev_handle *>(&objHandle);
  double cpu = 0;
  for (auto _ : state) {
    silent_status = 1;
    const double c0 = cpu_seconds();
    benchmark::DoNotOptimize(usbio_config(h, 0x11, 1, 2, 0xA8, 200000));
    cpu += cpu_seconds() - c0;
  }
  state.counters["cpu_ms_per_wait"] = cpu * 1000.0 / static_cast<double>(state.iterations());
  usb_ops_set(saved);
}

}  // namespace

BENCHMARK_CAPTURE(RegisterAccess, i2c_read, ACCESS_IF_I2C, false);
BENCHMARK_CAPTURE(RegisterAccess, i2c_write, ACCESS_IF_I2C, true);
BENCHMARK_CAPTURE(RegisterAccess, spi_read, ACCESS_IF_SPI, false);
BENCHMARK_CAPTURE(RegisterAccess, spi_write, ACCESS_IF_SPI, true);
BENCHMARK_CAPTURE(RegisterAccess, smi_read, ACCESS_IF_SMI, false);
BENCHMARK_CAPTURE(RegisterAccess, smi_write, ACCESS_IF_SMI, true);
BENCHMARK(Exchange);
BENCHMARK(CompletionWaitTimesOut)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
