#include "internal/kivcmd/hx5200_cmd.h"

kiv_int32 hx5200_cmd_mib(kiv_uint32 uid, kiv_int32 argc, void **argv) { return hx5200_cmd_notSupported(uid, argc, argv); }
