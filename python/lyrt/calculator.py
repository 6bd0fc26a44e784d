"""An ASE calculator that runs the lyrt executable.

    from lyrt.calculator import Lyrt
    atoms.calc = Lyrt("Si.tbparam", directory="run", sigma=0.1)
    e = atoms.get_potential_energy(); f = atoms.get_forces(); s = atoms.get_stress()

Each calculation writes POSLYRT, INLYRT and TBPARAM into `directory`, runs
`command` there (a single point: n_steps = 0) and reads the report back. Keywords
are the program's INLYRT keywords by name. Results are in ASE's units and signs:
eV, eV/A, and the stress in eV/A^3, positive under tension, Voigt order xx yy zz
yz xz xy.
"""
import os
import shutil
import subprocess

from ase.calculators.calculator import (Calculator, CalculationFailed, FileIOCalculator,
                                        all_changes)

from . import io

__all__ = ["Lyrt"]


class Lyrt(FileIOCalculator):
    implemented_properties = ["energy", "free_energy", "forces", "stress"]
    discard_results_on_any_change = True

    def __init__(self, tbparam, command="lyrt", directory=".", **keywords):
        Calculator.__init__(self, directory=directory)
        self.tbparam = os.path.abspath(tbparam)
        self.command = command
        self.species = io.tbparam_species(self.tbparam)
        self.parameters.update(keywords)
        self.last_results = {}

    def write_input(self, atoms, properties=None, system_changes=None):
        os.makedirs(self.directory, exist_ok=True)
        io.write_poslyrt(os.path.join(self.directory, "POSLYRT"), atoms, self.species)
        shutil.copyfile(self.tbparam, os.path.join(self.directory, "TBPARAM"))
        keywords = dict(self.parameters)
        keywords.setdefault("system_name", "ASE calculator")
        keywords["n_steps"] = 0
        keywords["calc_forces"] = True
        if properties is not None and "stress" in properties:
            keywords["calc_stress"] = True
        io.write_inlyrt(os.path.join(self.directory, "INLYRT"), **keywords)

    def calculate(self, atoms=None, properties=("energy",), system_changes=all_changes):
        # The stress costs little beside the forces: it is computed whenever the
        # cell is periodic, so that a later get_stress needs no second run.
        properties = list(properties)
        if "stress" not in properties and atoms is not None and all(atoms.pbc):
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
        self.last_results = res
        self.results = {"energy": res["energy"], "free_energy": res["free_energy"],
                        "forces": res["forces"]}
        if "stress" in res:
            self.results["stress"] = res["stress"]
