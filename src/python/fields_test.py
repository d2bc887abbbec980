import os

import numpy
import pytest

import lockstep

RESET = " -1000 0 0 0\n"


def hand_out(directory, cycle, time_step, stage):
    (directory / "go.dat").write_text(RESET)
    (directory / "go2.dat").write_text(RESET)
    (directory / "go.dat").write_text(" 1 " + "".join(f"{n:12d}" for n in (cycle, time_step, stage)) + "\n")


@pytest.fixture
def tree(tmp_path, monkeypatch):
    """A run tree of main and sub1 with two time steps per cycle; the test
    runs in run/, as an interaction program does."""
    (tmp_path / "run").mkdir()
    (tmp_path / "run" / "analysis_settings.dat").write_text("time_step=\n2\ncycle_num=\n3\nnum_subprojects=\n1\n")
    for name in ("main", "sub1"):
        (tmp_path / name).mkdir()
        (tmp_path / name / "go2.dat").write_text("0\n")
    monkeypatch.chdir(tmp_path / "run")
    return tmp_path


def test_values_go_from_a_solver_through_the_interaction_program_to_the_next(tree):
    main = lockstep.Project(tree / "main")
    sub1 = lockstep.Project(tree / "sub1")
    start = numpy.arange(6, dtype=numpy.int32).reshape(2, 3)
    main.put("u", numpy.asfortranarray(start))
    # numpy reads any field file as it is, stamp and all.
    assert numpy.array_equal(numpy.load(tree / "main/fields/out/u.npy"), start)

    step = lockstep.Interaction(["1", "1", "1", "1"])
    assert (step.project, step.request) == (1, lockstep.Request(1, 1, 1))
    values = step.get(0, "u")
    assert values.dtype == numpy.int32 and numpy.array_equal(values, start)
    step.put("left", values[:, 1:] * 2.5)

    hand_out(tree / "sub1", 1, 1, 1)
    assert sub1.wait() == lockstep.Request(1, 1, 1)
    got = sub1.get("left")
    assert got.dtype == numpy.float64 and numpy.array_equal(got, start[:, 1:] * 2.5)
    sub1.done()

    # The next stage's program did not run: the input is stale.
    hand_out(tree / "sub1", 1, 1, 2)
    sub1.wait()
    with pytest.raises(lockstep.StaleFieldError) as stale:
        sub1.get("left")
    assert str(stale.value) == (
        'input "left" of sub1 is stale: its file was written for cycle 1, time step 1, stage 1, but cycle 1, '
        "time step 1, stage 2 needs it written for cycle 1, time step 1, stage 2; the interaction program of sub1 "
        "did not write it in cycle 1, time step 1, stage 2: it failed or did not run"
    )
    assert isinstance(stale.value, lockstep.Error)
    assert numpy.array_equal(sub1.get("left", accept="time_step"), start[:, 1:] * 2.5)

    # A program started with the wrong stage writes a stamp the solver refuses.
    lockstep.Interaction(["1", "1", "1", "3"]).put("left", [1.0])
    with pytest.raises(lockstep.StaleFieldError, match="most likely left from an earlier run"):
        sub1.get("left")


def test_an_interaction_refuses_what_is_not_lockstep(tree):
    with pytest.raises(lockstep.Error, match=r'takes the four numbers lockstep gives it: .*got "1" "x" "1" "1"'):
        lockstep.Interaction(["1", "x", "1", "1"])
    with pytest.raises(lockstep.Error, match=r"is no stage of this run \(1 sub projects, 2 time steps per cycle\)"):
        lockstep.Interaction(["2", "1", "1", "1"])
    with pytest.raises(lockstep.Error) as outside:
        lockstep.Interaction(["1", "1", "1", "1"]).get(2, "u")
    assert str(outside.value) == "there is no project 2 in this run (1 sub projects)"
    os.chdir(tree)
    with pytest.raises(lockstep.Error, match="cannot read analysis_settings.dat"):
        lockstep.Interaction(["0", "1", "1", "1"])


def test_what_a_field_cannot_hold(tree):
    project = lockstep.Project(tree / "main")
    with pytest.raises(lockstep.Error, match="float64, int32 or int64 values, not <U1"):
        project.put("x", ["a"])
    with pytest.raises(lockstep.Error, match="not allowed"):
        project.put("../x", [1.0])
    # Values beyond the stored type are refused, naming the field; nothing is written.
    too_big = [
        ("a", numpy.array([2**63 + 5], dtype=numpy.uint64), "the value 9223372036854775813 does not fit"),
        ("b", [2**63 + 5], "the value 9223372036854775813 does not fit"),
        ("c", [-(2**63) - 1], "the value -9223372036854775809 does not fit"),
        ("d", [1, 2**70], "the value 1180591620717411303424 does not fit"),
        ("e", numpy.array([numpy.longdouble("1e4000")]), "a value does not fit the float64"),
    ]
    for name, values, message in too_big:
        with pytest.raises(lockstep.Error, match=f'field "{name}": {message}'):
            project.put(name, values)
        assert not (tree / "main" / "fields" / "out" / f"{name}.npy").exists()
    # What fits goes through exactly, at both ends of the range.
    project.put("edges", numpy.array([2**63 - 1, 0], dtype=numpy.uint64))
    project.put("low", [-(2**63), True])
    assert numpy.load(tree / "main" / "fields" / "out" / "edges.npy").tolist() == [2**63 - 1, 0]
    assert numpy.load(tree / "main" / "fields" / "out" / "low.npy").tolist() == [-(2**63), 1]
    with pytest.raises(lockstep.Error, match='accept="stale"'):
        project.get("x", accept="stale")


def test_a_resumed_run_speaks_the_runs_cycle_numbers(tree):
    # As lockstepctl resume leaves a run of 5 cycles resumed after cycle 2.
    record = "lockstep resume record\nresumes_after_cycle 2\ntime_step 2\ncycle_num 5\nnum_subprojects 1\n"
    for place in ("run", "main", "sub1"):
        (tree / place / "lockstep-resume.dat").write_text(record)
    (tree / "other").mkdir()
    assert lockstep.Project(tree / "other").resumes_after is None
    with lockstep.Project(tree / "main") as main:
        assert main.resumes_after == 2
        # Published at start-up: as after cycle 2, what the first stage reads.
        main.put("u", numpy.array([1.5]))
        step = lockstep.Interaction(["1", "1", "1", "1"])
        assert step.request == lockstep.Request(3, 1, 1)
        assert step.get(0, "u")[0] == 1.5

        hand_out(tree / "main", 1, -1, 5)
        assert main.wait() == lockstep.Request(3, -1, 5)
        main.put("u", numpy.array([2.5]))
        main.checkpoint()
        assert numpy.load(tree / "main/checkpoints/3/fields/out/u.npy")[0] == 2.5
        main.done()
        with pytest.raises(lockstep.Error) as late:
            main.checkpoint()
        assert str(late.value) == (
            "a checkpoint is recorded in a cycle-end request, before it is reported done; the cycle-end request of"
            f" cycle 3, reported done, is what {tree}/main serves now"
        )

        with pytest.raises(lockstep.Error) as lost:
            main.cannot_resume("state-2.h5 is missing")
        assert str(lost.value) == (
            f"{tree}/main cannot resume after cycle 2: state-2.h5 is missing; the run needs every solver's state"
            " after that cycle: stop lockstep, then resume after a cycle whose state every solver kept (lockstepctl"
            " resume --after-cycle C RUN_DIR)"
        )

    (tree / "run" / "analysis_settings.dat").write_text("time_step=\n2\ncycle_num=\n5\nnum_subprojects=\n1\n")
    with pytest.raises(lockstep.Error) as changed:
        lockstep.Interaction(["1", "1", "1", "1"])
    assert str(changed.value) == (
        "analysis_settings.dat was changed after lockstepctl resume: the run resumes after cycle 2 with time_step=2"
        " cycle_num=3 num_subprojects=1; stop lockstep and run lockstepctl resume again"
    )
