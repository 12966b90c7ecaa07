// Cost of flash work on the simulated board: CPU time and USB bulk transfers per KiB read
// and programmed through the flash access layer, and a whole 1 MiB `spi update` followed by
// `spi verify` through the command engine. Transfers are counted at the usb_ boundary, so
// the projection for a real adapter at USB full speed is transfers x 1 ms.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "access/access.h"
#include "bench/bench_quiet.h"
#include "access/usbio.h"
#include "internal/common/hx5200_spiflash.h"
#include "kiv/kiv_parser.h"
#include "sim/sim.h"

namespace {

usb_ops_t g_counting;
const usb_ops_t *g_board = nullptr;
uint64_t g_transfers = 0;

int count_write(usb_dev_handle *h, int ep, char *bytes, int size, int timeout) {
  ++g_transfers;
  return g_board->bulk_write(h, ep, bytes, size, timeout);
}
int count_read(usb_dev_handle *h, int ep, char *bytes, int size, int timeout) {
  ++g_transfers;
  return g_board->bulk_read(h, ep, bytes, size, timeout);
}

std::string g_dir;

// The board in a fresh directory, reached over I2C like a default kivcfg.txt does.
void attach_board() {
  if (g_board) return;
  std::array<char, 64> tmpl{};
  std::snprintf(tmpl.data(), tmpl.size(), "/tmp/kivbench-flash-XXXXXX");
  if (!mkdtemp(tmpl.data())) std::abort();
  g_dir = tmpl.data();
  g_board = sim_attach(g_dir.c_str());
  if (!g_board) std::abort();
  g_counting = *g_board;
  g_counting.bulk_write = count_write;
  g_counting.bulk_read = count_read;
  usb_ops_set(&g_counting);
  usbio_use_i2c();
  usbio_connect();
  spi_flash_cfg_reset();
  spi_flash_page(PAGE_SPIC);
}

void report(benchmark::State &state, uint64_t transfers, double kib) {
  double perKib = (double)transfers / ((double)state.iterations() * kib);
  state.counters["transfers/KiB"] = perKib;
  state.counters["USB-FS ms/KiB"] = perKib * 1.0;   // 1 ms per transfer
}

void BM_ReadKiB(benchmark::State &state) {
  attach_board();
  std::vector<uint8_t> buf(1024);
  uint64_t before = g_transfers;
  for (auto _ : state) {
    spi_flash_read(0x10000, buf.data(), (uint32_t)buf.size());
    benchmark::DoNotOptimize(buf.data());
  }
  report(state, g_transfers - before, 1.0);
}
BENCHMARK(BM_ReadKiB)->Unit(benchmark::kMicrosecond);

void BM_ProgramKiB(benchmark::State &state) {
  attach_board();
  std::vector<uint8_t> data(1024);
  for (size_t i = 0; i < data.size(); ++i) data[i] = (uint8_t)(i * 13);
  uint64_t before = g_transfers;
  for (auto _ : state) spi_flash_program(0x20000, data.data(), (uint32_t)data.size());
  report(state, g_transfers - before, 1.0);
}
BENCHMARK(BM_ProgramKiB)->Unit(benchmark::kMicrosecond);


void BM_UpdateAndVerify1MiB(benchmark::State &state) {
  attach_board();
  static kiv_uint32 uid = KIV_NOUSER;
  if (uid == KIV_NOUSER) {
    kiv_init(1, 256, 256);
    uid = kiv_userInit("bench", 1, 0xC0, 4, &hx5200_rootGroup);
  }
  const std::string image = g_dir + "/img.bin";
  {
    std::vector<uint8_t> data(1u << 20);
    uint32_t x = 1;
    for (auto &b : data) b = (uint8_t)((x = x * 1103515245u + 12345u) >> 16);
    FILE *f = std::fopen(image.c_str(), "wb");
    std::fwrite(data.data(), 1, data.size(), f);
    std::fclose(f);
  }
  platform_delay_set([](uint32_t us) { return usleep(us); });
  // The plain full rewrite, as the figures in bench/README.md were taken (bench_flash_update
  // compares it with the default flow).
  setenv("KIVTOOL_FLASH_FULL", "1", 1);
  uint64_t before = g_transfers;
  for (auto _ : state) {
    run_line(uid, "spi update " + image);
    run_line(uid, "spi verify " + image);
  }
  state.counters["transfers"] = (double)(g_transfers - before) / (double)state.iterations();
}
BENCHMARK(BM_UpdateAndVerify1MiB)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
