"""Python interface of lyrt: read and write its input files (``lyrt.io``), run it
from ASE (``lyrt.calculator.Lyrt``), plot its data files (``python3 -m lyrt.plot``)
and convert structures (``python3 -m lyrt.convert``)."""

__all__ = ["io", "calculator"]
