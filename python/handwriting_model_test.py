#!/usr/bin/python3
"""Tests of handwriting_model: python3 -m unittest discover -s python -p '*_test.py'."""

import struct
import tempfile
import unittest
from pathlib import Path

import numpy as np

from handwriting_model import (
    AffineTransform,
    Blstm,
    LogSoftmax,
    LstmDirection,
    ModelError,
    read_model,
    write_model,
)


def lstm_direction(input_dim: int, cell_dim: int, first: float) -> LstmDirection:
    """Parameters that count up from `first` in the order of the file, exact in binary16."""
    sizes = [4 * cell_dim * input_dim, 4 * cell_dim * cell_dim, 4 * cell_dim, 4 * cell_dim]
    values = np.split(first + np.arange(sum(sizes)), np.cumsum(sizes)[:-1])
    return LstmDirection(
        values[0].reshape(4 * cell_dim, input_dim),
        values[1].reshape(4 * cell_dim, cell_dim),
        values[2],
        values[3],
    )


class HandwritingModelTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = Path(folder.name) / "model.bin"
        blstm = Blstm(3, 4, forward=lstm_direction(3, 2, 0), backward=lstm_direction(3, 2, 56))
        affine = AffineTransform(4, 2, bias=[0.5, -1], weights=[[1, 2, 3, 4], [5, 6, 7, 8]])
        self.networks = [[blstm], [affine, LogSoftmax(2, 2)]]

    def test_bytes_are_those_of_the_format(self) -> None:
        write_model(self.path, self.networks)
        wanted = struct.pack("<I iiI i 112e", 1, 3, 4, 0x10E, 2, *range(112))
        wanted += struct.pack("<I iiI 2f 8f", 2, 4, 2, 0x100, 0.5, -1, *range(1, 9))
        wanted += struct.pack("<iiI", 2, 2, 0x204)
        self.assertEqual(self.path.read_bytes(), wanted)

    def test_models_read_back(self) -> None:
        write_model(self.path, self.networks)
        read = read_model(self.path)
        copy = self.path.with_name("copy.bin")
        write_model(copy, read)
        self.assertEqual(copy.read_bytes(), self.path.read_bytes())
        weights = read[0][0].backward.recurrent_weights
        self.assertEqual(weights.dtype, np.float32)
        np.testing.assert_array_equal(weights, self.networks[0][0].backward.recurrent_weights)

    def test_files_cut_short_are_refused(self) -> None:
        write_model(self.path, self.networks)
        whole = self.path.read_bytes()
        end_of_first = 4 + 12 + 4 + 2 * 112
        for size in range(1, len(whole)):
            if size == end_of_first:
                continue
            self.path.write_bytes(whole[:size])
            with self.assertRaises(ModelError, msg=f"{size} bytes"):
                read_model(self.path)

    def test_wrong_models_leave_no_file(self) -> None:
        wrong = {
            "shape": [[AffineTransform(4, 2, bias=[1, 2], weights=np.ones((4, 2)))]],
            "overflow": [[Blstm(3, 4, lstm_direction(3, 2, 65536), lstm_direction(3, 2, 0))]],
            "odd output": [[Blstm(3, 5, lstm_direction(3, 2, 0), lstm_direction(3, 2, 0))]],
            "dimensions": [[LogSoftmax(4, 4), LogSoftmax(5, 5)]],
        }
        for name, networks in wrong.items():
            with self.subTest(name), self.assertRaises(ModelError):
                write_model(self.path, networks)
            self.assertEqual(list(self.path.parent.iterdir()), [])


if __name__ == "__main__":
    unittest.main()
