#include "internal/kivcmd/hx5200_cmd.h"

kiv_int32 hx5200_cmd_reg(kiv_uint32 uid, kiv_int32 argc, void **argv) { return hx5200_cmd_notSupported(uid, argc, argv); }
kiv_int32 hx5200_cmd_smi(kiv_uint32 uid, kiv_int32 argc, void **argv) { return hx5200_cmd_notSupported(uid, argc, argv); }
kiv_int32 hx5200_cmd_mmd(kiv_uint32 uid, kiv_int32 argc, void **argv) { return hx5200_cmd_notSupported(uid, argc, argv); }
kiv_int32 hx5200_cmd_mdx(kiv_uint32 uid, kiv_int32 argc, void **argv) { return hx5200_cmd_notSupported(uid, argc, argv); }
kiv_int32 hx5200_cmd_phy(kiv_uint32 uid, kiv_int32 argc, void **argv) { return hx5200_cmd_notSupported(uid, argc, argv); }
