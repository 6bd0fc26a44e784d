"""lyrt driven by ASE through the i-PI socket: one lyrt process answers every point.

    PYTHONPATH=../../python python3 run_ase.py [path/to/lyrt]

1. BFGS relaxation of rattled Si 8 (positions).
2. Constant-pressure dynamics of Si 8 with ASE's NPT (Nose-Hoover and Parrinello-Rahman,
   the cell moves: the socket carries the cell and the virial).
3. Phonons at the zone centre by finite displacements (ASE's Phonons on the 8-atom cell).
Each part starts its own lyrt in its own folder (bfgs/, npt/, phonons/).
"""
import os
import sys

import numpy as np
from ase import units
from ase.build import bulk
from ase.md.npt import NPT
from ase.md.velocitydistribution import MaxwellBoltzmannDistribution
from ase.optimize import BFGS
from ase.phonons import Phonons

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "python"))
from lyrt.calculator import socket_calculator  # noqa: E402

LYRT = sys.argv[1] if len(sys.argv) > 1 else "lyrt"
TB = os.path.abspath("TBPARAM")

atoms = bulk("Si", "diamond", a=5.43, cubic=True)
atoms.rattle(0.05, seed=1)
with socket_calculator(TB, command=LYRT, directory="bfgs") as calc:
    atoms.calc = calc
    BFGS(atoms, logfile="bfgs.log").run(fmax=1e-3)
    print("BFGS: energy %.6f eV, largest force %.2e eV/A"
          % (atoms.get_potential_energy(), np.abs(atoms.get_forces()).max()))

md = bulk("Si", "diamond", a=5.43, cubic=True)
MaxwellBoltzmannDistribution(md, temperature_K=300, rng=np.random.default_rng(2))
with socket_calculator(TB, command=LYRT, directory="npt") as calc:
    md.calc = calc
    dyn = NPT(md, 1.0 * units.fs, temperature_K=300, externalstress=0.0,
              ttime=25 * units.fs, pfactor=(75 * units.fs) ** 2 * 100 * units.GPa,
              logfile="npt.log")
    dyn.run(200)
    print("NPT: volume %.3f A^3 after %d steps" % (md.get_volume(), dyn.nsteps))

ph_atoms = bulk("Si", "diamond", a=5.43, cubic=True)
with socket_calculator(TB, command=LYRT, directory="phonons") as calc:
    ph = Phonons(ph_atoms, calc, supercell=(1, 1, 1), delta=0.01, name="phonons/ph")
    ph.run()
    ph.read(acoustic=True)
    freqs = ph.band_structure([[0, 0, 0]])[0] * 1000  # meV
    ph.clean()
    print("Phonons at Gamma (meV):", " ".join("%.1f" % f for f in sorted(freqs)))
