// The simulated board: USB bus + I/O adapter + HX5200 chip + serial NOR flash.
// Reached only when KIVTOOL_SIM names a state directory.
#pragma once

#include "access/usbio.h"

// Attach the board whose state lives in `dir` (created if missing). Returns the usb_
// table to install with usb_ops_set(), or null when the directory cannot be used.
const usb_ops_t *sim_attach(const char *dir);
// Flush state and detach (also run at process exit).
void sim_detach(void);
