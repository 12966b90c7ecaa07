// Built-in parameter types of the usage grammar.
#pragma once

#include "kiv/kiv_types.h"

extern const kiv_paramType_t kiv_builtinParamTypes[6];
extern const kiv_uint32 kiv_builtinParamTypeCount;

// Look a type up by its grammar token: the command's own table first, then the built-ins.
const kiv_paramType_t *kiv_findParamType(const kiv_cmd_t *cmd, const char *name);

kiv_int32 kiv_checkDynCmdParam_String(void **slot, char *token, kiv_uint32 maxSize, kiv_memaddr *redirect);
kiv_int32 kiv_checkDynCmdParam_Str(void **slot, char *token, kiv_uint32 maxSize, kiv_memaddr *redirect);
kiv_int32 kiv_checkDynCmdParam_Number(void **slot, char *token, kiv_uint32 maxSize, kiv_memaddr *redirect);
kiv_int32 kiv_checkDynCmdParam_Ip(void **slot, char *token, kiv_uint32 maxSize, kiv_memaddr *redirect);
kiv_int32 kiv_checkDynCmdParam_Net(void **slot, char *token, kiv_uint32 maxSize, kiv_memaddr *redirect);
kiv_int32 kiv_checkDynCmdParam_Mac(void **slot, char *token, kiv_uint32 maxSize, kiv_memaddr *redirect);
