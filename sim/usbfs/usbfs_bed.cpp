#include "sim/usbfs/usbfs_bed.h"

#include <dirent.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <umockdev.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>

#include "sim/sim.h"

namespace {

std::string preload_path() { return std::string(KIV_UMOCKDEV_LIBDIR) + "/libumockdev-preload.so.0"; }

}  // namespace

bool usbfs_bed_available(std::string &why) {
  if (access(preload_path().c_str(), R_OK) == 0) return true;
  why = "umockdev's preload library " + preload_path() +
        " is missing: install the Debian packages umockdev, libumockdev-dev and libumockdev0 (make deps)";
  return false;
}

namespace {

// Device descriptor, configuration, interface 0 and the bulk endpoints 0x02 / 0x81.
std::string descriptors_hex(uint16_t vid, uint16_t pid) {
  const uint8_t d[] = {
      18, 1, 0x00, 0x02, 0xFF, 0, 0, 64, (uint8_t)vid, (uint8_t)(vid >> 8), (uint8_t)pid, (uint8_t)(pid >> 8),
      0x00, 0x01, 0, 0, 0, 1,                          // device
      9, 2, 32, 0, 1, 1, 0, 0x80, 50,                  // configuration 1, 32 bytes in all
      9, 4, 0, 0, 2, 0xFF, 0, 0, 0,                    // interface 0, vendor class, 2 endpoints
      7, 5, 0x02, 2, 64, 0, 0,                         // bulk OUT 0x02
      7, 5, 0x81, 2, 64, 0, 0,                         // bulk IN 0x81
  };
  std::string hex;
  char b[3];
  for (uint8_t v : d) {
    snprintf(b, sizeof b, "%02X", v);   // umockdev wants upper case
    hex += b;
  }
  return hex;
}

}  // namespace

// One submitted URB, kept until the tool reaps it.
struct Urb {
  UMockdevIoctlData *urb = nullptr;   // the client's struct usbdevfs_urb (local copy)
  UMockdevIoctlData *buf = nullptr;   // its buffer
  bool in = false;
  bool done = false;
};

struct Node {
  std::string syspath, devnode;
  std::string port;      // port path, the sysfs name ("1-3.1")
  std::string serial;    // "" : the device has no serial number
  std::string board;     // its own board's directory; "" : the bed's board
  int id = -1;           // the adapter this node is one plug of (plug_adapter_at)
  int devnum = 0;
  bool adapter = false;  // 0x0C55:0x5731
  bool served = false;   // the adapter the bed's board answers for
  size_t claims = 0;     // interface claims made on this node
  bool gone = false;     // pulled: every ioctl of an open handle fails with ENODEV

  bool answers() const { return served || !board.empty(); }
};

struct UsbfsBedImpl {
  UMockdevTestbed *tb = nullptr;
  UMockdevIoctlBase *handler = nullptr;
  std::mutex mu;
  std::vector<Node> nodes;
  std::map<UMockdevIoctlClient *, std::deque<Urb>> urbs;   // per open descriptor, in submit order
  UsbfsBed::Claim claim = UsbfsBed::Claim::ok;
  int nextDevnum = 2;
  int nextId = 0;
  std::atomic<size_t> served{0};
  bool underPreload = false;  // this process runs under umockdev's preload library
  std::string bedBoard;       // the board of adapters without one of their own
  std::string attachedBoard;  // the board the simulation holds now (one at a time)

  // The simulation holds one board at a time: an adapter with another board swaps it in
  // (the state files keep each board's registers and flash across the swap).
  void use_board_locked(const Node &n) {
    const std::string &want = n.board.empty() ? bedBoard : n.board;
    if (want == attachedBoard) return;
    sim_detach();
    sim_attach(want.c_str());
    attachedBoard = want;
  }

  Node *node_of(UMockdevIoctlClient *c) {
    const char *dn = umockdev_ioctl_client_get_devnode(c);
    for (Node &n : nodes)
      if (dn && n.devnode == dn) return &n;
    return nullptr;
  }

  // The board answers for the adapter that libusb-0.1 lists first: it reads the bus
  // directory in readdir order and keeps that order on the first scan. Chosen when the
  // tool first reaches the bed, so every adapter plugged before it counts (caller locks).
  void choose_served_locked() {
    for (const Node &n : nodes)
      if (n.served) return;
    gchar *root = umockdev_testbed_get_root_dir(tb);
    const std::string dir = std::string(root) + "/dev/bus/usb/001";
    g_free(root);
    DIR *d = opendir(dir.c_str());
    if (!d) return;
    while (dirent *e = readdir(d)) {
      for (Node &n : nodes) {
        if (n.adapter && n.board.empty() && !n.gone && n.devnode == "/dev/bus/usb/001/" + std::string(e->d_name)) {
          n.served = true;
          closedir(d);
          return;
        }
      }
    }
    closedir(d);
  }

  // Adds a device at the port path `port` ("" : a port of its own on bus 1). Returns false
  // when umockdev refused it.
  bool plug(uint16_t vid, uint16_t pid, bool serve, std::string port = {}, const std::string &serial = {},
            const std::string &board = {}, int id = -1) {
    const int num = nextDevnum++;
    if (port.empty()) port = "1-" + std::to_string(num);
    const int bus = atoi(port.c_str()) > 0 ? atoi(port.c_str()) : 1;
    char dev[64];
    snprintf(dev, sizeof dev, "/dev/bus/usb/%03d/%03d", bus, num);
    const std::string hex = descriptors_hex(vid, pid);
    const std::string syspath = "/devices/pci0000:00/0000:00:14.0/usb" + std::to_string(bus) + "/" + port;
    char attrs[512];
    snprintf(attrs, sizeof attrs,
             "E: BUSNUM=%03d\nE: DEVNAME=%s\nE: DEVNUM=%03d\n"
             "E: DEVTYPE=usb_device\nE: SUBSYSTEM=usb\n"
             "A: busnum=%d\nA: devnum=%d\nA: idVendor=%04x\nA: idProduct=%04x\n",
             bus, dev, num, bus, num, vid, pid);
    std::string text = "P: " + syspath + "\nN: " + std::string(dev + 5) + "=" + hex + "\n" + attrs;
    // The keys udev's usb_id gives a USB device, which udev-matching programs look for.
    char ids[64];
    snprintf(ids, sizeof ids, "E: ID_VENDOR_ID=%04x\nE: ID_MODEL_ID=%04x\n", vid, pid);
    text += ids;
    if (!serial.empty()) text += "A: serial=" + serial + "\nE: ID_SERIAL_SHORT=" + serial + "\n";
    text += "H: descriptors=" + hex + "\n";
    Node n;
    n.syspath = "/sys" + syspath;
    n.devnode = dev;
    n.port = port;
    n.serial = serial;
    n.board = board;
    n.id = id;
    n.devnum = num;
    n.adapter = pid == 0x5731;
    n.served = serve;
    {
      std::lock_guard<std::mutex> lock(mu);
      nodes.push_back(n);
    }
    // The node is served before it shows: a program watching /dev/bus/usb or udev may open
    // it the moment it appears.
    GError *err = nullptr;
    if (!umockdev_testbed_attach_ioctl(tb, dev, handler, &err)) {
      fprintf(stderr, "usbfs bed: cannot attach to %s: %s\n", dev, err ? err->message : "?");
      g_clear_error(&err);
    }
    if (!umockdev_testbed_add_from_string(tb, text.c_str(), &err)) {
      fprintf(stderr, "usbfs bed: cannot add a device: %s\n", err ? err->message : "?");
      g_clear_error(&err);
      std::lock_guard<std::mutex> lock(mu);
      nodes.back().gone = true;
      return false;
    }
    return true;
  }

  // Node `n` leaves the bed as on a real host: its sysfs entry and its device node go, and
  // handles still open on it get ENODEV (caller holds the lock).
  void pull_node_locked(Node &n) {
    if (n.gone) return;
    n.gone = true;
    // udev monitors of programs under the bed hear the device leave. umockdev can send the
    // event only from a process under its preload library (it sends "add" by itself then).
    if (underPreload) umockdev_testbed_uevent(tb, n.syspath.c_str(), "remove");
    umockdev_testbed_remove_device(tb, n.syspath.c_str());
    gchar *root = umockdev_testbed_get_root_dir(tb);
    unlink((std::string(root) + n.devnode).c_str());
    g_free(root);
  }

  // The served adapter leaves the bed (caller holds the lock).
  void pull_locked() {
    for (Node &n : nodes)
      if (n.served) pull_node_locked(n);
  }

  // The node of adapter `id` that is plugged in now, or null (caller holds the lock).
  Node *current_of_locked(int id) {
    for (Node &n : nodes)
      if (n.id == id && !n.gone) return &n;
    return nullptr;
  }

  // Moves what the board has to send into the oldest pending IN URB of this descriptor.
  void feed_in(std::deque<Urb> &q, const Node &n) {
    for (Urb &u : q) {
      if (u.done || !u.in) continue;
      if (!n.answers() || n.gone) return;   // nothing ever comes: the URB waits for its time-out
      use_board_locked(n);
      auto *urb = reinterpret_cast<usbdevfs_urb *>(u.urb->data);
      const int r = sim_adapter_in(u.buf ? u.buf->data : nullptr, (size_t)urb->buffer_length);
      if (r == 0) return;
      urb->status = r < 0 ? r : 0;
      urb->actual_length = r < 0 ? 0 : r;
      u.done = true;
      return;
    }
  }

  void submit(UMockdevIoctlClient *c, UMockdevIoctlData *arg, Node &n) {
    GError *err = nullptr;
    UMockdevIoctlData *urbData = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), &err);
    if (!urbData) {
      g_clear_error(&err);
      umockdev_ioctl_client_complete(c, -1, EFAULT);
      return;
    }
    auto *urb = reinterpret_cast<usbdevfs_urb *>(urbData->data);
    Urb u;
    u.urb = urbData;
    u.in = (urb->endpoint & 0x80) != 0;
    if (urb->type != USBDEVFS_URB_TYPE_BULK || urb->buffer_length < 0 ||
        (urb->endpoint != 0x02 && urb->endpoint != 0x81)) {
      g_object_unref(urbData);
      umockdev_ioctl_client_complete(c, -1, EINVAL);
      return;
    }
    if (urb->buffer_length > 0) {
      u.buf = umockdev_ioctl_data_resolve(urbData, offsetof(usbdevfs_urb, buffer), (gsize)urb->buffer_length, &err);
      if (!u.buf) {
        g_clear_error(&err);
        g_object_unref(urbData);
        umockdev_ioctl_client_complete(c, -1, EFAULT);
        return;
      }
    }
    if (!u.in) {
      int r = urb->buffer_length;
      if (n.answers()) {
        use_board_locked(n);
        r = sim_adapter_out(u.buf ? u.buf->data : nullptr, (size_t)urb->buffer_length);
      }
      if (n.answers() && (r == -ENODEV || sim_adapter_unplugged())) {
        pull_node_locked(n);
        if (u.buf) g_object_unref(u.buf);
        g_object_unref(urbData);
        umockdev_ioctl_client_complete(c, -1, ENODEV);
        return;
      }
      urb->status = r < 0 ? r : 0;
      urb->actual_length = r < 0 ? 0 : r;
      u.done = true;
    }
    urbs[c].push_back(u);
    umockdev_ioctl_client_complete(c, 0, 0);
  }

  void reap(UMockdevIoctlClient *c, UMockdevIoctlData *arg, Node &n) {
    std::deque<Urb> &q = urbs[c];
    feed_in(q, n);
    for (auto it = q.begin(); it != q.end(); ++it) {
      if (!it->done) continue;
      GError *err = nullptr;
      UMockdevIoctlData *slot = umockdev_ioctl_data_resolve(arg, 0, sizeof(void *), &err);
      if (!slot) {
        g_clear_error(&err);
        umockdev_ioctl_client_complete(c, -1, EFAULT);
        return;
      }
      umockdev_ioctl_data_set_ptr(slot, 0, it->urb);
      umockdev_ioctl_client_complete(c, 0, 0);
      g_object_unref(slot);
      if (it->buf) g_object_unref(it->buf);
      g_object_unref(it->urb);
      q.erase(it);
      return;
    }
    umockdev_ioctl_client_complete(c, -1, n.gone ? ENODEV : EAGAIN);
  }

  void discard(UMockdevIoctlClient *c, UMockdevIoctlData *arg) {
    const auto addr = arg->data_len >= (int)sizeof(gulong) ? *reinterpret_cast<gulong *>(arg->data) : 0;
    for (Urb &u : urbs[c]) {
      if (u.done || u.urb->client_addr != addr) continue;
      auto *urb = reinterpret_cast<usbdevfs_urb *>(u.urb->data);
      urb->status = -ENOENT;
      urb->actual_length = 0;
      u.done = true;
      umockdev_ioctl_client_complete(c, 0, 0);
      return;
    }
    umockdev_ioctl_client_complete(c, -1, EINVAL);
  }

  gboolean on_ioctl(UMockdevIoctlClient *c) {
    std::lock_guard<std::mutex> lock(mu);
    ++served;
    choose_served_locked();
    Node *n = node_of(c);
    UMockdevIoctlData *arg = umockdev_ioctl_client_get_arg(c);
    const gulong req = umockdev_ioctl_client_get_request(c);
    if (!n) {
      umockdev_ioctl_client_complete(c, -1, ENODEV);
      return TRUE;
    }
    if (n->gone) {
      umockdev_ioctl_client_complete(c, -1, ENODEV);
      return TRUE;
    }
    const bool adapter = n->answers();
    GError *err = nullptr;
    switch (req) {
      case USBDEVFS_CONNECTINFO: {
        UMockdevIoctlData *ci = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_connectinfo), &err);
        if (!ci) break;
        auto *info = reinterpret_cast<usbdevfs_connectinfo *>(ci->data);
        info->devnum = (unsigned)n->devnum;
        info->slow = 0;
        umockdev_ioctl_client_complete(c, 0, 0);
        g_object_unref(ci);
        return TRUE;
      }
      case USBDEVFS_CLAIMINTERFACE:
        ++n->claims;
        // A descriptor opened read-only gets EPERM for every usbfs request, as from the kernel.
        if (adapter && claim == UsbfsBed::Claim::readOnlyNode) umockdev_ioctl_client_complete(c, -1, EPERM);
        else if (adapter && claim == UsbfsBed::Claim::busy) umockdev_ioctl_client_complete(c, -1, EBUSY);
        else umockdev_ioctl_client_complete(c, 0, 0);
        return TRUE;
      case USBDEVFS_RELEASEINTERFACE:
        umockdev_ioctl_client_complete(c, 0, 0);
        return TRUE;
      case USBDEVFS_SUBMITURB:
        submit(c, arg, *n);
        return TRUE;
      case USBDEVFS_REAPURBNDELAY:
      case USBDEVFS_REAPURB:
        reap(c, arg, *n);
        return TRUE;
      case USBDEVFS_DISCARDURB:
        discard(c, arg);
        return TRUE;
      default:
        umockdev_ioctl_client_complete(c, -1, ENOTTY);
        return TRUE;
    }
    g_clear_error(&err);
    umockdev_ioctl_client_complete(c, -1, EFAULT);
    return TRUE;
  }

  void on_vanished(UMockdevIoctlClient *c) {
    std::lock_guard<std::mutex> lock(mu);
    auto it = urbs.find(c);
    if (it == urbs.end()) return;
    for (Urb &u : it->second) {
      if (u.buf) g_object_unref(u.buf);
      g_object_unref(u.urb);
    }
    urbs.erase(it);
  }
};

namespace {
gboolean handle_ioctl(UMockdevIoctlBase *, UMockdevIoctlClient *c, gpointer self) {
  return static_cast<UsbfsBedImpl *>(self)->on_ioctl(c);
}
void client_vanished(UMockdevIoctlBase *, UMockdevIoctlClient *c, gpointer self) {
  static_cast<UsbfsBedImpl *>(self)->on_vanished(c);
}
}  // namespace

UsbfsBed::UsbfsBed(const std::string &boardDir) : d_(std::make_unique<UsbfsBedImpl>()) {
  sim_attach(boardDir.c_str());
  d_->bedBoard = d_->attachedBoard = boardDir;
  const char *preload = getenv("LD_PRELOAD");
  d_->underPreload = preload && strstr(preload, "libumockdev-preload");
  d_->tb = umockdev_testbed_new();
  d_->handler = umockdev_ioctl_base_new();
  g_signal_connect(d_->handler, "handle-ioctl", G_CALLBACK(handle_ioctl), d_.get());
  g_signal_connect(d_->handler, "client-vanished", G_CALLBACK(client_vanished), d_.get());
}

UsbfsBed::~UsbfsBed() {
  {
    std::lock_guard<std::mutex> lock(d_->mu);
    for (auto &[c, q] : d_->urbs)
      for (Urb &u : q) {
        if (u.buf) g_object_unref(u.buf);
        g_object_unref(u.urb);
      }
    d_->urbs.clear();
  }
  g_object_unref(d_->tb);
  g_object_unref(d_->handler);
  sim_detach();
}

void UsbfsBed::plug_unrelated() { d_->plug(0x1D6B, 0x0104, false); }
void UsbfsBed::plug_decoy() { d_->plug(0x0C55, 0x5730, false); }

void UsbfsBed::plug_adapter() { d_->plug(0x0C55, 0x5731, false); }

void UsbfsBed::unplug_adapter() {
  std::lock_guard<std::mutex> lock(d_->mu);
  d_->pull_locked();
}

void UsbfsBed::replug_adapter() {
  std::string port;
  {
    std::lock_guard<std::mutex> lock(d_->mu);
    for (const Node &n : d_->nodes)
      if (n.served) port = n.port;
  }
  d_->plug(0x0C55, 0x5731, true, port);
}

int UsbfsBed::plug_adapter_at(const std::string &port, const std::string &serial, const std::string &boardDir) {
  int id;
  {
    std::lock_guard<std::mutex> lock(d_->mu);
    id = d_->nextId++;
  }
  d_->plug(0x0C55, 0x5731, false, port, serial, boardDir, id);
  return id;
}

void UsbfsBed::pull(int id) {
  std::lock_guard<std::mutex> lock(d_->mu);
  if (Node *n = d_->current_of_locked(id)) d_->pull_node_locked(*n);
}

void UsbfsBed::plug_back(int id, const std::string &port) {
  std::string serial, board, last;
  {
    std::lock_guard<std::mutex> lock(d_->mu);
    for (const Node &n : d_->nodes)
      if (n.id == id) {
        serial = n.serial;
        board = n.board;
        last = n.port;
      }
    if (last.empty() || d_->current_of_locked(id)) return;   // unknown, or still plugged in
  }
  d_->plug(0x0C55, 0x5731, false, port.empty() ? last : port, serial, board, id);
}

std::string UsbfsBed::node_of(int id) const {
  std::lock_guard<std::mutex> lock(d_->mu);
  const Node *n = d_->current_of_locked(id);
  return n ? n->devnode : std::string();
}

void UsbfsBed::flush_boards() {
  std::lock_guard<std::mutex> lock(d_->mu);
  sim_detach();
  d_->attachedBoard.clear();
}

size_t UsbfsBed::claims_of(int id) const {
  std::lock_guard<std::mutex> lock(d_->mu);
  size_t c = 0;
  for (const Node &n : d_->nodes)
    if (n.id == id) c += n.claims;
  return c;
}

void UsbfsBed::set_claim(Claim c) {
  std::lock_guard<std::mutex> lock(d_->mu);
  d_->claim = c;
  // A node without write permission: libusb-0.1 falls back to opening it read-only.
  gchar *root = umockdev_testbed_get_root_dir(d_->tb);
  for (const Node &n : d_->nodes)
    if (n.adapter) chmod((std::string(root) + n.devnode).c_str(), c == Claim::readOnlyNode ? 0444 : 0644);
  g_free(root);
}

std::string UsbfsBed::adapter_node() const {
  std::lock_guard<std::mutex> lock(d_->mu);
  d_->choose_served_locked();
  for (const Node &n : d_->nodes)
    if (n.served && !n.gone) return n.devnode;
  return {};
}

std::vector<std::string> UsbfsBed::claimed_nodes() const {
  std::lock_guard<std::mutex> lock(d_->mu);
  std::vector<std::string> out;
  for (const Node &n : d_->nodes)
    if (n.claims) out.push_back(n.devnode);
  return out;
}

size_t UsbfsBed::ioctls_served() const { return d_->served.load(); }

std::vector<std::pair<std::string, std::string>> UsbfsBed::child_env(bool otherUser) {
  if (otherUser) {
    gchar *root = umockdev_testbed_get_root_dir(d_->tb);
    std::error_code ec;
    std::filesystem::permissions(root, std::filesystem::perms(0755), ec);
    for (const auto &e : std::filesystem::recursive_directory_iterator(std::string(root) + "/ioctl", ec))
      if (e.is_socket(ec)) std::filesystem::permissions(e.path(), std::filesystem::perms(0777), ec);
    g_free(root);
  }
  // A sanitizer build of the program must accept a preload library ahead of its runtime.
  return {{"LD_PRELOAD", preload_path()},
          {"ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=1:abort_on_error=1"}};
}
