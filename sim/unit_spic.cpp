#include "sim/sim_chip.h"

namespace sim {
const Unit unit_spic = {"spic", nullptr, nullptr, nullptr};
}  // namespace sim
