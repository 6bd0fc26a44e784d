"""Benchmark (not a test): the time per single point (energy, forces, stress) of
rattled diamond Si 8 and Si 64 through the i-PI socket (one lyrt process for all
points) against the file-based ASE calculator (a process per point), in the same
run; the ratio is what counts on a shared machine.

    python3 bench/bench_socket.py [path/to/lyrt]
"""
import os
import sys
import tempfile
import time

from ase.build import bulk

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "python"))
from lyrt.calculator import Lyrt, socket_calculator  # noqa: E402

LYRT = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else
                       os.path.join(HERE, "..", "build", "release", "lyrt"))
SI = os.path.join(HERE, "..", "tests", "data", "Si.tbparam")


def seconds_per_point(atoms, calc, points):
    atoms = atoms.copy()
    atoms.calc = calc
    atoms.get_forces()  # the start: set-up, first neighbour search
    t0 = time.perf_counter()
    for k in range(points):
        atoms.positions[0, 0] += 1e-3 * (1 if k % 2 else -1)
        atoms.get_potential_energy(), atoms.get_forces(), atoms.get_stress()
    return (time.perf_counter() - t0) / points


def main():
    os.environ.setdefault("OMP_NUM_THREADS", "1")
    print("Seconds per point (energy, forces, stress), ASE calculator: socket against files")
    print("%-6s %6s %12s %12s %8s" % ("case", "points", "socket", "files", "ratio"))
    for n, points in ((1, 40), (2, 20)):
        atoms = bulk("Si", "diamond", a=5.43, cubic=True).repeat((n, n, n))
        atoms.rattle(0.03, seed=1)
        with tempfile.TemporaryDirectory() as d:
            with socket_calculator(SI, command=LYRT, directory=os.path.join(d, "s")) as calc:
                t_sock = seconds_per_point(atoms, calc, points)
            t_file = seconds_per_point(atoms, Lyrt(SI, command=LYRT,
                                                   directory=os.path.join(d, "f")), points)
        print("Si%-4d %6d %12.5f %12.5f %8.1f" % (8 * n ** 3, points, t_sock, t_file,
                                                  t_file / t_sock))


if __name__ == "__main__":
    main()
