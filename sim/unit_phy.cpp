#include "sim/sim_chip.h"

namespace sim {
const Unit unit_phy = {"phy", nullptr, nullptr, nullptr};
}  // namespace sim
