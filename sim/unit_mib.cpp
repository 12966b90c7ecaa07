#include "sim/sim_chip.h"

namespace sim {
const Unit unit_mib = {"mib", nullptr, nullptr, nullptr};
}  // namespace sim
