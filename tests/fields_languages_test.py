"""A field put from Fortran read from Python and through the C interface with
the same shape and values, and the reverse. FIELDS_ROUND_TRIP names the
Fortran program, LOCKSTEP_LIBRARY the shared project library."""
import ctypes
import os
import subprocess

import numpy
import pytest

import lockstep

FLOAT64, INT64 = 1, 3
ROW_MAJOR = 0


def hand_out(directory, cycle, time_step, stage):
    (directory / "go.dat").write_text(" -1000 0 0 0\n")
    (directory / "go2.dat").write_text(" -1000 0 0 0\n")
    (directory / "go.dat").write_text(" 1 " + "".join(f"{n:12d}" for n in (cycle, time_step, stage)) + "\n")


@pytest.fixture
def c_library():
    library = ctypes.CDLL(os.environ["LOCKSTEP_LIBRARY"])
    library.lockstep_interaction_open.restype = ctypes.c_void_p
    library.lockstep_interaction_open.argtypes = [ctypes.c_int, ctypes.POINTER(ctypes.c_char_p), ctypes.c_char_p,
                                                  ctypes.c_int]
    for name in ("lockstep_interaction_get", "lockstep_interaction_put"):
        getattr(library, name).restype = ctypes.c_int
    library.lockstep_interaction_error.restype = ctypes.c_char_p
    library.lockstep_interaction_error.argtypes = [ctypes.c_void_p]
    library.lockstep_interaction_close.argtypes = [ctypes.c_void_p]
    return library


def c_interaction(library, *numbers):
    argv = (ctypes.c_char_p * 5)(b"program", *(str(n).encode() for n in numbers))
    error = ctypes.create_string_buffer(512)
    context = library.lockstep_interaction_open(5, argv, error, 512)
    assert context, error.value.decode()
    return context


def test_fields_keep_shape_and_values_across_languages(tmp_path, monkeypatch, c_library):
    program = os.environ["FIELDS_ROUND_TRIP"]
    (tmp_path / "run").mkdir()
    (tmp_path / "run" / "analysis_settings.dat").write_text("time_step=\n1\ncycle_num=\n1\nnum_subprojects=\n1\n")
    for name in ("main", "sub1"):
        (tmp_path / name).mkdir()
        (tmp_path / name / "go2.dat").write_text("0\n")
    monkeypatch.chdir(tmp_path / "run")
    subprocess.run([program, "../sub1", "put"], check=True)

    plate = numpy.array([[11.0, 12.0, 13.0], [21.0, 22.0, 23.0]])
    assert numpy.array_equal(numpy.load("../sub1/fields/out/plate.npy"), plate)
    step = lockstep.Interaction(["0", "1", "1", "1"])
    assert numpy.array_equal(step.get(1, "plate"), plate)
    counts = step.get(1, "counts")
    assert counts.dtype == numpy.int32 and counts.tolist() == [1, 2, 3]

    # Through the C interface, asked for in row-major order.
    context = c_interaction(c_library, 0, 1, 1, 1)
    shape = (ctypes.c_int64 * 2)(2, 3)
    values = (ctypes.c_double * 6)()
    status = c_library.lockstep_interaction_get(ctypes.c_void_p(context), 1, b"plate", FLOAT64, 2, shape, ROW_MAJOR,
                                                values, 0)
    assert status == 0, c_library.lockstep_interaction_error(context)
    assert list(values) == [11.0, 12.0, 13.0, 21.0, 22.0, 23.0]
    wrong = (ctypes.c_int64 * 2)(3, 2)
    assert c_library.lockstep_interaction_get(ctypes.c_void_p(context), 1, b"plate", FLOAT64, 2, wrong, ROW_MAJOR,
                                              values, 0) == -1
    assert b"not the float64 values of shape (3, 2) asked for" in c_library.lockstep_interaction_error(context)
    c_library.lockstep_interaction_close(ctypes.c_void_p(context))

    # The reverse: inputs of sub1 put from Python and C, read in Fortran.
    lockstep.Interaction(["1", "1", "1", "1"]).put("back", [[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]])
    context = c_interaction(c_library, 1, 1, 1, 1)
    ids = (ctypes.c_int64 * 4)(7, 8, 9, 10)
    assert c_library.lockstep_interaction_put(ctypes.c_void_p(context), b"ids", INT64, 2, (ctypes.c_int64 * 2)(2, 2),
                                              ROW_MAJOR, ids) == 0
    c_library.lockstep_interaction_close(ctypes.c_void_p(context))
    hand_out(tmp_path / "sub1", 1, 1, 1)
    printed = subprocess.run([program, "../sub1", "get"], check=True, capture_output=True, text=True).stdout
    assert printed.splitlines() == [
        "  1.0  2.0  3.0",
        "  4.0  5.0  6.0",
        "  7  8",
        "  9 10",
        'input "plate" of sub1 has never been written: the interaction program of sub1 did not write it, by cycle 1, '
        "time step 1, stage 1 (it failed, did not run, or does not write this field)",
    ]
