#include "sim/sim_chip.h"

namespace sim {
const Unit unit_vlan = {"vlan", nullptr, nullptr, nullptr};
}  // namespace sim
