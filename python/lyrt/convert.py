"""Structures from and to POSLYRT.

    python3 -m lyrt.convert Si.cif POSLYRT          any file ASE reads, to POSLYRT
    python3 -m lyrt.convert POSCONT relaxed.xyz     POSLYRT or POSCONT, to any ASE format

A file named POSLYRT or POSCONT (or ending in .poslyrt) is the program's format;
anything else goes through ase.io. --tbparam (or --species) gives the species
order of the parameter file; without it the elements keep the order they first
appear in.
"""
import argparse
import os
import sys

from . import io


def is_poslyrt(path):
    name = os.path.basename(path)
    return name.startswith(("POSLYRT", "POSCONT")) or name.endswith(".poslyrt")


def main(argv=None):
    p = argparse.ArgumentParser(prog="python3 -m lyrt.convert",
                                description="Convert structures from and to POSLYRT.")
    p.add_argument("input")
    p.add_argument("output")
    p.add_argument("--tbparam", help="parameter file whose species order to follow")
    p.add_argument("--species", help="species order, comma separated (e.g. Cu,Au)")
    a = p.parse_args(argv)
    species = None
    if a.tbparam:
        species = io.tbparam_species(a.tbparam)
    elif a.species:
        species = a.species.split(",")
    if is_poslyrt(a.input):
        atoms = io.read_poslyrt(a.input, species)
    else:
        from ase.io import read
        atoms = read(a.input)
    if is_poslyrt(a.output):
        io.write_poslyrt(a.output, atoms, species)
    else:
        from ase.io import write
        write(a.output, atoms)
    print("%s -> %s: %d atoms, %s" % (a.input, a.output, len(atoms),
                                      atoms.get_chemical_formula()))


if __name__ == "__main__":
    sys.exit(main())
