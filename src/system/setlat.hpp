// Lattice vectors of the standard structures, with an optional elastic strain.
//
// Reads the lattice number, its constants and the strain from the records that
// follow on an open unit, and echoes them on out_unit. In the result a(i,j) the
// first index is the vector and the second its Cartesian component.
#pragma once

#include "base/farray.hpp"

namespace lyrt {

// status: 0, or non-zero after a read failure or an unknown lattice or strain
// (the message is on out_unit). volume is the cell volume after the strain.
void setlat(farray<double, 2>& a, double& volume, int unit, int out_unit, int& status);

} // namespace lyrt
