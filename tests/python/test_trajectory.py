"""The extended-XYZ trajectory of a dynamics run, read back by ASE, holds the
positions, forces and energies of the program's own data files POS, FOR, ENE."""
import os
import shutil
import subprocess
import tempfile
import unittest

import numpy as np
from ase.io import read

LYRT = os.environ["LYRT_BINARY"]
SOURCE = os.environ["LYRT_SOURCE_DIR"]


def read_frames(path, n_ions):
    """Frames of POS/VEL/FOR: three cell lines, the counts, one line per ion."""
    lines = open(path).read().splitlines()
    size = 4 + n_ions
    frames = []
    for start in range(0, len(lines), size):
        cell = np.array([[float(x) for x in lines[start + k].split()] for k in range(3)])
        values = np.array([[float(x) for x in lines[start + 4 + i].split()[1:]]
                           for i in range(n_ions)])
        frames.append((cell, values))
    return frames


class Trajectory(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="lyrt_xyz_")

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def test_trajectory_matches_the_data_files(self):
        example = os.path.join(SOURCE, "examples", "si8")
        for name in ("POSLYRT", "TBPARAM"):
            shutil.copy(os.path.join(example, name), self.dir)
        with open(os.path.join(self.dir, "INLYRT"), "w") as f:
            f.write("n_steps = 6\nions_eom_algo = 2\ntemperature = 900\n"
                    "temperature_seed_1 = 3\ntemperature_seed_2 = 4\nstatus_output_freq = 2\n"
                    "save_to_file = XYZ\nsave_to_file = FOR\nsave_to_file = VEL\n")
        run = subprocess.run([LYRT], cwd=self.dir, capture_output=True, text=True)
        self.assertEqual(run.returncode, 0, run.stdout[-2000:])

        frames = read(os.path.join(self.dir, "trajectory.xyz"), index=":")
        self.assertEqual(len(frames), 4)  # steps 0, 2, 4, 6
        pos = read_frames(os.path.join(self.dir, "POS"), 8)
        vel = read_frames(os.path.join(self.dir, "VEL"), 8)
        force = read_frames(os.path.join(self.dir, "FOR"), 8)
        ene = [line.split() for line in open(os.path.join(self.dir, "ENE"))
               if not line.startswith("#")]
        self.assertEqual(len(pos), 4)
        self.assertEqual(len(ene), 4)
        e0 = frames[0].get_potential_energy()
        for k, atoms in enumerate(frames):
            self.assertEqual(atoms.get_chemical_symbols(), ["Si"] * 8)
            self.assertTrue(all(atoms.pbc))
            cell, reduced = pos[k]
            np.testing.assert_allclose(atoms.cell[:], cell, atol=1e-7)
            # POS holds reduced coordinates, six digits.
            np.testing.assert_allclose(atoms.get_positions(), reduced @ cell, atol=1e-5)
            np.testing.assert_allclose(atoms.arrays["velo"], vel[k][1], rtol=1e-5, atol=1e-9)
            np.testing.assert_allclose(atoms.get_forces(), force[k][1], atol=1e-5)
            # ENE holds the potential energy as the change from step 0.
            step, time = int(ene[k][0]), float(ene[k][1])
            self.assertEqual(step, 2 * k)
            self.assertAlmostEqual(atoms.info["time"], time, places=9)
            self.assertAlmostEqual(atoms.get_potential_energy() - e0, float(ene[k][4]), places=8)
        # The atoms move, and the forces are those of the moved atoms.
        self.assertGreater(np.abs(frames[3].get_positions() - frames[0].get_positions()).max(),
                           1e-3)


if __name__ == "__main__":
    unittest.main()
