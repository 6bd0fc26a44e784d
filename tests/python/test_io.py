"""POSLYRT written from ASE and read back, through the program itself (which
rewrites it as POSCONT in its own layout, reduced coordinates and all), with
species, frozen coordinates and velocities; the basis repeated by unit_cell_grid
as the program repeats it; the results read from a report."""
import os
import shutil

import numpy as np
from ase import units
from ase.build import bulk
from ase.constraints import FixAtoms, FixCartesian

from lyrt import io
from lyrt_test_support import DATA, SOURCE, FolderTest


def assert_same_sites(a, b, cell, atol=1e-10):
    """Positions equal up to lattice vectors (the program folds ions into its cell)."""
    frac = np.linalg.solve(np.array(cell).T, (a - b).T).T
    np.testing.assert_allclose(frac - np.round(frac), 0.0, atol=atol)


class PositionFiles(FolderTest):
    def test_round_trip_through_the_program(self):
        atoms = bulk("Cu", "fcc", a=3.7, cubic=True) * (2, 1, 1)
        symbols = atoms.get_chemical_symbols()
        symbols[1] = symbols[6] = "Au"  # species interleaved in the file
        atoms.set_chemical_symbols(symbols)
        atoms.rattle(0.05, seed=3)
        atoms.set_cell(atoms.cell + [[0, 0.1, 0], [0, 0, 0], [0.05, 0, 0]], scale_atoms=True)
        rng = np.random.default_rng(4)
        atoms.set_velocities(rng.normal(0, 0.01, (len(atoms), 3)) * units.fs)
        atoms.set_constraint([FixAtoms(indices=[0]), FixCartesian(3, mask=[False, True, True])])
        species = io.tbparam_species(os.path.join(DATA, "CuAu.tbparam"))
        self.assertEqual(species, ["Cu", "Au"])
        io.write_poslyrt(self.path("POSLYRT"), atoms, species)
        shutil.copy(os.path.join(DATA, "CuAu.tbparam"), self.path("TBPARAM"))
        io.write_inlyrt(self.path("INLYRT"), sigma=0.1, calc_forces=False)
        self.run_lyrt(self.dir)
        for name in ("POSLYRT", "POSCONT"):
            back = io.read_poslyrt(self.path(name))  # species from TBPARAM beside it
            self.assertEqual(back.get_chemical_symbols(), atoms.get_chemical_symbols(), name)
            np.testing.assert_allclose(back.cell, atoms.cell, atol=1e-12)
            assert_same_sites(back.positions, atoms.positions, atoms.cell)
            np.testing.assert_allclose(back.get_velocities(), atoms.get_velocities(),
                                       atol=1e-12)
            frozen = io._frozen_flags(back)
            self.assertTrue(frozen[0].all() and frozen[3].tolist() == [False, True, True])
            self.assertEqual(frozen.sum(), 5, name)

    def test_grid_repeats_the_basis_as_the_program_does(self):
        example = os.path.join(SOURCE, "examples", "cu32")
        for name in ("POSLYRT", "TBPARAM", "INLYRT"):
            shutil.copy(os.path.join(example, name), self.dir)
        self.run_lyrt(self.dir)
        mine = io.read_poslyrt(self.path("POSLYRT"))
        theirs = io.read_poslyrt(self.path("POSCONT"))
        self.assertEqual(len(mine), 32)
        np.testing.assert_allclose(mine.cell, theirs.cell, atol=1e-12)
        assert_same_sites(mine.positions, theirs.positions, mine.cell)
        self.assertEqual(set(mine.get_chemical_symbols()), {"Cu"})

    def test_inlyrt_keywords(self):
        io.write_inlyrt(self.path("INLYRT"), sigma=0.1, calc_stress=True, n_steps=3,
                        save_to_file=["ENE", "XYZ"])
        with open(self.path("INLYRT")) as f:
            text = f.read()
        self.assertEqual(text,
                         "sigma = 0.1\ncalc_stress = T\nn_steps = 3\n"
                         "save_to_file = ENE\nsave_to_file = XYZ\n")


class Results(FolderTest):
    def test_results_of_a_static_run(self):
        atoms = bulk("Cu", "fcc", a=3.6, cubic=True)
        atoms.rattle(0.05, seed=5)
        io.write_poslyrt(self.path("POSLYRT"), atoms)
        shutil.copy(os.path.join(DATA, "Cu.tbparam"), self.path("TBPARAM"))
        io.write_inlyrt(self.path("INLYRT"), sigma=0.1, calc_stress=True)
        self.run_lyrt(self.dir)
        r = io.read_results(self.dir)
        self.assertEqual(r["forces"].shape, (4, 3))
        self.assertLess(np.abs(r["forces"].sum(axis=0)).max(), 1e-6)
        self.assertGreater(np.abs(r["forces"]).max(), 0.01)
        # The parts of the energy add up, and the stress is symmetric with the sign
        # of ASE opposite to the report's.
        self.assertAlmostEqual(r["energy"], r["tight_binding_energy"] + r["repulsive_energy"],
                               places=8)
        sig = r["stress_tensor"]
        np.testing.assert_allclose(sig, sig.T, atol=1e-8)
        self.assertAlmostEqual(r["stress"][0], -sig[0, 0])
        self.assertAlmostEqual(r["stress"][3], -sig[1, 2])
        # 4 Cu, 44 electrons: the default number of states with smearing, the larger of
        # 0.6 n_el = 26.4 and 3 + n_el / 2 = 25, ascending, the Fermi level among them.
        e = r["eigenvalues"][0]
        self.assertEqual(len(e), 26)
        self.assertTrue(np.all(np.diff(e) >= 0))
        self.assertTrue(e[0] < r["fermi_level"] < e[-1])


if __name__ == "__main__":
    import unittest
    unittest.main()
