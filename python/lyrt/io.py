"""The program's files from Python: POSLYRT (and POSCONT, the same format), INLYRT,
the species of TBPARAM, and the results of a run from its report.

Units are the program's: Angstrom, eV, velocities in Angstrom/fs in the files.
Velocities of ASE atoms are in ASE's unit of time; they are converted here.
"""
import os
import re

import numpy as np
from ase import Atoms, units
from ase.constraints import FixAtoms, FixCartesian
from ase.data import atomic_masses, chemical_symbols

__all__ = ["tbparam_species", "write_poslyrt", "read_poslyrt", "write_inlyrt",
           "write_kpts", "read_results"]


def tbparam_species(path):
    """Element symbols of the species of a TBPARAM file, in its order: the file names
    each species by its mass (amu), matched here to the nearest element."""
    with open(path) as f:
        lines = [line.split("!")[0].strip() for line in f]
    lines = [line for line in lines if line]
    n_species = int(lines[2].split()[0])
    at = 3 + n_species * (n_species + 1) // 2  # past the cut-off of each pair
    symbols = []
    for _ in range(n_species):
        mass = float(lines[at + 1].split()[0])
        z = int(np.argmin(np.abs(atomic_masses[1:] - mass))) + 1
        symbols.append(chemical_symbols[z])
        at += 3  # orbital count, mass, electrons
    return symbols


def _species_order(atoms, species):
    symbols = atoms.get_chemical_symbols()
    if species is None:
        species = list(dict.fromkeys(symbols))
    missing = sorted(set(symbols) - set(species))
    if missing:
        raise ValueError("elements %s are not species of the parameter file (%s)"
                         % (", ".join(missing), ", ".join(species)))
    return list(species)


def _frozen_flags(atoms):
    frozen = np.zeros((len(atoms), 3), dtype=bool)
    for c in atoms.constraints:
        if isinstance(c, FixAtoms):
            frozen[c.index] = True
        elif isinstance(c, FixCartesian):
            frozen[c.a] |= np.asarray(c.mask, dtype=bool)
        else:
            raise ValueError("lyrt can freeze Cartesian coordinates only, not %s"
                             % type(c).__name__)
    return frozen


def write_poslyrt(path, atoms, species=None):
    """Writes atoms as a POSLYRT: the cell, Cartesian positions with the species index
    on each line (species in the order of `species`, element symbols as in TBPARAM;
    by default the order in which the elements first appear), velocities when any
    is non-zero, and the freeze block for FixAtoms and FixCartesian constraints."""
    cell = np.array(atoms.get_cell())
    if abs(np.linalg.det(cell)) < 1e-12:
        raise ValueError("lyrt needs a cell: give the atoms one (a box around a molecule)")
    species = _species_order(atoms, species)
    index = [species.index(s) + 1 for s in atoms.get_chemical_symbols()]
    counts = [index.count(k + 1) for k in range(len(species))]
    if len(counts) > 10:
        raise ValueError("lyrt takes at most 10 species")
    out = ["! written by lyrt.io: %s" % atoms.get_chemical_formula(),
           "number_of_ions = " + " ".join(str(c) for c in counts),
           "a0 = 1.0"]
    for k in range(3):
        out.append("a_%d = %s" % (k + 1, " ".join("%.16e" % x for x in cell[k])))
    out.append("positions = cartesian")
    for s, r in zip(index, atoms.get_positions()):
        out.append("%d %s" % (s, " ".join("%.16e" % x for x in r)))
    v = atoms.get_velocities()
    if v is not None and np.any(v != 0.0):
        out.append("velocities = cartesian")
        for row in v / units.fs:  # Angstrom/fs
            out.append(" ".join("%.16e" % x for x in row))
    if atoms.constraints:
        out.append("freeze")
        for row in _frozen_flags(atoms):
            out.append(" ".join("T" if x else "F" for x in row))
    with open(path, "w") as f:
        f.write("\n".join(out) + "\n")


def _statements(path):
    """The lines of a keyword file with their comments removed."""
    with open(path) as f:
        raw = f.read().splitlines()
    lines = [re.split(r"[!#]", line, maxsplit=1)[0].strip() for line in raw]
    return lines


def _find(lines, key):
    """Index of the line that starts with keyword `key`, and its value after '='."""
    for i, line in enumerate(lines):
        parts = re.split(r"[\s=]+", line, maxsplit=1)
        if parts and parts[0].lower() == key:
            value = line.split("=", 1)[1].strip() if "=" in line else ""
            return i, value
    return None, None


def _numbers(text):
    return [float(x.replace("d", "e").replace("D", "e")) for x in text.replace(",", " ").split()]


def _logical(word):
    w = word.strip(".").upper()
    return w.startswith("T")


def read_poslyrt(path, species=None):
    """Reads a POSLYRT or POSCONT into ase.Atoms: cell, positions, species (element
    symbols from `species`, else from a TBPARAM in the same folder, else "X"),
    velocities and frozen coordinates when present. unit_cell_grid repeats the basis
    as the program does; the restart blocks of a POSCONT are ignored."""
    lines = _statements(path)
    i, value = _find(lines, "number_of_ions")
    if i is None:
        raise ValueError("%s: no number_of_ions" % path)
    counts = [int(x) for x in _numbers(value)][:10]
    n_basis = sum(counts)
    if _find(lines, "lattice")[0] is not None:
        raise NotImplementedError("%s: the lattice generator form is read by the program "
                                  "only; run it once and read its POSCONT" % path)
    grid = [1, 1, 1]
    i, value = _find(lines, "unit_cell_grid")
    if i is not None:
        grid = ([int(x) for x in _numbers(value)] + [1, 1, 1])[:3]
    scale = 1.0
    i, value = _find(lines, "a0")
    if i is not None:
        scale = _numbers(value)[0]
    cell = np.zeros((3, 3))
    for k in range(3):
        i, value = _find(lines, "a_%d" % (k + 1))
        if i is None:
            raise ValueError("%s: lattice vector a_%d not found" % (path, k + 1))
        cell[k] = np.array(_numbers(value)[:3]) * scale

    def block(key):
        i, value = _find(lines, key)
        if i is None:
            return None, None
        reduced = value == "" or value[0] in "uU"
        rows = [_numbers(lines[i + 1 + n]) for n in range(n_basis)]
        return np.array(rows), reduced

    rows, reduced = block("positions")
    if rows is None:
        raise ValueError("%s: no positions" % path)
    if rows.shape[1] == 4:
        types = [int(t) for t in rows[:, 0]]
        xyz = rows[:, 1:]
    else:
        # The program's rule for lines without a species index: each species takes
        # its count of lines from the start of the previous species' block (the
        # start does not accumulate beyond the second species).
        types = [1] * n_basis
        start = 0
        for s, c in enumerate(counts):
            for n in range(start, min(start + c, n_basis)):
                types[n] = s + 1
            start = c
        xyz = rows
    if reduced:
        xyz = xyz @ cell
    vel, vreduced = block("velocities")
    if vel is not None and vreduced:
        vel = vel @ cell
    frozen = None
    i, _ = _find(lines, "freeze")
    if i is not None:
        frozen = np.array([[_logical(w) for w in lines[i + 1 + n].split()[:3]]
                           for n in range(n_basis)], dtype=bool)

    if species is None:
        tb = os.path.join(os.path.dirname(os.path.abspath(path)), "TBPARAM")
        species = tbparam_species(tb) if os.path.exists(tb) else ["X"] * len(counts)
    # The basis repeated over the grid in the program's order: a_3 slowest, then
    # a_2, then a_1, the basis fastest.
    pos, typ, v_all, frz = [], [], [], []
    for kk in range(grid[2]):
        for jj in range(grid[1]):
            for ii in range(grid[0]):
                shift = ii * cell[0] + jj * cell[1] + kk * cell[2]
                pos.extend(xyz + shift)
                typ.extend(types)
                if vel is not None:
                    v_all.extend(vel)
                if frozen is not None:
                    frz.extend(frozen)
    big_cell = cell * np.array(grid)[:, None]
    atoms = Atoms([species[t - 1] for t in typ], positions=pos, cell=big_cell, pbc=True)
    atoms.set_tags(typ)
    if vel is not None:
        atoms.set_velocities(np.array(v_all) * units.fs)
    if frozen is not None and np.any(frz):
        frz = np.array(frz)
        whole = [n for n in range(len(atoms)) if frz[n].all()]
        parts = [n for n in range(len(atoms)) if frz[n].any() and not frz[n].all()]
        cons = []
        if whole:
            cons.append(FixAtoms(indices=whole))
        for n in parts:
            cons.append(FixCartesian(n, mask=frz[n]))
        atoms.set_constraint(cons)
    return atoms


def _format_value(v):
    if isinstance(v, bool):
        return "T" if v else "F"
    if isinstance(v, float):
        return repr(v)
    return str(v)


def write_inlyrt(path, **keywords):
    """Writes an INLYRT with the program's keyword names: `sigma=0.1`, `n_steps=100`,
    `calc_stress=True`; a list gives one statement per item (`save_to_file=["XYZ",
    "VEL"]`)."""
    out = []
    for key, value in keywords.items():
        if value is None:
            continue
        if isinstance(value, (list, tuple)):
            out.extend("%s = %s" % (key, _format_value(v)) for v in value)
        else:
            out.append("%s = %s" % (key, _format_value(value)))
    with open(path, "w") as f:
        f.write("\n".join(out) + "\n")


def write_kpts(path, kpts, atoms=None):
    """Writes KPTS from ASE's forms of `kpts`: a grid (n1, n2, n3), Monkhorst-Pack as
    ASE reads it (no gamma for even n); a dict {"size": ..., "gamma": True} or
    {"density": points per 1/A, "gamma": ...} (needs atoms); a BandPath, or a dict
    {"path": "GXWK", "npoints": n} (needs atoms), for a band-structure run; or an
    array of points in cell units (equal weights). Returns the kind: "grid",
    "points" or "path"."""
    from ase.calculators.calculator import kpts2sizeandoffsets
    from ase.dft.kpoints import BandPath
    if isinstance(kpts, dict) and "path" in kpts:
        kpts = atoms.cell.bandpath(kpts["path"], npoints=kpts.get("npoints", 50))
    if isinstance(kpts, BandPath):
        pts = np.asarray(kpts.kpts)
        names = {}
        for name, k in kpts.special_points.items():
            for i, p in enumerate(pts):
                if np.allclose(p, k, atol=1e-10):
                    names.setdefault(i, "G" if name == "G" else name)
        lines = ["path = %d" % len(pts)]
        for i, p in enumerate(pts):
            count = "" if i == len(pts) - 1 else " 1"
            lines.append("%s %.15g %.15g %.15g%s" % (names.get(i, "-"), p[0], p[1], p[2], count))
        kind = "path"
    elif isinstance(kpts, dict) or (np.ndim(kpts) == 1 and len(kpts) == 3):
        if isinstance(kpts, dict):
            size, offsets = kpts2sizeandoffsets(atoms=atoms, **kpts)
        else:
            size, offsets = [int(n) for n in kpts], (0.0, 0.0, 0.0)
        # Gamma-centred grid shifted by s steps: Monkhorst-Pack is s = 1/2 for even n.
        shift = [n * o + (0.5 if n % 2 == 0 else 0.0) for n, o in zip(size, offsets)]
        lines = ["grid = %d %d %d" % tuple(size), "shift = %.15g %.15g %.15g" % tuple(shift)]
        kind = "grid"
    else:
        pts = np.atleast_2d(np.asarray(kpts, dtype=float))
        lines = ["points = %d" % len(pts)]
        lines += ["%.15g %.15g %.15g 1" % tuple(p) for p in pts]
        kind = "points"
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")
    return kind


def _kpoints(lines):
    """The k-point block of a report: points in cell units and their weights; the
    gamma point alone when the report says so."""
    starts = [i for i, line in enumerate(lines) if line.strip() == "k-points:"]
    if not starts:
        return np.zeros((1, 3)), np.ones(1)
    pts, weights = [], []
    for line in lines[starts[-1] + 2:]:
        parts = line.split()
        if "GAMMA POINT ASSUMED" in line:
            return np.zeros((1, 3)), np.ones(1)
        if parts and parts[0] == "grid":
            continue
        try:
            values = [float(x) for x in parts[:7]]
        except ValueError:
            break
        if len(values) < 7:
            break
        pts.append(values[:3])
        weights.append(values[3])
    return np.array(pts), np.array(weights)


_ENERGIES = {
    "energy": r"Potential\s+Energy",
    "atomic_energy": r"Atomic\s+Energy",
    "repulsive_energy": r"Repulsive\s+Energy",
    "tight_binding_energy": r"Tight-binding\s+Energy",
    "kinetic_energy": r"Ionic Kinetic Energy",
    "total_energy": r"Total\s+Energy",
    "temperature": r"Temperature",
    "fermi_level": r"Fermi\s+Energy",
    "energy_gap": r"Energy gap",
}


def read_results(folder="."):
    """The results of the last step of a run, from its report OUTLYRT: the energies
    (eV; 'energy' and 'free_energy' are the potential energy, whose derivatives the
    forces are), 'fermi_level', 'energy_gap', 'forces' (eV/A, one row per ion), the
    stress when computed ('stress_tensor': 3 x 3 in the program's sign, eV/A^3,
    positive under compression; 'stress': ASE's Voigt form and sign, xx yy zz yz xz
    xy, positive under tension), 'eigenvalues' (one array per k-point; the file
    EIG is read when the report has none), and 'kpoints' (cell units) with
    'kpoint_weights'."""
    with open(os.path.join(folder, "OUTLYRT")) as f:
        text = f.read()
    lines = text.splitlines()
    res = {}
    for name, label in _ENERGIES.items():
        found = re.findall(r"^\s*" + label + r"\s*=\s*(\S+)", text, flags=re.M)
        if found:
            res[name] = float(found[-1])
    if "energy" in res:
        res["free_energy"] = res["energy"]
    m = re.findall(r"Total number of ions\s*=\s*(\d+)", text)
    n_ions = int(m[-1]) if m else None

    heads = [i for i, line in enumerate(lines) if "Forces (eV/Ang)" in line]
    if heads and n_ions:
        rows = []
        for line in lines[heads[-1] + 1:heads[-1] + 1 + n_ions]:
            # (i2,3f11.4,3F13.8,1x): fixed columns, the fields may touch.
            rows.append([float(line[35 + 13 * k:48 + 13 * k]) for k in range(3)])
        res["forces"] = np.array(rows)

    heads = [i for i, line in enumerate(lines) if line.strip().startswith("Cartesian (eV/Ang^3")]
    if heads:
        sig = np.array([[float(x) for x in lines[heads[-1] + 1 + k].split()[:3]]
                        for k in range(3)])
        res["stress_tensor"] = sig
        s = -sig
        res["stress"] = np.array([s[0, 0], s[1, 1], s[2, 2], s[1, 2], s[0, 2], s[0, 1]])

    eig = _eigenvalues(lines)
    if not eig and os.path.exists(os.path.join(folder, "EIG")):
        with open(os.path.join(folder, "EIG")) as f:
            eig = _eigenvalues(f.read().splitlines())
    if eig:
        res["eigenvalues"] = eig
    res["kpoints"], res["kpoint_weights"] = _kpoints(lines)
    return res


def _eigenvalues(lines):
    """The eigenvalues of the last listing in lines: one array per k-point."""
    starts = [i for i, line in enumerate(lines) if line.startswith("fermi level :")]
    if not starts:
        return []
    kpts = []
    for line in lines[starts[-1]:]:
        if line.startswith("K-point #"):
            kpts.append([])
            continue
        if not kpts:
            continue
        parts = line.split()
        if len(parts) < 2 or not parts[0].isdigit():
            break
        kpts[-1].append(float(parts[1]))
    return [np.array(k) for k in kpts]
