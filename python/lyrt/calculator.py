"""An ASE calculator that runs the lyrt executable.

    from lyrt.calculator import Lyrt
    atoms.calc = Lyrt("Si.tbparam", directory="run", sigma=0.1)
    e = atoms.get_potential_energy(); f = atoms.get_forces(); s = atoms.get_stress()

Each calculation writes POSLYRT, INLYRT and TBPARAM into `directory`, runs
`command` there (a single point: n_steps = 0) and reads the report back. Keywords
are the program's INLYRT keywords by name. Results are in ASE's units and signs:
eV, eV/A, and the stress in eV/A^3, positive under tension, Voigt order xx yy zz
yz xz xy.

`kpts` samples the Brillouin zone (the file KPTS): a grid (4, 4, 4) read as
Monkhorst-Pack, {"size": (4, 4, 4), "gamma": True}, {"density": 3.5}, a list of
points in cell units, or a band path (atoms.cell.bandpath(...) or {"path": "LGX",
"npoints": 60}), which gives levels but no forces:

    calc = Lyrt("Si.tbparam", kpts={"path": "LGXUG", "npoints": 80})
    atoms.calc = calc; atoms.get_potential_energy(); calc.band_structure().plot()

The Fermi level of a path run is that of the path's own points; take the grid's
(get_fermi_level of a grid run) as the reference of the plot.

`socket_calculator` keeps one lyrt process for all points instead: ASE's
SocketIOCalculator starts lyrt in driver mode (the i-PI protocol over a UNIX socket
by default), which reads its files once and answers every new geometry (positions
and cell) from its last state:

    with socket_calculator("Si.tbparam", directory="run") as calc:
        atoms.calc = calc
        BFGS(atoms).run(fmax=0.01)
"""
import itertools
import os
import shutil
import subprocess

import ase.io
import numpy as np

from ase.calculators.calculator import (Calculator, CalculationFailed, FileIOCalculator,
                                        all_changes)

from . import io

__all__ = ["Lyrt", "socket_calculator"]

_socket_names = itertools.count()


class Lyrt(FileIOCalculator):
    implemented_properties = ["energy", "free_energy", "forces", "stress"]
    discard_results_on_any_change = True

    def __init__(self, tbparam, command="lyrt", directory=".", kpts=None, **keywords):
        Calculator.__init__(self, directory=directory)
        self.tbparam = os.path.abspath(tbparam)
        self.command = command
        self.species = io.tbparam_species(self.tbparam)
        self.parameters.update(keywords)
        self.kpts = kpts
        self.kpts_kind = None
        self.last_results = {}

    def write_input(self, atoms, properties=None, system_changes=None):
        os.makedirs(self.directory, exist_ok=True)
        io.write_poslyrt(os.path.join(self.directory, "POSLYRT"), atoms, self.species)
        shutil.copyfile(self.tbparam, os.path.join(self.directory, "TBPARAM"))
        keywords = dict(self.parameters)
        keywords.setdefault("system_name", "ASE calculator")
        keywords["n_steps"] = 0
        kpts_file = os.path.join(self.directory, "KPTS")
        if self.kpts is None:
            if os.path.exists(kpts_file):
                os.remove(kpts_file)
        else:
            self.kpts_kind = io.write_kpts(kpts_file, self.kpts, atoms)
        if self.kpts_kind != "path":
            keywords["calc_forces"] = True
            if properties is not None and "stress" in properties:
                keywords["calc_stress"] = True
        # The trajectory frame carries energy, forces and stress to all digits (the
        # report prints forces to 1e-8 and the stress to five figures).
        saves = keywords.get("save_to_file", ["POS", "ENE"])
        saves = [saves] if isinstance(saves, str) else list(saves)
        if "XYZ" not in [x.upper() for x in saves]:
            saves.append("XYZ")
        keywords["save_to_file"] = saves
        xyz = os.path.join(self.directory, "trajectory.xyz")
        if os.path.exists(xyz):
            os.remove(xyz)
        io.write_inlyrt(os.path.join(self.directory, "INLYRT"), **keywords)

    def calculate(self, atoms=None, properties=("energy",), system_changes=all_changes):
        # The stress costs little beside the forces: it is computed whenever the
        # cell is periodic, so that a later get_stress needs no second run.
        properties = list(properties)
        if self.kpts is not None and (isinstance(self.kpts, dict) and "path" in self.kpts
                                      or type(self.kpts).__name__ == "BandPath"):
            self.kpts_kind = "path"
            if any(p in properties for p in ("forces", "stress")):
                raise CalculationFailed("a band path gives levels, not forces or stress")
        elif "stress" not in properties and atoms is not None and all(atoms.pbc):
            properties.append("stress")
        Calculator.calculate(self, atoms, properties, system_changes)
        self.write_input(self.atoms, properties, system_changes)
        with open(os.path.join(self.directory, "lyrt.out"), "w") as out:
            code = subprocess.call(self.command, shell=True, cwd=self.directory, stdout=out,
                                   stderr=subprocess.STDOUT)
        if code != 0:
            raise CalculationFailed("%s in %s exited with status %d; see OUTLYRT and ERRLYRT"
                                    % (self.command, self.directory, code))
        self.read_results()

    def read_results(self):
        res = io.read_results(self.directory)
        xyz = os.path.join(self.directory, "trajectory.xyz")
        if os.path.exists(xyz) and self.kpts_kind != "path":
            frame = ase.io.read(xyz, index=-1, format="extxyz")
            res["energy"] = res["free_energy"] = frame.info["energy"]
            res["forces"] = frame.arrays["forces"].copy()
            if "stress" in frame.info:
                s = np.asarray(frame.info["stress"]).reshape(3, 3)
                res["stress"] = np.array([s[0, 0], s[1, 1], s[2, 2], s[1, 2], s[0, 2], s[0, 1]])
        self.last_results = res
        self.results = {"energy": res["energy"], "free_energy": res["free_energy"]}
        for name in ("forces", "stress"):
            if name in res:
                self.results[name] = res[name]

    # The levels of the last run, for ASE's band structures and densities of states
    # (one spin channel: the program is spin-degenerate).
    def get_ibz_k_points(self):
        return self.last_results["kpoints"].copy()

    def get_k_point_weights(self):
        return self.last_results["kpoint_weights"].copy()

    def get_eigenvalues(self, kpt=0, spin=0):
        return self.last_results["eigenvalues"][kpt].copy()

    def get_fermi_level(self):
        return self.last_results.get("fermi_level")

    def get_number_of_spins(self):
        return 1

    def get_spin_polarized(self):
        return False

    def get_number_of_bands(self):
        return len(self.last_results["eigenvalues"][0])

    def get_occupation_numbers(self, kpt=0, spin=0):
        raise NotImplementedError("the report lists levels, not occupations")


def socket_calculator(tbparam, directory=".", command="lyrt", unixsocket=None, port=None,
                      timeout=None, log=None, kpts=None, driver_timeout=3600.0, **keywords):
    """ASE's SocketIOCalculator with lyrt as its client (driver = ipi).

    The first calculation writes POSLYRT, INLYRT and TBPARAM into `directory` (as
    Lyrt does, with the driver keywords added) and starts `command` there; later
    ones send only positions and cell. Without `port` the socket is a UNIX socket
    (/tmp/ipi_<unixsocket>, a name of this process by default). `timeout` is ASE's
    wait for a point (None: no limit); `driver_timeout` lyrt's wait for a message
    of the server. Use it in a with-block, or call close(), which ends lyrt.
    """
    from ase.calculators.socketio import SocketIOCalculator

    if unixsocket is None and port is None:
        unixsocket = "lyrt_%d_%d" % (os.getpid(), next(_socket_names))
    files = Lyrt(tbparam, command=command, directory=directory, kpts=kpts, **keywords)

    def launch(atoms, properties=None, port=None, unixsocket=None):
        files.parameters.update(driver="ipi", driver_timeout=driver_timeout)
        if unixsocket is not None:
            files.parameters.update(driver_address=unixsocket, driver_port=0)
        else:
            files.parameters.update(driver_address="localhost", driver_port=port)
        files.write_input(atoms)
        with open(os.path.join(directory, "stdout.txt"), "w") as out:
            return subprocess.Popen(command, shell=True, cwd=directory, stdout=out,
                                    stderr=subprocess.STDOUT)

    return SocketIOCalculator(launch_client=launch, port=port, unixsocket=unixsocket,
                              timeout=timeout, log=log)
