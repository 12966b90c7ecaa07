// The usb_ slot: every libusb-0.1 call the adapter code makes goes through this table,
// which is the real library unless the simulated board has installed its own.
#include <usb.h>

#include "access/usbio.h"

namespace {
int lib_bulk_write(usb_dev_handle *h, int ep, char *bytes, int size, int timeout) {
  return usb_bulk_write(h, ep, bytes, size, timeout);
}
}  // namespace

const usb_ops_t usb_ops_libusb = {
    usb_init,          usb_find_busses, usb_find_devices,      usb_get_busses, usb_open,
    usb_close,         usb_claim_interface, usb_release_interface, lib_bulk_write, usb_bulk_read,
};

namespace {
const usb_ops_t *g_usb_ops = &usb_ops_libusb;
}

void usb_ops_set(const usb_ops_t *ops) { g_usb_ops = ops ? ops : &usb_ops_libusb; }

const usb_ops_t *usb_ops_get(void) { return g_usb_ops; }
