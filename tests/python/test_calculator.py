"""The ASE calculator against ASE's finite differences of itself (Si 8; strained, smeared
Cu 4); k-points against a supercell and ASE's own grids, band structures; POSLYRT
through the program and back; the results read from a report."""
import os
import shutil
import unittest

import numpy as np
from ase import units
from ase.build import bulk
from ase.calculators.calculator import CalculationFailed
from ase.constraints import FixAtoms, FixCartesian
from ase.dft.kpoints import monkhorst_pack

from lyrt import io
from lyrt.calculator import Lyrt
from lyrt.plot import read_bands, read_dos
from lyrt_test_support import DATA, LYRT, FolderTest


class Calculator(FolderTest):
    def check(self, atoms, tbparam, **keywords):
        atoms.calc = Lyrt(os.path.join(DATA, tbparam), command=LYRT,
                          directory=self.path(tbparam), **keywords)
        e, f, s = atoms.get_potential_energy(), atoms.get_forces(), atoms.get_stress()
        fn = atoms.calc.calculate_numerical_forces(atoms, d=1e-3)
        sn = atoms.calc.calculate_numerical_stress(atoms, d=1e-5)
        self.assertLess(np.abs(fn - f).max(), 1e-4, (f, fn))
        self.assertLess(np.abs(sn - s).max(), 1e-4, (s, sn))
        self.assertTrue(np.abs(f).max() > 0.05 and np.abs(s[3:]).max() > 1e-3)  # not zeros

    def test_silicon_and_smeared_copper(self):
        si = bulk("Si", "diamond", a=5.40, cubic=True)
        si.rattle(0.05, seed=1)
        self.check(si, "Si.tbparam")
        cu = bulk("Cu", "fcc", a=3.58, cubic=True)
        cu.set_cell(cu.cell @ np.array([[1, 0.02, 0], [0, 1, 0.01], [0, 0, 0.99]]),
                    scale_atoms=True)
        cu.rattle(0.04, seed=2)
        self.check(cu, "Cu.tbparam", sigma=0.1)
        si.positions[1] = si.positions[0]  # two ions on one spot: the program stops
        si.calc = Lyrt(os.path.join(DATA, "Si.tbparam"), command=LYRT, directory=self.path("bad"))
        with self.assertRaises(CalculationFailed):
            si.get_potential_energy()

    def test_kpoints(self):
        # A 2 x 2 x 2 grid with gamma is the supercell of 2 x 2 x 2 cells at gamma.
        si = bulk("Si", "diamond", a=5.43)
        si.rattle(0.03, seed=5)
        big = si * (2, 2, 2)
        tb = os.path.join(DATA, "Si.tbparam")
        si.calc = Lyrt(tb, command=LYRT, directory=self.path("k"), kpts={"size": (2, 2, 2),
                                                                         "gamma": True})
        big.calc = Lyrt(tb, command=LYRT, directory=self.path("g"))
        self.assertAlmostEqual(si.get_potential_energy() * 8, big.get_potential_energy(), 6)
        np.testing.assert_allclose(np.tile(si.get_forces(), (8, 1)), big.get_forces(), atol=1e-5)
        # ASE's Monkhorst-Pack grid: each point of the run is one of it or its inverse.
        si.calc = Lyrt(tb, command=LYRT, directory=self.path("mp"), kpts=(4, 4, 4),
                       save_to_file="DOS")
        si.get_potential_energy()
        k, mp = si.calc.get_ibz_k_points(), monkhorst_pack((4, 4, 4))
        self.assertEqual(len(k), 32)
        self.assertAlmostEqual(si.calc.get_k_point_weights().sum(), 1.0, 9)
        d = k[:, None, :] - mp[None, :, :]
        e = k[:, None, :] + mp[None, :, :]
        gap = np.minimum(np.abs(d - np.round(d)).max(axis=2), np.abs(e - np.round(e)).max(axis=2))
        self.assertLess(gap.min(axis=1).max(), 1e-6)
        # A band path: ASE's band structure, starting at gamma with gamma's levels.
        si.calc = Lyrt(tb, command=LYRT, directory=self.path("path"),
                       kpts={"path": "GX", "npoints": 5})
        si.get_potential_energy()
        bs = si.calc.band_structure()
        self.assertEqual(bs.energies.shape, (1, 5, 8))
        np.testing.assert_allclose(read_bands(self.path("path", "BANDS"))[3], bs.energies[0],
                                   atol=1e-6)
        fermi, names, dos = read_dos(self.path("mp", "DOS"))
        self.assertEqual(names, ["total", "Si_s", "Si_p"])
        np.testing.assert_allclose(dos[:, 2] + dos[:, 3], dos[:, 1], atol=1e-5)
        for data in ("path/BANDS", "mp/DOS"):
            self.module("lyrt.plot", data, "-o", "plot.png")
            with open(self.path("plot.png"), "rb") as f:
                self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n", data)
        si.calc = Lyrt(tb, command=LYRT, directory=self.path("gamma"), n_states=8)
        si.get_potential_energy()
        np.testing.assert_allclose(bs.energies[0, 0], si.calc.get_eigenvalues(0), atol=1e-6)

    def test_supercell_against_its_folded_points(self):
        # Cu 108 (3 x 3 x 3 strained cubic cells) at gamma against the 1-atom cell on
        # the 108 points k with k.A integer for the supercell vectors A.
        strain = np.array([[1, 0.01, 0], [0, 0.995, 0.02], [0.005, 0, 1.01]])
        prim, conv = bulk("Cu", "fcc", a=3.61), bulk("Cu", "fcc", a=3.61, cubic=True)
        for atoms in (prim, conv):
            atoms.set_cell(atoms.cell @ strain, scale_atoms=True)
        big = conv * (3, 3, 3)
        n = np.array(list(np.ndindex(6, 6, 6)), dtype=float)
        k = np.round(n @ np.linalg.inv(big.cell).T @ np.array(prim.cell).T, 12) % 1.0
        k = np.unique(np.round(k, 10) % 1.0, axis=0)
        self.assertEqual(len(k), 108)
        tb = os.path.join(DATA, "Cu.tbparam")
        prim.calc = Lyrt(tb, command=LYRT, directory=self.path("k"), kpts=k, sigma=0.1)
        big.calc = Lyrt(tb, command=LYRT, directory=self.path("g"), sigma=0.1)
        self.assertAlmostEqual(prim.get_potential_energy(), big.get_potential_energy() / 108, 9)
        np.testing.assert_allclose(prim.get_stress(), big.get_stress(), atol=1e-8)
        self.assertAlmostEqual(prim.calc.get_fermi_level(), big.calc.get_fermi_level(), 9)

    def test_positions_through_the_program_and_the_report(self):
        atoms = bulk("Cu", "fcc", a=3.7, cubic=True) * (2, 1, 1)
        symbols = atoms.get_chemical_symbols()
        symbols[1] = symbols[6] = "Au"  # species interleaved in the file
        atoms.set_chemical_symbols(symbols)
        atoms.rattle(0.05, seed=3)
        atoms.set_cell(atoms.cell + [[0, 0.1, 0], [0, 0, 0], [0.05, 0, 0]], scale_atoms=True)
        atoms.set_velocities(np.random.default_rng(4).normal(0, 0.01, (8, 3)) * units.fs)
        atoms.set_constraint([FixAtoms(indices=[0]), FixCartesian(3, mask=[False, True, True])])
        species = io.tbparam_species(os.path.join(DATA, "CuAu.tbparam"))  # ["Cu", "Au"]
        io.write_poslyrt(self.path("POSLYRT"), atoms, species)
        shutil.copy(os.path.join(DATA, "CuAu.tbparam"), self.path("TBPARAM"))
        io.write_inlyrt(self.path("INLYRT"), sigma=0.1, calc_stress=True)
        self.run_lyrt()
        for name in ("POSLYRT", "POSCONT"):  # the program rewrites it in its own layout
            back = io.read_poslyrt(self.path(name))
            self.assertEqual(back.get_chemical_symbols(), atoms.get_chemical_symbols(), name)
            np.testing.assert_allclose(back.cell, atoms.cell, atol=1e-12)
            frac = np.linalg.solve(np.array(atoms.cell).T, (back.positions - atoms.positions).T)
            np.testing.assert_allclose(frac - np.round(frac), 0.0, atol=1e-10)
            np.testing.assert_allclose(back.get_velocities(), atoms.get_velocities(), atol=1e-12)
            frozen = io._frozen_flags(back)
            self.assertTrue(frozen[0].all() and frozen[3].tolist() == [False, True, True])
            self.assertEqual(frozen.sum(), 5, name)
        r = io.read_results(self.dir)
        self.assertLess(np.abs(r["forces"].sum(axis=0)).max(), 1e-6)
        self.assertAlmostEqual(r["energy"], r["tight_binding_energy"] + r["repulsive_energy"],
                               places=8)
        sig = r["stress_tensor"]  # ASE's sign is opposite to the report's
        np.testing.assert_allclose(sig, sig.T, atol=1e-8)
        self.assertAlmostEqual(r["stress"][0], -sig[0, 0])
        self.assertAlmostEqual(r["stress"][3], -sig[1, 2])
        e = r["eigenvalues"][0]
        self.assertTrue(np.all(np.diff(e) >= 0) and e[0] < r["fermi_level"] < e[-1])


if __name__ == "__main__":
    unittest.main()
