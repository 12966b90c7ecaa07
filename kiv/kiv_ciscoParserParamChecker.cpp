// Built-in parameter types of the usage grammar: "%s", "%str", "%d", "%ip", "%net", "%mac".
// Each checker converts the typed token into the value slot the parser hands it and
// returns the value's size, or -1 to refuse the token (checkers never print).
#include "kiv/kiv_ciscoParserParamChecker.h"

#include <cctype>
#include <cstring>

#include "kiv/hx_utils.h"
#include "kiv/kiv_assert.h"

namespace {

constexpr const char *kSrc = "kiv/kiv_ciscoParserParamChecker";

bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

// Spellings of zero that "%d" accepts; strtoul cannot tell them from a failed conversion.
constexpr const char *kZeroSpellings[] = {"0", "0x0", "0x00", "0x000", "0x0000", "00", "000", "0000"};

}  // namespace

const kiv_paramType_t kiv_builtinParamTypes[6] = {
    {"%s", 0, kiv_checkDynCmdParam_String, nullptr, "Any text string"},
    {"%str", 0, kiv_checkDynCmdParam_Str, nullptr, "A text string begins with A-Z,a-z"},
    {"%d", 4, kiv_checkDynCmdParam_Number, nullptr, "A numeric number"},
    {"%ip", 4, kiv_checkDynCmdParam_Ip, nullptr, "An IP address. X.X.X.X (X=0~255)"},
    {"%net", 5, kiv_checkDynCmdParam_Net, nullptr,
     "An IP address and CIDR. X.X.X.X/Y (X=0~255,Y=0~32)"},
    {"%mac", 6, kiv_checkDynCmdParam_Mac, nullptr, "A MAC address. 00:11:22:33:44:55"},
};
const kiv_uint32 kiv_builtinParamTypeCount = 6;

const kiv_paramType_t *kiv_findParamType(const kiv_cmd_t *cmd, const char *name) {
  if (name == nullptr) return nullptr;
  if (cmd != nullptr && cmd->paramTypes != nullptr) {
    const kiv_uint32 rows = KIV_PARAMTABLE_ROWS(cmd->cmdFlags);
    for (kiv_uint32 i = 0; i < rows; i++)
      if (cmd->paramTypes[i].name && std::strcmp(cmd->paramTypes[i].name, name) == 0)
        return &cmd->paramTypes[i];
  }
  for (kiv_uint32 i = 0; i < kiv_builtinParamTypeCount; i++)
    if (std::strcmp(kiv_builtinParamTypes[i].name, name) == 0) return &kiv_builtinParamTypes[i];
  return nullptr;
}

kiv_int32 kiv_checkDynCmdParam_String(void **slot, char *token, kiv_uint32, kiv_memaddr *redirect) {
  if (token == nullptr) {
    if (redirect) *redirect = 0;
    return -1;
  }
  *slot = token;
  return 0;
}

kiv_int32 kiv_checkDynCmdParam_Str(void **slot, char *token, kiv_uint32, kiv_memaddr *redirect) {
  if (token == nullptr || !isLetter(token[0])) {
    if (redirect) *redirect = 0;
    return -1;
  }
  *slot = token;
  return 0;
}

kiv_int32 kiv_checkDynCmdParam_Number(void **slot, char *token, kiv_uint32, kiv_memaddr *redirect) {
  auto refuse = [redirect]() {
    if (redirect) *redirect = 0;
    return -1;
  };
  if (token == nullptr || isLetter(token[0])) return refuse();
  kiv_uint32 value = 0;
  bool zero = false;
  for (const char *z : kZeroSpellings)
    if (std::strcmp(token, z) == 0) zero = true;
  if (!zero) {
    if (std::strchr(token, '.') != nullptr) return refuse();
    const unsigned long v = std::strtoul(token, nullptr, 0);
    if (v == 0) return refuse();
    value = static_cast<kiv_uint32>(v);
  }
  if (!IS4BYTEALIGNED(*slot))
    kiv_assertFailed(kSrc, __func__, __LINE__, "IS4BYTEALIGNED(I32_value(token))");
  std::memcpy(*slot, &value, sizeof value);
  return 4;
}

kiv_int32 kiv_checkDynCmdParam_Ip(void **slot, char *token, kiv_uint32, kiv_memaddr *redirect) {
  if (!IS4BYTEALIGNED(*slot))
    kiv_assertFailed(kSrc, __func__, __LINE__,
                     "IS4BYTEALIGNED((kiv_memaddr)*((struct in_addr **) token))");
  kiv_uint32 addr = 0;
  if (token == nullptr || !hx_inetAton(token, &addr)) {
    if (redirect) *redirect = 0;
    return -1;
  }
  std::memcpy(*slot, &addr, 4);
  return 4;
}

// The token is cut at '/' in place with strtok, as it always has been. The prefix text is
// only checked for digits: the conversion runs on its end, so the stored prefix byte is 0.
kiv_int32 kiv_checkDynCmdParam_Net(void **slot, char *token, kiv_uint32, kiv_memaddr *) {
  if (!IS4BYTEALIGNED(*slot))
    kiv_assertFailed(kSrc, __func__, __LINE__,
                     "IS4BYTEALIGNED((kiv_memaddr)*((struct in_addr **) token))");
  if (token == nullptr) return -1;
  char *addrText = std::strtok(token, "/");
  if (addrText == nullptr) return -1;
  char *prefixText = std::strtok(nullptr, "/");
  if (prefixText == nullptr) return -1;
  kiv_uint32 addr = 0;
  if (!hx_inetAton(addrText, &addr)) return -1;
  char *p = prefixText;
  while (*p >= '0' && *p <= '9') p++;
  if (*p != '\0') return -1;
  const auto prefix = static_cast<kiv_uint8>(std::atoi(p));
  auto *out = static_cast<kiv_uint8 *>(*slot);
  std::memcpy(out, &addr, 4);
  out[4] = prefix;
  return 5;
}

kiv_int32 kiv_checkDynCmdParam_Mac(void **slot, char *token, kiv_uint32, kiv_memaddr *redirect) {
  kiv_uint8 mac[6];
  if (token == nullptr || strToMac(mac, token) != 0) {
    if (redirect) *redirect = 0;
    return -1;
  }
  std::memcpy(*slot, mac, 6);
  return 6;
}
