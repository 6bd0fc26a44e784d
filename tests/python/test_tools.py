"""A run's trajectory read by ASE against its data files; plots; conversions and back."""
import unittest

import numpy as np
from ase.build import bulk
from ase.io import read, write

from lyrt import io
from lyrt.plot import read_eig
from lyrt_test_support import DATA, FolderTest


def frames(path, n_ions):
    """Frames of POS/VEL/FOR: three cell lines, the counts, one line per ion."""
    lines = open(path).read().splitlines()
    out = []
    for s in range(0, len(lines), 4 + n_ions):
        cell = np.array([[float(x) for x in lines[s + k].split()] for k in range(3)])
        out.append((cell, np.array([[float(x) for x in lines[s + 4 + i].split()[1:]]
                                    for i in range(n_ions)])))
    return out


class Tools(FolderTest):
    def test_trajectory_and_plots_of_a_run(self):
        self.copy_example("si8")
        io.write_inlyrt(self.path("INLYRT"), n_steps=6, ions_eom_algo=2, temperature=900,
                        temperature_seed_1=3, temperature_seed_2=4, status_output_freq=2,
                        save_to_file=["XYZ", "FOR", "VEL", "ENE", "EIG"])
        self.run_lyrt()
        traj = read(self.path("trajectory.xyz"), index=":")
        self.assertEqual(len(traj), 4)  # steps 0, 2, 4, 6
        pos, vel, force = (frames(self.path(f), 8) for f in ("POS", "VEL", "FOR"))
        ene = [line.split() for line in open(self.path("ENE")) if not line.startswith("#")]
        self.assertEqual((len(pos), len(ene)), (4, 4))
        for k, atoms in enumerate(traj):
            np.testing.assert_allclose(atoms.cell[:], pos[k][0], atol=1e-7)
            np.testing.assert_allclose(atoms.get_positions(), pos[k][1] @ pos[k][0], atol=1e-5)
            np.testing.assert_allclose(atoms.arrays["velo"], vel[k][1], rtol=1e-5, atol=1e-9)
            np.testing.assert_allclose(atoms.get_forces(), force[k][1], atol=1e-5)
            self.assertEqual(int(ene[k][0]), 2 * k)
            self.assertAlmostEqual(atoms.info["time"], float(ene[k][1]), places=9)
            # ENE holds the potential energy as the change from step 0.
            self.assertAlmostEqual(atoms.get_potential_energy() - traj[0].get_potential_energy(),
                                   float(ene[k][4]), places=8)
        self.assertGreater(np.abs(traj[3].positions - traj[0].positions).max(), 1e-3)
        for data, image in (("ENE", "energy.png"), ("EIG", "spectrum.png")):
            self.module("lyrt.plot", data, "-o", image)
            with open(self.path(image), "rb") as f:
                self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n", data)
        listings = read_eig(self.path("EIG"))  # steps 0, 2, 4, 6: 16 levels each
        self.assertEqual((len(listings), {len(e) for _, e in listings}), (4, {16}))

    def test_formats_to_poslyrt_and_back(self):
        atoms = bulk("Cu", "fcc", a=3.7, cubic=True)
        atoms.set_chemical_symbols(["Cu", "Cu", "Au", "Cu"])
        atoms.rattle(0.03, seed=6)
        for name, fmt in (("in.cif", "cif"), ("POSCAR", "vasp"), ("in.xyz", "extxyz")):
            write(self.path(name), atoms, format=fmt)
            self.module("lyrt.convert", name, "POSLYRT", "--tbparam", DATA + "/CuAu.tbparam")
            original = read(self.path(name))
            self.module("lyrt.convert", "POSLYRT", "out.xyz", "--species", "Cu,Au")
            for back in (io.read_poslyrt(self.path("POSLYRT"), ["Cu", "Au"]),
                         read(self.path("out.xyz"))):
                self.assertEqual(back.get_chemical_symbols(), original.get_chemical_symbols())
                np.testing.assert_allclose(back.positions, original.positions, atol=1e-6)
            np.testing.assert_allclose(back.cell, original.cell, atol=1e-8)


if __name__ == "__main__":
    unittest.main()
