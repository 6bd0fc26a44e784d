"""The program as a client of ASE's i-PI server: a BFGS relaxation through the socket
gives at every step what the file-based calculator gives; a changed atom count, a
server that drops the connection before it takes the forces, and SIGTERM end the
program within seconds with their messages."""
import os
import signal
import subprocess
import time
import unittest

import numpy as np
from ase.build import bulk
from ase.calculators.socketio import SocketServer
from ase.optimize import BFGS

from lyrt import io
from lyrt.calculator import Lyrt, socket_calculator
from lyrt_test_support import DATA, LYRT, FolderTest

SI = os.path.join(DATA, "Si.tbparam")


def text(path):
    with open(path) as f:
        return f.read()


def rattled_si8():
    # Sheared, so that the cell's rows and columns differ on the way through.
    atoms = bulk("Si", "diamond", a=5.43, cubic=True)
    atoms.set_cell(atoms.cell @ np.array([[1, 0.03, 0], [0, 1, 0.02], [0.01, 0, 1]]),
                   scale_atoms=True)
    atoms.rattle(0.05, seed=4)
    return atoms


class Socket(FolderTest):
    def test_relaxation_through_the_socket_equals_the_file_calculator(self):
        atoms = rattled_si8()
        files = Lyrt(SI, command=LYRT, directory=self.path("files"))
        steps = []
        with socket_calculator(SI, command=LYRT, directory=self.path("sock")) as calc:
            atoms.calc = calc

            def compare():
                other = atoms.copy()
                other.calc = files
                steps.append((abs(atoms.get_potential_energy() - other.get_potential_energy()),
                              np.abs(atoms.get_forces() - other.get_forces()).max(),
                              np.abs(atoms.get_stress() - other.get_stress()).max()))

            opt = BFGS(atoms, logfile=None)
            opt.attach(compare)
            opt.run(fmax=0.05, steps=6)
        self.assertGreaterEqual(len(steps), 4)
        for de, df, ds in steps:
            self.assertLess(de, 1e-8)
            self.assertLess(df, 1e-7)
            self.assertLess(ds, 1e-8)
        # The session ended cleanly; the report lists the points, ENE has a line each.
        report = text(self.path("sock", "OUTLYRT"))
        self.assertIn("Driven by the i-PI server at /tmp/ipi_lyrt_", report)
        self.assertIn("-- LYRT end --", report)
        # One brief line a point, the configuration only at the end.
        self.assertEqual(report.count("------------------------------|"), 0)
        self.assertEqual(report.count("FINAL CONFIGURATION"), 1)
        ene = [l for l in text(self.path("sock", "ENE")).splitlines() if not l.startswith("#")]
        self.assertEqual(len(ene), len(steps))

    def start_client(self, name, atoms):
        """lyrt in driver mode on the UNIX socket `name`, for atoms."""
        d = self.path(name)
        os.makedirs(d)
        io.write_poslyrt(os.path.join(d, "POSLYRT"), atoms)
        io.write_inlyrt(os.path.join(d, "INLYRT"), driver="ipi", driver_address=name,
                        driver_port=0, driver_timeout=30.0)
        with open(SI) as f, open(os.path.join(d, "TBPARAM"), "w") as g:
            g.write(f.read())
        return d, subprocess.Popen([LYRT], cwd=d, stdout=subprocess.DEVNULL,
                                   env=dict(os.environ, OMP_NUM_THREADS="1"))

    def finish(self, proc, d, status, message):
        t0 = time.time()
        self.assertEqual(proc.wait(timeout=20), status)
        self.assertLess(time.time() - t0, 10)
        self.assertIn(message, text(os.path.join(d, "OUTLYRT")))

    def test_changed_atoms_dropped_connection_and_sigterm(self):
        atoms = rattled_si8()
        name = "lyrt_%d_count" % os.getpid()
        with SocketServer(unixsocket=name, timeout=20) as server:
            d, proc = self.start_client(name, atoms)
            r = server.calculate(atoms)
            self.assertEqual(r["forces"].shape, (8, 3))
            bigger = atoms.repeat((1, 1, 2))
            try:
                server.calculate(bigger)
            except (OSError, AssertionError):
                pass  # the client has gone
            self.finish(proc, d, 1, "the driver server sent 16 atoms; this run has 8")
        name = "lyrt_%d_drop" % os.getpid()
        with SocketServer(unixsocket=name, timeout=20) as server:
            d, proc = self.start_client(name, atoms)
            server._accept()
            self.assertEqual(server.protocol.status(), "READY")
            server.protocol.sendposdata(atoms.cell, atoms.cell.reciprocal(), atoms.positions)
            server.clientsocket.close()  # gone before it takes the forces
            self.finish(proc, d, 1, "closed the connection before it took the forces")
        name = "lyrt_%d_term" % os.getpid()
        with SocketServer(unixsocket=name, timeout=20) as server:
            d, proc = self.start_client(name, atoms)
            server.calculate(atoms)
            proc.send_signal(signal.SIGTERM)
            self.finish(proc, d, 2, "interrupted by SIGTERM while waiting for the server")


if __name__ == "__main__":
    unittest.main()
