// Rules that hold between the parts of a description: unique names, monitors and what they watch, the disk.
#pragma once

#include "vu/description/description.h"
#include "vu/description/findings.h"

namespace vu {

void checkWhole(const Description &test, Findings &findings);
// Warns where the disk will not last for the duration.
void warnOfFullDisk(const Description &test, Findings &findings);

} // namespace vu
