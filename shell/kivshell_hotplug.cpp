// The adapter leaving or coming while the prompt waits for a key. The kernel's device nodes
// under /dev/bus/usb are watched with inotify (no udev daemon, no library): the open
// adapter's node deleted raises the disconnect event; while none is open, a node created,
// moved in or made accessible raises the connect event when it is the adapter the tool
// would take. Scripts and one-shot runs keep reconnecting at the next access instead.
#include <dirent.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "access/usbio.h"
#include "access/usbio_identity.h"
#include "shell/kivshell.h"

namespace {

constexpr char kRoot[] = "/dev/bus/usb";
constexpr uint32_t kBusEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_ATTRIB | IN_ONLYDIR;

struct BusWatch {
  int wd = -1;
  std::array<char, 16> name{};   // "001"
};

struct Hotplug {
  int fd = -1;
  int rootWd = -1;
  std::array<BusWatch, 32> buses{};
  bool arrivedToo = false;   // an adapter came in the same batch as the open one left
};
Hotplug g_hp;

void watch_bus(const char *name) {
  std::array<char, 64> path{};
  if (std::snprintf(path.data(), path.size(), "%s/%s", kRoot, name) >= (int)path.size()) return;
  const int wd = inotify_add_watch(g_hp.fd, path.data(), kBusEvents);
  if (wd < 0) return;
  BusWatch *free = nullptr;
  for (BusWatch &b : g_hp.buses) {
    if (b.wd == wd) return;
    if (b.wd < 0 && !free) free = &b;
  }
  if (!free) return;
  free->wd = wd;
  std::snprintf(free->name.data(), free->name.size(), "%s", name);
}

const BusWatch *bus_of(int wd) {
  for (const BusWatch &b : g_hp.buses)
    if (b.wd == wd) return &b;
  return nullptr;
}

// Reads what happened since the last look: 0 when the open adapter's node went away, 128
// when the adapter to take is there and usable while none is open, otherwise -1.
int checkEvents() {
  alignas(inotify_event) std::array<char, 4096> buf;
  bool openGone = false, arrived = false;
  for (;;) {
    const ssize_t n = read(g_hp.fd, buf.data(), buf.size());
    if (n <= 0) break;
    for (ssize_t at = 0; at + (ssize_t)sizeof(inotify_event) <= n;) {
      const auto *ev = reinterpret_cast<const inotify_event *>(buf.data() + at);
      at += (ssize_t)sizeof(inotify_event) + ev->len;
      if (at > n) break;
      const char *name = ev->len ? ev->name : "";
      if (ev->wd == g_hp.rootWd) {
        if ((ev->mask & (IN_CREATE | IN_MOVED_TO)) && *name) {
          watch_bus(name);   // a new bus: its devices are watched from now on
          arrived = true;
        }
        continue;
      }
      const BusWatch *bus = bus_of(ev->wd);
      if (!bus) continue;
      if (ev->mask & IN_IGNORED) {
        for (BusWatch &b : g_hp.buses)
          if (b.wd == ev->wd) b = BusWatch{};
        continue;
      }
      if (ev->mask & (IN_DELETE | IN_MOVED_FROM)) {
        std::array<char, 64> node{};
        std::snprintf(node.data(), node.size(), "%s/%s/%s", kRoot, bus->name.data(), name);
        if (usbio_handle && std::strcmp(node.data(), usbio_open_node()) == 0) openGone = true;
      } else {
        arrived = true;
      }
    }
  }
  g_hp.arrivedToo = openGone && arrived;
  if (openGone) return 0;
  if (arrived && !usbio_handle && usbio_target_ready()) return 128;
  return -1;
}

// A quick replug can leave and come back within one batch of events: both are reported.
void reportEvent(int code) {
  usbio_event(code);
  if (code == 0 && g_hp.arrivedToo && usbio_target_ready()) usbio_event(128);
  g_hp.arrivedToo = false;
}

}  // namespace

void kiv_hotplugStart(void) {
  const char *env = getenv("KIVTOOL_HOTPLUG");
  if ((env && std::string_view(env) == "0") || !usbio_identity_active() || g_hp.fd >= 0) return;
  g_hp.fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (g_hp.fd < 0) return;
  g_hp.rootWd = inotify_add_watch(g_hp.fd, kRoot, IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
  if (DIR *d = opendir(kRoot)) {
    while (const dirent *e = readdir(d))
      if (e->d_name[0] != '.') watch_bus(e->d_name);
    closedir(d);
  }
  kiv_readLineWatch(g_hp.fd, checkEvents, reportEvent);
}
