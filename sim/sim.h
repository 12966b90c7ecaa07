// The simulated board: USB bus + I/O adapter + HX5200 chip + serial NOR flash.
// Reached only when KIVTOOL_SIM names a state directory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "access/usbio.h"

// Attach the board whose state lives in `dir` (created if missing). Returns the usb_
// table to install with usb_ops_set(), or null when the directory cannot be used.
const usb_ops_t *sim_attach(const char *dir);
// Flush state and detach (also run at process exit).
void sim_detach(void);

// The adapter's two bulk endpoints, for a host that serves the board at another boundary
// than the usb_ slot (a usbfs emulation). Results as on the bus: bytes moved or a negative
// errno; sim_adapter_in gives 0 while the adapter has nothing to send. Once an unplug fault
// has fired, sim_adapter_unplugged() stays true for the rest of the attach.
int sim_adapter_out(const uint8_t *bytes, size_t size);
int sim_adapter_in(uint8_t *bytes, size_t size);
bool sim_adapter_unplugged(void);
