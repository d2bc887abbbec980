import os
import signal
import subprocess
import sys
import textwrap
import threading
import time

import pytest

import lockstep

RESET = " -1000 0 0 0\n"


def request_record(cycle, time_step, stage):
    return " 1 " + "".join(f"{n:12d}" for n in (cycle, time_step, stage)) + "\n"


def write(path, text):
    with open(path, "w") as file:
        file.write(text)


def hand_out(directory, cycle, time_step, stage):
    """Writes the next request as the driver does: reset go.dat, reset
    go2.dat, then the request into go.dat."""
    write(directory / "go.dat", RESET)
    write(directory / "go2.dat", RESET)
    write(directory / "go.dat", request_record(cycle, time_step, stage))


def reported_done(directory):
    return (directory / "go2.dat").read_text().split()[0] == "0"


def until(condition):
    """Waits while the condition is false, giving up after a minute."""
    deadline = time.monotonic() + 60
    while not condition():
        assert time.monotonic() < deadline, "nothing changed for a minute"
        time.sleep(0.001)


@pytest.fixture
def directory(tmp_path):
    write(tmp_path / "go2.dat", "0\n")
    return tmp_path


def test_requests_serves_each_once_up_to_the_last_cycle_end(directory):
    schedule = [(1, 1, s) for s in range(1, 5)] + [(1, -1, 5), (2, 1, 1), (2, 1, 2), (2, -1, 5)]
    seen = []

    def driver():
        for numbers in schedule:
            until(lambda: reported_done(directory))
            hand_out(directory, *numbers)

    thread = threading.Thread(target=driver)
    thread.start()
    with lockstep.Project(directory) as project:
        for request in project.requests(last_cycle=2):
            assert not reported_done(directory)
            seen.append((request.cycle, request.time_step, request.stage, request.cycle_end))
    thread.join()
    assert seen == [(c, t, s, s == 5) for c, t, s in schedule]
    assert reported_done(directory)
    assert str(lockstep.Request(1, 2, 3)) == "cycle 1, time step 2, stage 3"
    assert str(lockstep.Request(2, -1, 5)) == "the cycle-end request of cycle 2"


def test_a_request_whose_body_raises_is_not_reported_done(directory):
    hand_out(directory, 1, 1, 1)
    with lockstep.Project(directory) as project:
        with pytest.raises(ZeroDivisionError):
            for _ in project.requests(last_cycle=1):
                1 / 0
    assert not reported_done(directory)


def test_wait_times_out_and_lets_other_threads_run(directory):
    ticks = 0
    stop = threading.Event()

    def count():
        nonlocal ticks
        while not stop.is_set():
            ticks += 1
            time.sleep(0.001)

    thread = threading.Thread(target=count)
    with lockstep.Project(directory) as project:
        thread.start()
        assert project.wait(timeout=0.2) is None
        stop.set()
        thread.join()
        assert ticks > 10
        hand_out(directory, 1, 1, 1)
        assert project.wait(timeout=0) == lockstep.Request(1, 1, 1)


def test_errors_carry_the_library_message(directory):
    with pytest.raises(lockstep.Error, match="project directory .*/missing: No such file or directory"):
        lockstep.Project(directory / "missing")
    with lockstep.Project(directory) as project:
        with pytest.raises(lockstep.Error) as twice:
            lockstep.Project(directory)
        assert str(twice.value) == (
            f"{directory} is already served by this process (PID {os.getpid()}) (it holds {directory}/.lockstep.lock):"
            " open each project directory once per process"
        )
        with pytest.raises(lockstep.Error, match="no request has been handed out"):
            project.done()

        hand_out(directory, 1, 1, 1)
        assert project.wait() == lockstep.Request(1, 1, 1)
        project.done()
        with pytest.raises(lockstep.OverrunError) as again:
            project.done()
        assert str(again.value) == f"cycle 1, time step 1, stage 1 in {directory} was already reported done here"

        hand_out(directory, 1, 1, 2)
        assert project.wait() == lockstep.Request(1, 1, 2)
        hand_out(directory, 1, 1, 3)  # the driver gave up on stage 2
        with pytest.raises(lockstep.OverrunError, match="served too late .* now asks for cycle 1, time step 1, stage 3"):
            project.done()
        assert not reported_done(directory)

        hand_out(directory, 1, 1, 1)  # the driver started again
        with pytest.raises(lockstep.OutOfOrderError, match="was the driver restarted") as restarted:
            project.wait()
        assert restarted.value.request == lockstep.Request(1, 1, 1)
        project.close()
        with pytest.raises(lockstep.Error, match="closed"):
            project.wait()


def test_a_directory_that_goes_while_waiting_is_an_error(directory):
    (directory / "sub1").mkdir()
    with lockstep.Project(directory / "sub1") as project:
        (directory / "sub1").rename(directory / "sub1.old")
        with pytest.raises(lockstep.Error) as gone:
            project.wait(timeout=3)
        assert str(gone.value) == (
            f"the project directory {directory}/sub1 has gone (removed or renamed) while waiting for a request"
        )


def test_ctrl_c_interrupts_a_wait(directory):
    waiter = textwrap.dedent(
        f"""
        import sys, time, lockstep
        project = lockstep.Project({str(directory)!r})
        print("waiting", flush=True)
        try:
            project.wait()
        except KeyboardInterrupt:
            print("interrupted", flush=True)
            sys.exit(3)
        """
    )
    child = subprocess.Popen([sys.executable, "-c", waiter], stdout=subprocess.PIPE, text=True, env=os.environ)
    assert child.stdout.readline() == "waiting\n"
    time.sleep(0.05)  # into the wait's sleep
    sent = time.monotonic()
    child.send_signal(signal.SIGINT)
    assert child.stdout.readline() == "interrupted\n"
    print(f"interrupted {1000 * (time.monotonic() - sent):.1f} ms after SIGINT")
    assert child.wait() == 3
