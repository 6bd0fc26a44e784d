"""The ASE calculator against ASE's own finite differences of the same calculator:
forces and stress of rattled Si 8 (non-orthogonal sp model with on-site terms) and
strained Cu 4 with smearing (spd)."""
import os
import unittest

import numpy as np
from ase.build import bulk

from lyrt.calculator import Lyrt
from lyrt_test_support import DATA, LYRT, FolderTest


class Calculator(FolderTest):
    def check(self, atoms, tbparam, **keywords):
        atoms.calc = Lyrt(os.path.join(DATA, tbparam), command=LYRT,
                          directory=self.path(tbparam), **keywords)
        e = atoms.get_potential_energy()
        self.assertEqual(atoms.get_potential_energy(force_consistent=True), e)
        f = atoms.get_forces()
        s = atoms.get_stress()
        fn = atoms.calc.calculate_numerical_forces(atoms, d=1e-3)
        sn = atoms.calc.calculate_numerical_stress(atoms, d=1e-5)
        self.assertLess(np.abs(fn - f).max(), 1e-4, (f, fn))
        self.assertLess(np.abs(sn - s).max(), 1e-4, (s, sn))
        self.assertGreater(np.abs(f).max(), 0.05)  # the checks are not about zeros
        self.assertGreater(np.abs(s[3:]).max(), 1e-3)
        self.assertLess(np.abs(f.sum(axis=0)).max(), 1e-6)

    def test_silicon(self):
        atoms = bulk("Si", "diamond", a=5.40, cubic=True)
        atoms.rattle(0.05, seed=1)
        self.check(atoms, "Si.tbparam")

    def test_copper_with_smearing(self):
        atoms = bulk("Cu", "fcc", a=3.58, cubic=True)
        atoms.set_cell(atoms.cell @ np.array([[1, 0.02, 0], [0, 1, 0.01], [0, 0, 0.99]]),
                       scale_atoms=True)
        atoms.rattle(0.04, seed=2)
        self.check(atoms, "Cu.tbparam", sigma=0.1)

    def test_a_failed_run_raises(self):
        from ase.calculators.calculator import CalculationFailed
        atoms = bulk("Si", "diamond", a=5.40, cubic=True)
        atoms.positions[1] = atoms.positions[0]  # two ions on one spot: the program stops
        atoms.calc = Lyrt(os.path.join(DATA, "Si.tbparam"), command=LYRT,
                          directory=self.path("bad"))
        with self.assertRaises(CalculationFailed):
            atoms.get_potential_energy()


if __name__ == "__main__":
    unittest.main()
