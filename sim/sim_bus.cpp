// The simulated USB bus: one bus "001" with a decoy device (0x0C55:0x5730) ahead of the I/O
// adapter (0x0C55:0x5731), reached through a usb_ table with libusb-0.1's behaviour: negative
// errno results, bulk reads that sleep out their time-out when the device has nothing to send.
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "access/usbio.h"
#include "sim/sim_board.h"

namespace sim {
namespace {

constexpr uint16_t kDecoyPid = 0x5730;
constexpr uint8_t kDecoyDevnum = 2, kAdapterDevnum = 3;

// Interface 0 of both devices: bulk OUT 0x02 and bulk IN 0x81.
std::array<usb_endpoint_descriptor, 2> g_eps{};
usb_interface_descriptor g_ifDesc{};
usb_interface g_iface{};
std::array<usb_config_descriptor, 2> g_cfg{};

usb_bus g_bus{};
struct usb_device g_decoy{}, g_adapter{};

struct Handle {
  struct usb_device *dev = nullptr;   // null: slot free
  bool claimed = false;
};
std::array<Handle, 8> g_handles{};

struct BusState {
  bool scanned = false;        // usb_find_busses has run
  bool devicesScanned = false;
  int devicesListed = 0;       // devices on the list at the last usb_find_devices
  bool unplugged = false;
};
BusState g_state;

void build_descriptors() {
  for (size_t i = 0; i < g_eps.size(); ++i) {
    usb_endpoint_descriptor &e = g_eps[i];
    e = usb_endpoint_descriptor{};
    e.bLength = USB_DT_ENDPOINT_SIZE;
    e.bDescriptorType = USB_DT_ENDPOINT;
    e.bEndpointAddress = i == 0 ? USBIO_EP_OUT : USBIO_EP_IN;
    e.bmAttributes = USB_ENDPOINT_TYPE_BULK;
    e.wMaxPacketSize = 512;
  }
  g_ifDesc = usb_interface_descriptor{};
  g_ifDesc.bLength = USB_DT_INTERFACE_SIZE;
  g_ifDesc.bDescriptorType = USB_DT_INTERFACE;
  g_ifDesc.bNumEndpoints = (uint8_t)g_eps.size();
  g_ifDesc.bInterfaceClass = USB_CLASS_VENDOR_SPEC;
  g_ifDesc.endpoint = g_eps.data();
  g_iface.altsetting = &g_ifDesc;
  g_iface.num_altsetting = 1;
  for (usb_config_descriptor &c : g_cfg) {
    c = usb_config_descriptor{};
    c.bLength = USB_DT_CONFIG_SIZE;
    c.bDescriptorType = USB_DT_CONFIG;
    c.bNumInterfaces = 1;
    c.bConfigurationValue = 1;
    c.MaxPower = 50;
    c.interface = &g_iface;
  }
}

void make_device(struct usb_device &d, uint16_t pid, uint8_t devnum, usb_config_descriptor *cfg) {
  std::memset(&d, 0, sizeof d);
  std::snprintf(d.filename, sizeof d.filename, "%03u", devnum);
  d.bus = &g_bus;
  d.descriptor.bLength = USB_DT_DEVICE_SIZE;
  d.descriptor.bDescriptorType = USB_DT_DEVICE;
  d.descriptor.bcdUSB = 0x0200;
  d.descriptor.bMaxPacketSize0 = 64;
  d.descriptor.idVendor = USBIO_VID;
  d.descriptor.idProduct = pid;
  d.descriptor.bcdDevice = 0x0100;
  d.descriptor.bNumConfigurations = 1;
  d.config = cfg;
  d.devnum = devnum;
}

// Rebuilds the device list from what is plugged in; returns the number of devices listed.
int list_devices() {
  g_bus.devices = &g_decoy;
  g_decoy.prev = nullptr;
  g_decoy.next = g_state.unplugged ? nullptr : &g_adapter;
  g_adapter.prev = &g_decoy;
  g_adapter.next = nullptr;
  return g_state.unplugged ? 1 : 2;
}

Handle *handle_of(usb_dev_handle *h) {
  for (Handle &s : g_handles)
    if (reinterpret_cast<usb_dev_handle *>(&s) == h && s.dev) return &s;
  return nullptr;
}

bool gone(const Handle *s) { return s->dev == &g_adapter && g_state.unplugged; }

// ---- the usb_ table ------------------------------------------------------------------
void b_init(void) {}

int b_find_busses(void) {
  if (!attached()) return 0;
  int changes = g_state.scanned ? 0 : 1;
  g_state.scanned = true;
  return changes;
}

int b_find_devices(void) {
  if (!attached() || !g_state.scanned) return 0;
  int before = g_state.devicesScanned ? g_state.devicesListed : 0;
  int now = list_devices();
  g_state.devicesScanned = true;
  g_state.devicesListed = now;
  return now > before ? now - before : before - now;
}

usb_bus *b_get_busses(void) { return attached() && g_state.scanned ? &g_bus : nullptr; }

usb_dev_handle *b_open(struct usb_device *dev) {
  if (!attached() || (dev != &g_decoy && dev != &g_adapter)) return nullptr;
  if (dev == &g_adapter && g_state.unplugged) return nullptr;
  for (Handle &s : g_handles) {
    if (!s.dev) {
      s = Handle{dev, false};
      return reinterpret_cast<usb_dev_handle *>(&s);
    }
  }
  return nullptr;
}

int b_close(usb_dev_handle *h) {
  Handle *s = handle_of(h);
  if (!s) return -EINVAL;
  *s = Handle{};
  return 0;
}

int b_claim(usb_dev_handle *h, int iface) {
  Handle *s = handle_of(h);
  if (!s || iface != 0) return -EINVAL;
  if (gone(s)) return -ENODEV;
  for (const Handle &o : g_handles)
    if (&o != s && o.dev == s->dev && o.claimed) return -EBUSY;
  s->claimed = true;
  return 0;
}

int b_release(usb_dev_handle *h, int iface) {
  Handle *s = handle_of(h);
  if (!s || iface != 0 || !s->claimed) return -EINVAL;
  s->claimed = false;
  return gone(s) ? -ENODEV : 0;
}

// Checks common to both directions; 0 when the transfer may go ahead.
int transfer_check(Handle *s, int ep, int want, const char *bytes, int size) {
  if (!s) return -EINVAL;
  if (gone(s)) return -ENODEV;
  if (!s->claimed || ep != want || size < 0 || (size > 0 && !bytes)) return -EINVAL;
  return 0;
}

void sleep_out(int timeoutMs) {
  // libusb-0.1 treats 0 as "wait for ever"; the board never hangs and gives up after 1 s.
  usleep((useconds_t)(timeoutMs > 0 ? timeoutMs : 1000) * 1000u);
}

int b_bulk_write(usb_dev_handle *h, int ep, char *bytes, int size, int timeout) {
  Handle *s = handle_of(h);
  if (int rc = transfer_check(s, ep, USBIO_EP_OUT, bytes, size)) return rc;
  if (s->dev == &g_decoy) return size;   // the decoy swallows everything
  (void)timeout;
  return adapter_out(reinterpret_cast<const uint8_t *>(bytes), (size_t)size);
}

int b_bulk_read(usb_dev_handle *h, int ep, char *bytes, int size, int timeout) {
  Handle *s = handle_of(h);
  if (int rc = transfer_check(s, ep, USBIO_EP_IN, bytes, size)) return rc;
  int n = s->dev == &g_adapter ? adapter_in(reinterpret_cast<uint8_t *>(bytes), (size_t)size) : 0;
  if (n != 0) return n;
  sleep_out(timeout);
  return -ETIMEDOUT;
}

constexpr usb_ops_t kOps = {b_init, b_find_busses, b_find_devices, b_get_busses, b_open, b_close,
                            b_claim, b_release, b_bulk_write, b_bulk_read};

}  // namespace

const usb_ops_t *bus_ops(void) { return &kOps; }

void bus_reset(void) {
  build_descriptors();
  g_bus = usb_bus{};
  std::snprintf(g_bus.dirname, sizeof g_bus.dirname, "001");
  g_bus.location = 1;
  make_device(g_decoy, kDecoyPid, kDecoyDevnum, &g_cfg[0]);
  make_device(g_adapter, USBIO_PID, kAdapterDevnum, &g_cfg[1]);
  g_state = BusState{};
  g_handles.fill(Handle{});
  list_devices();
}

void bus_unplug(void) {
  g_state.unplugged = true;
}

bool bus_unplugged(void) { return g_state.unplugged; }

}  // namespace sim
