"""Plots of the program's data files, drawn headless with matplotlib.

    python3 -m lyrt.plot ENE -o energy.png    energies and temperature against time
    python3 -m lyrt.plot EIG -o spectrum.png  eigenvalues of each listing, Fermi level

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
                                description="Plot the ENE or EIG data file of a lyrt run.")
    p.add_argument("file", help="ENE or EIG (the kind is read from the file)")
    p.add_argument("-o", "--output", help="image file (default: FILE.png)")
    a = p.parse_args(argv)
    out = a.output or a.file + ".png"
    with open(a.file) as f:
        text = f.read(4096)
    if "fermi level :" in text:
        plot_eig(a.file, out)
    else:
        plot_ene(a.file, out)
    print(out)


if __name__ == "__main__":
    sys.exit(main())
