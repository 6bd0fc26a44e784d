"""The command-line tools: plots of ENE and EIG from a short run (PNG files of some
size), and structures converted from CIF, POSCAR and extended XYZ to POSLYRT and
back, the sites kept."""
import os
import shutil
import subprocess
import sys

import numpy as np
from ase.build import bulk
from ase.io import read, write

from lyrt import io
from lyrt_test_support import DATA, SOURCE, FolderTest

ENV = dict(os.environ, MPLBACKEND="Agg")


def module(*args, cwd):
    return subprocess.run([sys.executable, "-m"] + list(args), cwd=cwd, capture_output=True,
                          text=True, env=ENV)


class Plots(FolderTest):
    def test_energy_and_spectrum_plots(self):
        example = os.path.join(SOURCE, "examples", "si8")
        for name in ("POSLYRT", "TBPARAM"):
            shutil.copy(os.path.join(example, name), self.dir)
        io.write_inlyrt(self.path("INLYRT"), n_steps=6, ions_eom_algo=2, temperature=600,
                        temperature_seed_1=1, temperature_seed_2=2,
                        save_to_file=["ENE", "EIG"])
        self.run_lyrt(self.dir)
        for data, image in (("ENE", "energy.png"), ("EIG", "spectrum.png")):
            run = module("lyrt.plot", data, "-o", image, cwd=self.dir)
            self.assertEqual(run.returncode, 0, run.stderr)
            with open(self.path(image), "rb") as f:
                head = f.read(8)
            self.assertEqual(head, b"\x89PNG\r\n\x1a\n", data)
            self.assertGreater(os.path.getsize(self.path(image)), 10000, data)
        # Seven listings of 16 eigenvalues with their Fermi levels.
        from lyrt.plot import read_eig
        listings = read_eig(self.path("EIG"))
        self.assertEqual(len(listings), 7)
        self.assertTrue(all(len(e) == 16 for _, e in listings))


class Convert(FolderTest):
    def test_formats_to_poslyrt_and_back(self):
        atoms = bulk("Cu", "fcc", a=3.7, cubic=True)
        symbols = atoms.get_chemical_symbols()
        symbols[2] = "Au"
        atoms.set_chemical_symbols(symbols)
        atoms.rattle(0.03, seed=6)
        tb = os.path.join(DATA, "CuAu.tbparam")
        for name, fmt in (("in.cif", "cif"), ("POSCAR", "vasp"), ("in.xyz", "extxyz")):
            write(self.path(name), atoms, format=fmt)
            run = module("lyrt.convert", name, "POSLYRT", "--tbparam", tb, cwd=self.dir)
            self.assertEqual(run.returncode, 0, run.stderr)
            back = io.read_poslyrt(self.path("POSLYRT"), ["Cu", "Au"])
            original = read(self.path(name))
            self.assertEqual(back.get_chemical_symbols(), original.get_chemical_symbols(), fmt)
            np.testing.assert_allclose(back.cell, original.cell, atol=1e-8)
            np.testing.assert_allclose(back.positions, original.positions, atol=1e-6)
            run = module("lyrt.convert", "POSLYRT", "out.xyz", "--species", "Cu,Au",
                         cwd=self.dir)
            self.assertEqual(run.returncode, 0, run.stderr)
            again = read(self.path("out.xyz"))
            np.testing.assert_allclose(again.positions, original.positions, atol=1e-6)
            self.assertEqual(again.get_chemical_symbols(), original.get_chemical_symbols())


if __name__ == "__main__":
    import unittest
    unittest.main()
