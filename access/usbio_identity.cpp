// Which adapter to open: the user's selector, the identity kept after the first open, and
// the adapters as sysfs lists them (no device I/O: nothing is opened to look).
#include "access/usbio_identity.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "access/usbio.h"

namespace {

constexpr char kSysfsDevices[] = "/sys/bus/usb/devices";

enum class Kind : uint8_t { none, path, serial, dev };

struct Identity {
  Kind kind = Kind::none;
  std::array<char, 160> text{};    // the selector as given
  std::array<char, 32> port{};     // path selector, or the port kept after the first open
  std::array<char, 128> serial{};  // serial selector, or the serial kept (may stay "")
  unsigned bus = 0, dev = 0;       // dev selector
  bool bound = false;              // an adapter was opened: its port (and serial) are kept
  std::array<char, 512> lastReport{};  // the last "nothing to open" line, not repeated
};
Identity g_id;

template <size_t N>
void copy_to(std::array<char, N> &dst, std::string_view src) {
  const size_t n = std::min(src.size(), N - 1);
  std::memcpy(dst.data(), src.data(), n);
  dst[n] = '\0';
}

bool all_digits(std::string_view s, size_t maxLen) {
  return !s.empty() && s.size() <= maxLen &&
         std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// "B-P[.P...]": bus and port numbers as the kernel writes them.
bool valid_port_path(std::string_view s) {
  if (s.size() >= std::tuple_size_v<decltype(Identity::port)>) return false;
  const size_t dash = s.find('-');
  if (dash == std::string_view::npos || !all_digits(s.substr(0, dash), 3)) return false;
  std::string_view rest = s.substr(dash + 1);
  for (;;) {
    const size_t dot = rest.find('.');
    if (!all_digits(rest.substr(0, dot), 3)) return false;
    if (dot == std::string_view::npos) return true;
    rest = rest.substr(dot + 1);
  }
}

bool valid_serial(std::string_view s) {
  return !s.empty() && s.size() < std::tuple_size_v<decltype(Identity::serial)> &&
         std::all_of(s.begin(), s.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

// "BUS/DEV" as lsusb prints them, each 1..255.
bool parse_dev(std::string_view s, unsigned &bus, unsigned &dev) {
  const size_t slash = s.find('/');
  if (slash == std::string_view::npos) return false;
  const std::string_view b = s.substr(0, slash), d = s.substr(slash + 1);
  if (!all_digits(b, 3) || !all_digits(d, 3)) return false;
  bus = dev = 0;
  for (char c : b) bus = bus * 10 + static_cast<unsigned>(c - '0');
  for (char c : d) dev = dev * 10 + static_cast<unsigned>(c - '0');
  return bus >= 1 && bus <= 255 && dev >= 1 && dev <= 255;
}

// One sysfs attribute as text without its line end; false when it cannot be read.
template <size_t N>
bool read_attr(const char *dir, const char *name, std::array<char, N> &out) {
  std::array<char, 512> path{};
  if (std::snprintf(path.data(), path.size(), "%s/%s/%s", kSysfsDevices, dir, name) >= (int)path.size()) return false;
  const int fd = open(path.data(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const ssize_t n = read(fd, out.data(), N - 1);
  close(fd);
  if (n < 0) return false;
  size_t len = static_cast<size_t>(n);
  while (len > 0 && std::isspace(static_cast<unsigned char>(out[len - 1]))) --len;
  out[len] = '\0';
  return true;
}

unsigned attr_num(const char *dir, const char *name, int base) {
  std::array<char, 16> v{};
  if (!read_attr(dir, name, v) || !v[0]) return 0;
  return static_cast<unsigned>(std::strtoul(v.data(), nullptr, base));
}

bool matches(const UsbioAdapter &a) {
  if (g_id.kind == Kind::serial) return std::strcmp(a.serial.data(), g_id.serial.data()) == 0;
  if (g_id.bound)
    return std::strcmp(a.port.data(), g_id.port.data()) == 0 &&
           (!g_id.serial[0] || std::strcmp(a.serial.data(), g_id.serial.data()) == 0);
  if (g_id.kind == Kind::path) return std::strcmp(a.port.data(), g_id.port.data()) == 0;
  return g_id.kind == Kind::dev && a.busnum == g_id.bus && a.devnum == g_id.dev;
}

// "1-3.1 serial A1, 1-4 no serial" for the lines on standard error.
void describe_present(char *buf, size_t size) {
  std::array<UsbioAdapter, kUsbioMaxAdapters> list;
  const size_t n = usbio_adapters_scan(list.data(), list.size());
  size_t used = 0;
  buf[0] = '\0';
  if (n == 0) std::snprintf(buf, size, "none");
  for (size_t i = 0; i < n && used < size; ++i) {
    const int w = list[i].serial[0]
                      ? std::snprintf(buf + used, size - used, "%s%s serial %s", i ? ", " : "", list[i].port.data(),
                                      list[i].serial.data())
                      : std::snprintf(buf + used, size - used, "%s%s no serial", i ? ", " : "", list[i].port.data());
    if (w < 0) break;
    used += static_cast<size_t>(w);
  }
}

}  // namespace

bool usbio_select(const char *text) {
  Identity id;
  const std::string_view s = text ? text : "";
  if (s.empty()) {
    g_id = id;
    return true;
  }
  if (s.size() >= id.text.size()) return false;
  copy_to(id.text, s);
  if (s.rfind("path:", 0) == 0 || (s.find(':') == std::string_view::npos && valid_port_path(s))) {
    const std::string_view p = s.rfind("path:", 0) == 0 ? s.substr(5) : s;
    if (!valid_port_path(p)) return false;
    id.kind = Kind::path;
    copy_to(id.port, p);
  } else if (s.rfind("serial:", 0) == 0) {
    if (!valid_serial(s.substr(7))) return false;
    id.kind = Kind::serial;
    copy_to(id.serial, s.substr(7));
  } else if (s.rfind("dev:", 0) == 0) {
    if (!parse_dev(s.substr(4), id.bus, id.dev)) return false;
    id.kind = Kind::dev;
  } else {
    return false;
  }
  g_id = id;
  return true;
}

const char *usbio_selector(void) { return g_id.text.data(); }

size_t usbio_adapters_scan(UsbioAdapter *out, size_t max) {
  DIR *d = opendir(kSysfsDevices);
  if (!d) return 0;
  size_t n = 0;
  while (const dirent *e = readdir(d)) {
    const char *name = e->d_name;
    // Interfaces ("1-3:1.0") and root hubs ("usb1") are not devices on a port.
    if (n >= max || name[0] == '.' || std::strchr(name, ':') || !valid_port_path(name)) continue;
    if (attr_num(name, "idVendor", 16) != USBIO_VID || attr_num(name, "idProduct", 16) != USBIO_PID) continue;
    UsbioAdapter a;
    copy_to(a.port, name);
    if (!read_attr(name, "serial", a.serial)) a.serial[0] = '\0';
    a.busnum = attr_num(name, "busnum", 10);
    a.devnum = attr_num(name, "devnum", 10);
    out[n++] = a;
  }
  closedir(d);
  std::sort(out, out + n, [](const UsbioAdapter &a, const UsbioAdapter &b) {
    return std::strcmp(a.port.data(), b.port.data()) < 0;
  });
  return n;
}

void usbio_adapter_node(const UsbioAdapter &a, char *buf, size_t size) {
  std::snprintf(buf, size, "/dev/bus/usb/%03u/%03u", a.busnum, a.devnum);
}

void usbio_list_adapters(FILE *out) {
  std::array<UsbioAdapter, kUsbioMaxAdapters> list;
  const size_t n = usbio_adapters_scan(list.data(), list.size());
  std::fputs("node\tport path\tserial\tthis user can open it\n", out);
  for (size_t i = 0; i < n; ++i) {
    std::array<char, 64> node{};
    usbio_adapter_node(list[i], node.data(), node.size());
    std::fprintf(out, "%s\t%s\t%s\t%s\n", node.data(), list[i].port.data(),
                 list[i].serial[0] ? list[i].serial.data() : "-",
                 access(node.data(), R_OK | W_OK) == 0 ? "yes" : "no");
  }
}

bool usbio_identity_active(void) { return usb_ops_get() == &usb_ops_libusb; }

int usbio_target(UsbioAdapter *pick) {
  if (!usbio_identity_active() || (!g_id.bound && g_id.kind == Kind::none)) return -1;
  std::array<UsbioAdapter, kUsbioMaxAdapters> list;
  const size_t n = usbio_adapters_scan(list.data(), list.size());
  int found = 0;
  for (size_t i = 0; i < n; ++i) {
    if (!matches(list[i])) continue;
    if (found++ == 0 && pick) *pick = list[i];
  }
  return found;
}

bool usbio_target_ready(void) {
  std::array<UsbioAdapter, kUsbioMaxAdapters> list;
  size_t n = 0;
  UsbioAdapter pick;
  const int found = usbio_target(&pick);
  if (found == 1) {
    list[0] = pick;
    n = 1;
  } else if (found < 0) {
    n = usbio_adapters_scan(list.data(), list.size());
  }
  for (size_t i = 0; i < n; ++i) {
    std::array<char, 64> node{};
    usbio_adapter_node(list[i], node.data(), node.size());
    if (access(node.data(), R_OK | W_OK) == 0) return true;
  }
  return false;
}

void usbio_identity_opened(unsigned busnum, unsigned devnum) {
  g_id.lastReport[0] = '\0';
  if (g_id.bound || !usbio_identity_active()) return;
  std::array<UsbioAdapter, kUsbioMaxAdapters> list;
  const size_t n = usbio_adapters_scan(list.data(), list.size());
  for (size_t i = 0; i < n; ++i) {
    if (list[i].busnum != busnum || list[i].devnum != devnum) continue;
    g_id.bound = true;
    copy_to(g_id.port, list[i].port.data());
    if (g_id.kind != Kind::serial) copy_to(g_id.serial, list[i].serial.data());
    if (g_id.kind == Kind::none && n > 1) {
      std::array<char, 64> node{};
      usbio_adapter_node(list[i], node.data(), node.size());
      std::fprintf(stderr,
                   "kivtool: %zu USB I/O adapters on this host; took %s at port %s: choose one with "
                   "-a path:PORT or -a serial:TEXT (kivtool --list-adapters)\n",
                   n, node.data(), list[i].port.data());
    }
    return;
  }
}

bool usbio_identity_kept(const char **port, const char **serial) {
  *port = g_id.port.data();
  *serial = g_id.serial.data();
  return g_id.bound;
}

void usbio_identity_missing(int matches) {
  if (matches < 0) return;
  std::array<char, 384> present{};
  describe_present(present.data(), present.size());
  std::array<char, 512> line{};
  if (matches > 1)
    std::snprintf(line.data(), line.size(),
                  "kivtool: %d USB I/O adapters match '%s'; none is opened: choose one by port with -a path:PORT "
                  "(adapters here: %s)\n",
                  matches, g_id.kind == Kind::serial ? g_id.text.data() : g_id.port.data(), present.data());
  else if (g_id.bound && g_id.kind == Kind::serial)
    std::snprintf(line.data(), line.size(),
                  "kivtool: the USB I/O adapter with serial %s is not on the bus; no other adapter is opened "
                  "(adapters here: %s)\n",
                  g_id.serial.data(), present.data());
  else if (g_id.bound)
    std::snprintf(line.data(), line.size(),
                  "kivtool: the USB I/O adapter at port %s%s%s is not on the bus; no other adapter is opened "
                  "(adapters here: %s)\n",
                  g_id.port.data(), g_id.serial[0] ? " with serial " : "", g_id.serial.data(), present.data());
  else
    std::snprintf(line.data(), line.size(), "kivtool: no USB I/O adapter matches '%s' (adapters here: %s)\n",
                  g_id.text.data(), present.data());
  if (std::strcmp(line.data(), g_id.lastReport.data()) == 0) return;
  g_id.lastReport = line;
  std::fputs(line.data(), stderr);
}
