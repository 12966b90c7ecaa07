// Attaching and detaching the simulated board, its state directory and its knobs.
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "access/access.h"
#include "sim/sim.h"
#include "sim/sim_board.h"
#include "sim/sim_chip.h"

namespace sim {
namespace {

struct Board {
  bool attached = false;
  bool exitHooked = false;
  std::string dir;
  std::array<void (*)(void), 8> detachFns{};
  size_t nDetach = 0;
};
Board g_board;

// Creates `dir` and any missing parents (like mkdir -p).
bool make_dirs(const std::string &dir) {
  std::string path;
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = dir.find('/', pos + 1);
    path = dir.substr(0, pos);
    if (path.empty()) continue;
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  struct stat st {};
  return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void detach_at_exit() { sim_detach(); }

}  // namespace

bool attached(void) { return g_board.attached; }

const char *state_dir(void) { return g_board.attached ? g_board.dir.c_str() : nullptr; }

long knob(const char *name, long dflt) {
  if (!name) return dflt;
  std::array<char, 96> var{};
  int n = std::snprintf(var.data(), var.size(), "KIVTOOL_SIM_%s", name);
  if (n < 0 || (size_t)n >= var.size()) return dflt;
  const char *text = std::getenv(var.data());
  if (!text || !*text) return dflt;
  char *end = nullptr;
  errno = 0;
  long v = std::strtol(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0') return dflt;
  return v;
}

void at_detach(void (*fn)(void)) {
  if (!fn) return;
  for (size_t i = 0; i < g_board.nDetach; ++i)
    if (g_board.detachFns[i] == fn) return;
  if (g_board.nDetach < g_board.detachFns.size()) g_board.detachFns[g_board.nDetach++] = fn;
}

}  // namespace sim

const usb_ops_t *sim_attach(const char *dir) {
  using namespace sim;
  if (!dir || !*dir) return nullptr;
  if (g_board.attached) sim_detach();
  std::string d(dir);
  while (d.size() > 1 && d.back() == '/') d.pop_back();
  if (!make_dirs(d)) {
    std::fprintf(stderr, "kivtool: simulated board: cannot use directory %s: %s\n", d.c_str(), std::strerror(errno));
    return nullptr;
  }
  if (!store_open(d.c_str())) {
    std::fprintf(stderr, "kivtool: simulated board: cannot create %s/regs.bin: %s\n", d.c_str(), std::strerror(errno));
    return nullptr;
  }
  g_board.dir = d;
  g_board.attached = true;
  faults_parse(std::getenv("KIVTOOL_SIM_FAULTS"));
  bus_reset();
  adapter_reset();
  chip_reset();
  reg_width_notice_set(width_notice);
  if (!g_board.exitHooked) {
    std::atexit(detach_at_exit);
    g_board.exitHooked = true;
  }
  return bus_ops();
}

void sim_detach(void) {
  using namespace sim;
  if (!g_board.attached) return;
  for (size_t i = 0; i < g_board.nDetach; ++i) g_board.detachFns[i]();
  g_board.nDetach = 0;
  reg_width_notice_set(nullptr);
  adapter_reset();
  faults_parse(nullptr);
  bus_reset();
  store_close();
  g_board.attached = false;
  g_board.dir.clear();
}

int sim_adapter_out(const uint8_t *bytes, size_t size) {
  if (!sim::attached() || sim::bus_unplugged()) return -ENODEV;
  return sim::adapter_out(bytes, size);
}

int sim_adapter_in(uint8_t *bytes, size_t size) {
  if (!sim::attached() || sim::bus_unplugged()) return -ENODEV;
  return sim::adapter_in(bytes, size);
}

bool sim_adapter_unplugged(void) { return sim::bus_unplugged(); }
