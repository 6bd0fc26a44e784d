// Constants of the run: conversion factors, the thresholds that the program
// states in single precision, and the table 1/(n pi) of the kernel polynomial
// method.
#pragma once

#include "base/farray.hpp"
#include "numerics/utility_module.hpp"

namespace lyrt {

// Temperature and energy. The two forms of Boltzmann's constant are not exact
// inverses of each other; each is used where the run has always used it.
constexpr double k_b_inverse = 11604.5;           // K per eV
constexpr double two_k_b_inverse = 23209.0;       // 2 x 11604.5: temperature = this x e_kin / dof
constexpr double k_b = 8.617346718945237e-05;     // eV per K
constexpr double ev_per_a3_to_gpa = 160.21766208; // stress and pressure, eV/Angstrom^3 to GPa

// A squared image distance at or below this is the ion itself, Angstrom^2.
constexpr double self_image_min = single_1e_6;

constexpr int n_inv_n_pi = 10000; // bounds the number of moments

// inv_n_pi(i) = 1 / (i pi), i = 1..10000; allocated by constants_init.
extern farray<double, 1> inv_n_pi;

void constants_init();

} // namespace lyrt
