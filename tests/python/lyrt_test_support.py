"""What the Python tests share: the program, the source tree, a fresh folder a test."""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

LYRT = os.environ["LYRT_BINARY"]
SOURCE = os.environ["LYRT_SOURCE_DIR"]
DATA = os.path.join(SOURCE, "tests", "data")


class FolderTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="lyrt_py_")

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def path(self, *names):
        return os.path.join(self.dir, *names)

    def copy_example(self, name):  # its positions and model, not its keywords
        for f in ("POSLYRT", "TBPARAM"):
            shutil.copy(os.path.join(SOURCE, "examples", name, f), self.dir)

    def run_lyrt(self):
        run = subprocess.run([LYRT], cwd=self.dir, capture_output=True, text=True,
                             env=dict(os.environ, OMP_NUM_THREADS="1", OPENBLAS_NUM_THREADS="1"))
        self.assertEqual(run.returncode, 0, run.stdout[-2000:])

    def module(self, *args):
        run = subprocess.run([sys.executable, "-m"] + list(args), cwd=self.dir,
                             capture_output=True, text=True, env=dict(os.environ, MPLBACKEND="Agg"))
        self.assertEqual(run.returncode, 0, run.stderr)
