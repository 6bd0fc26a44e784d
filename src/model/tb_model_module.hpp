// The tight-binding model: species, pair parameters, cut-offs.
#pragma once

namespace lyrt {

struct tb_model_type {
    double r_cut = 0.0;         // largest cut-off of all pairs, Angstrom
    bool pair_pot_used = false; // the model has a core-repulsion pair potential
};

} // namespace lyrt
