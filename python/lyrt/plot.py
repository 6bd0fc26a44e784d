"""Plots of the program's data files, drawn headless with matplotlib.

    python3 -m lyrt.plot ENE -o energy.png    energies and temperature against time
    python3 -m lyrt.plot EIG -o spectrum.png  eigenvalues of each listing, Fermi level
    python3 -m lyrt.plot BANDS -o bands.png   levels along the path of KPTS, corners labelled
    python3 -m lyrt.plot DOS -o dos.png       density of states, total and per species and shell

ENE of a relaxation (change of the energy and largest force per step) is drawn
against the step.
"""
import argparse
import sys

import numpy as np


def read_ene(path):
    """The data lines of ENE as an array (one row per line) and its head line."""
    head, rows = "", []
    with open(path) as f:
        for line in f:
            if line.startswith("#"):
                head = line
                continue
            parts = line.split()
            if parts:
                rows.append([float(x) if "*" not in x else np.nan for x in parts])
    return head, np.array(rows)


def read_eig(path):
    """Each listing of EIG: (Fermi level, eigenvalues of the first k-point)."""
    listings = []
    fermi, values, in_kpt = None, [], False
    with open(path) as f:
        for line in f:
            if line.startswith("fermi level :"):
                if fermi is not None:
                    listings.append((fermi, np.array(values)))
                fermi, values, in_kpt = float(line.split(":")[1]), [], False
            elif line.startswith("K-point #"):
                in_kpt = len(values) == 0
            elif in_kpt:
                parts = line.split()
                if len(parts) >= 2 and parts[0].isdigit():
                    values.append(float(parts[1]))
    if fermi is not None:
        listings.append((fermi, np.array(values)))
    return listings


def read_bands(path):
    """BANDS: (Fermi level, distances, labels, levels with one row per point)."""
    fermi, x, labels, levels = None, [], [], []
    with open(path) as f:
        for line in f:
            if line.startswith("#"):
                if "Fermi level" in line:
                    fermi = float(line.split("(eV)")[-1])
                continue
            parts = line.split()
            if len(parts) >= 3:
                x.append(float(parts[0]))
                labels.append(parts[1])
                levels.append([float(v) for v in parts[2:]])
    return fermi, np.array(x), labels, np.array(levels)


def read_dos(path):
    """DOS: (Fermi level, column names, data with the energy in column 0)."""
    fermi, names, rows = None, [], []
    with open(path) as f:
        for line in f:
            if line.startswith("# E (eV)"):
                names = line[len("# E (eV)"):].split()
            elif line.startswith("#"):
                if "Fermi level (eV)" in line:
                    fermi = float(line.split("Fermi level (eV)")[1])
            elif line.strip():
                rows.append([float(v) for v in line.split()])
    return fermi, names, np.array(rows)


def _pyplot():
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    return plt


def plot_bands(path, out):
    plt = _pyplot()
    fermi, x, labels, levels = read_bands(path)
    if levels.size == 0:
        raise SystemExit("%s has no points" % path)
    fig, ax = plt.subplots(figsize=(7, 6))
    zero = fermi if fermi is not None else 0.0
    ax.plot(x, levels - zero, color="tab:blue", linewidth=1.2)
    corners = [(xi, lab) for xi, lab in zip(x, labels) if lab != "-"]
    for xi, _ in corners:
        ax.axvline(xi, color="0.7", linewidth=0.8)
    ax.set_xticks([xi for xi, _ in corners])
    ax.set_xticklabels(["\u0393" if lab in ("G", "Gamma", "GAMMA") else lab for _, lab in corners])
    ax.set_xlim(x[0], x[-1])
    ax.axhline(0.0, linestyle="--", color="tab:red", linewidth=0.8)
    ax.set_ylabel("E - E_F (eV)" if fermi is not None else "E (eV)")
    fig.suptitle(path)
    fig.tight_layout()
    fig.savefig(out, dpi=100)
    plt.close(fig)


def plot_dos(path, out):
    plt = _pyplot()
    fermi, names, d = read_dos(path)
    if d.size == 0:
        raise SystemExit("%s has no data lines" % path)
    fig, ax = plt.subplots(figsize=(7, 5))
    zero = fermi if fermi is not None else 0.0
    e = d[:, 0] - zero
    ax.fill_between(e, d[:, 1], color="0.85", label=names[0] if names else "total")
    for c, name in enumerate(names[1:], start=2):
        ax.plot(e, d[:, c], linewidth=1.2, label=name)
    ax.axvline(0.0, linestyle="--", color="tab:red", linewidth=0.8)
    ax.set_xlabel("E - E_F (eV)" if fermi is not None else "E (eV)")
    ax.set_ylabel("states / eV per cell")
    ax.set_xlim(e[0], e[-1])
    ax.set_ylim(bottom=0.0)
    ax.legend()
    fig.suptitle(path)
    fig.tight_layout()
    fig.savefig(out, dpi=100)
    plt.close(fig)


def plot_ene(path, out):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    head, d = read_ene(path)
    if d.size == 0:
        raise SystemExit("%s has no data lines" % path)
    if d.shape[1] >= 6:
        fig, (ax, at) = plt.subplots(2, 1, sharex=True, figsize=(7, 6))
        t = d[:, 1]
        ax.plot(t, d[:, 4], label="potential")
        ax.plot(t, d[:, 3], label="kinetic")
        ax.plot(t, d[:, 5], label="total")
        ax.set_ylabel("energy (eV, from the first step)")
        ax.legend()
        at.plot(t, d[:, 2], color="tab:red")
        at.set_ylabel("temperature (K)")
        at.set_xlabel("time (fs)")
    else:
        fig, (ax, at) = plt.subplots(2, 1, sharex=True, figsize=(7, 6))
        ax.plot(d[:, 0], d[:, 1], marker="o")
        ax.set_ylabel("change of the potential energy (eV)")
        at.semilogy(d[:, 0], np.abs(d[:, 2]), marker="o", color="tab:red")
        at.set_ylabel("largest force (eV/A)")
        at.set_xlabel("step")
    fig.suptitle(path)
    fig.tight_layout()
    fig.savefig(out, dpi=100)
    plt.close(fig)


def plot_eig(path, out):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    listings = read_eig(path)
    if not listings:
        raise SystemExit("%s has no eigenvalue listings" % path)
    fig, (ax, ad) = plt.subplots(1, 2, sharey=True, figsize=(8, 6),
                                 gridspec_kw={"width_ratios": [3, 1]})
    for n, (ef, e) in enumerate(listings):
        ax.plot(np.full(len(e), n), e, "_", color="tab:blue", markersize=12)
    ax.plot(range(len(listings)), [ef for ef, _ in listings], "--", color="tab:red",
            label="Fermi level")
    ax.set_xlabel("listing (output step)")
    ax.set_ylabel("eigenvalue (eV)")
    ax.legend()
    ef, e = listings[-1]
    ad.hist(e, bins=max(10, len(e) // 4), orientation="horizontal", color="tab:blue")
    ad.axhline(ef, linestyle="--", color="tab:red")
    ad.set_xlabel("states (last listing)")
    fig.suptitle(path)
    fig.tight_layout()
    fig.savefig(out, dpi=100)
    plt.close(fig)


def main(argv=None):
    p = argparse.ArgumentParser(prog="python3 -m lyrt.plot",
                                description="Plot a data file of a lyrt run.")
    p.add_argument("file", help="ENE, EIG, BANDS or DOS (the kind is read from the file)")
    p.add_argument("-o", "--output", help="image file (default: FILE.png)")
    a = p.parse_args(argv)
    out = a.output or a.file + ".png"
    with open(a.file) as f:
        text = f.read(4096)
    if text.startswith("# levels along the path"):
        plot_bands(a.file, out)
    elif text.startswith("# density of states"):
        plot_dos(a.file, out)
    elif "fermi level :" in text:
        plot_eig(a.file, out)
    else:
        plot_ene(a.file, out)
    print(out)


if __name__ == "__main__":
    sys.exit(main())
