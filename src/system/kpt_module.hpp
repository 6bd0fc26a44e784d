// Points of the Brillouin zone (the gamma point in this build) and the
// electronic smearing width.
#pragma once

namespace lyrt {

struct kpt_type {
    double sigma = 0.0; // smearing width kT, eV; 0 or less means none
};

} // namespace lyrt
