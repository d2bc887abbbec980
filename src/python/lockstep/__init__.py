"""Serve a lockstep project directory from Python.

A solver waits for the driver's requests in its project directory, carries
each one out, and reports it done::

    import lockstep

    with lockstep.Project("../sub1") as project:
        for request in project.requests(last_cycle=20):
            if request.cycle_end:
                write_results(request.cycle)
            else:
                advance(request.stage)

Each request that ``requests`` yields is reported done when the loop body
finishes it without an exception; a body that raises leaves it not done.

Solvers exchange data as fields: ``project.put("right", values)`` publishes
an output, ``project.get("left")`` reads an input as a NumPy array, checked
to have been written by this project's interaction program for the request
being served (``StaleFieldError`` otherwise). An interaction program builds
its context with ``lockstep.Interaction()``.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Iterator, List, Optional

import numpy

__all__ = ["Error", "Interaction", "OutOfOrderError", "OverrunError", "Project", "Request", "StaleFieldError",
           "mapping_weights"]


class Error(RuntimeError):
    """A failure of the project library; the message says what and where."""


class OutOfOrderError(Error):
    """The driver asks for a request that does not come after the last one
    served here: it was restarted. ``request`` holds the new request, which
    is handed out all the same: serving it (and calling ``done``) is the
    caller's decision."""

    def __init__(self, message: str, request: "Request") -> None:
        super().__init__(message)
        self.request = request


class OverrunError(Error):
    """The driver no longer waits for the request (it stopped waiting, or the
    tree was reset); nothing was reported done."""


class StaleFieldError(Error):
    """A field is not the one this request needs: its stamp names an earlier
    (or later) request, another project, or no file was written. The message
    names the field, the request its file was written for, the one it should
    have been written for, and the likely cause."""


_ACCEPT = ("stage", "time_step", "any")


def _as_field(name: str, values: Any) -> "numpy.ndarray":
    """The values as an array a field holds: float64, int32 or int64,
    contiguous in C or Fortran order. A value the stored type cannot hold
    is an error, never wrapped or rounded to infinity."""
    array = numpy.asarray(values)
    if array.dtype not in (numpy.float64, numpy.int32, numpy.int64):
        if array.dtype.kind in "iub" or (array.dtype.kind == "O" and _all_integers(array)):
            # Compared as Python integers: numpy compares uint64 with int64 as float64.
            largest, smallest = (int(array.max()), int(array.min())) if array.size else (0, 0)
            for value in (largest, smallest):
                if not _INT64.min <= value <= _INT64.max:
                    raise Error(f'field "{name}": the value {value} does not fit the int64 values a field holds')
            array = array.astype(numpy.int64)
        elif array.dtype.kind == "f":
            with numpy.errstate(over="ignore"):
                converted = array.astype(numpy.float64)
            if numpy.any(numpy.isinf(converted) & ~numpy.isinf(array)):
                raise Error(f'field "{name}": a value does not fit the float64 values a field holds')
            array = converted
        else:
            raise Error(f'field "{name}": a field holds float64, int32 or int64 values, not {array.dtype}')
    if not (array.flags.c_contiguous or array.flags.f_contiguous):
        array = numpy.ascontiguousarray(array)
    return array


_INT64 = numpy.iinfo(numpy.int64)


def _all_integers(array: "numpy.ndarray") -> bool:
    """True for an object array of Python integers, as numpy makes of
    integers beyond 64 bits."""
    return all(isinstance(value, int) and not isinstance(value, bool) for value in array.flat)


@dataclass(frozen=True)
class Request:
    """One request of the driver: a stage of a time step, or the cycle-end
    request (``time_step`` -1, ``stage`` 5)."""

    cycle: int
    time_step: int
    stage: int

    @property
    def cycle_end(self) -> bool:
        """True for the request that closes a cycle."""
        return self.time_step == -1 and self.stage == 5

    def __str__(self) -> str:
        if self.cycle_end:
            return f"the cycle-end request of cycle {self.cycle}"
        return f"cycle {self.cycle}, time step {self.time_step}, stage {self.stage}"


from ._lockstep import Endpoint as _Endpoint  # noqa: E402  (needs Error defined)
from ._lockstep import Interaction as _Interaction  # noqa: E402
from ._lockstep import mapping_weights as _mapping_weights  # noqa: E402


class Project:
    """A project directory served by this process.

    Opening takes the directory's lock (unless ``lock`` is False), so that no
    other process serves it; raises ``Error`` when the directory is missing,
    not writable or already served.
    """

    def __init__(self, directory: str, *, lock: bool = True) -> None:
        self._endpoint: Optional[_Endpoint] = _Endpoint(str(directory))
        self._pending: Optional[Request] = None
        if lock:
            self._endpoint.lock()

    def __enter__(self) -> "Project":
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    @property
    def directory(self) -> str:
        return self._open().directory

    @property
    def mode(self) -> str:
        """How the wait learns of the driver's writes: "inotify", or polling
        on a network file system."""
        return self._open().mode

    def wait(self, timeout: Optional[float] = None) -> Optional[Request]:
        """Waits for the next request; None if ``timeout`` seconds pass first.

        Other threads run meanwhile, and Ctrl-C interrupts the wait with
        KeyboardInterrupt. Raises OutOfOrderError when the driver was
        restarted and Error on any other failure.
        """
        pending = self._open().wait(timeout)
        if pending is None:
            return None
        cycle, time_step, stage, out_of_order = pending
        request = Request(cycle, time_step, stage)
        self._pending = request
        if out_of_order:
            raise OutOfOrderError(self._open().error(), request)
        return request

    def done(self) -> None:
        """Reports the request from the last wait done. Raises OverrunError
        when the driver no longer waits for it, Error on any other failure."""
        outcome = self._open().done()
        self._pending = None
        if outcome == "overrun":
            raise OverrunError(self._open().error())

    @property
    def resumes_after(self) -> Optional[int]:
        """The cycle of the run after which this run resumes (``lockstepctl
        resume``), whose saved state the solver loads before its first
        request; None for a run that starts at its beginning."""
        return self._open().resumes_after

    def checkpoint(self) -> None:
        """In a cycle-end request, before it is reported done, once the
        solver has saved its own state: records that this project can
        restart after this cycle, with its fields as they stand. Raises
        Error anywhere else."""
        self._open().checkpoint()

    def cannot_resume(self, reason: str) -> None:
        """For a solver that cannot load its state after ``resumes_after``:
        raises Error saying what is wrong (``reason``) and what to do."""
        self._open().cannot_resume(reason)

    def put(self, name: str, values: Any) -> None:
        """Publishes the output ``name``, stamped with the request being
        served, or as a starting output before the first request."""
        self._open().put(name, _as_field(name, values))

    def get(self, name: str, accept: str = "stage") -> "numpy.ndarray":
        """The input ``name`` that this project's interaction program wrote
        for the request being served (in a cycle-end request: for the
        cycle's last stage). ``accept="time_step"`` takes one written in the
        same time step, ``accept="any"`` one written at any time (a
        constant). Raises StaleFieldError when it is not such a field."""
        if accept not in _ACCEPT:
            raise Error(f'accept="{accept}": use "stage", "time_step" or "any"')
        return self._open().get(name, accept)

    def requests(self, last_cycle: int) -> Iterator[Request]:
        """The requests up to the cycle-end request of ``last_cycle``, each
        reported done when the loop body has finished it (unless the body
        called ``done`` itself)."""
        while True:
            request = self.wait()
            assert request is not None
            yield request
            if self._pending is not None:
                self.done()
            if request.cycle_end and request.cycle >= last_cycle:
                return

    def close(self) -> None:
        """Releases the directory and its lock. Further calls raise Error."""
        self._endpoint = None

    def _open(self) -> _Endpoint:
        if self._endpoint is None:
            raise Error("the project directory is closed")
        return self._endpoint


class Interaction:
    """The context of an interaction program that lockstep started, as
    ``PROGRAM PROJECT CYCLE TIME_STEP STAGE`` in the driver's working
    directory: ``project`` (the index), ``request`` (the stage), ``get``
    another project's newest output, ``put`` this project's inputs.
    Raises Error when the arguments or the tree are not lockstep's."""

    def __init__(self, argv: Optional[List[str]] = None) -> None:
        import sys

        arguments = list(sys.argv[1:] if argv is None else argv)
        self._context = _Interaction([str(argument) for argument in arguments])

    @property
    def project(self) -> int:
        return self._context.project

    @property
    def request(self) -> Request:
        return Request(*self._context.request)

    def get(self, project: int, name: str, accept: str = "stage") -> "numpy.ndarray":
        """Project ``project``'s output ``name``, checked to be its newest:
        written in the stage before this one (before the first stage: its
        starting output). Raises StaleFieldError otherwise."""
        if accept not in _ACCEPT:
            raise Error(f'accept="{accept}": use "stage", "time_step" or "any"')
        return self._context.get(project, name, accept)

    def put(self, name: str, values: Any) -> None:
        """This project's input ``name``, stamped with this stage."""
        self._context.put(name, _as_field(name, values))


def mapping_weights(from_mesh: Any, to_mesh: Any, map: str = "nearest-neighbour", from_cells: Any = None,
                    to_cells: Any = None, **words: Any) -> tuple:
    """The weights lockstep-exchange computes for a mapping line, offline:
    ``(rows, columns, values, shape)`` as NumPy arrays and a tuple, ready for
    ``scipy.sparse.coo_matrix((values, (rows, columns)), shape)``, whose
    product with values on ``from_mesh`` gives values on ``to_mesh``.
    Meshes are float64 arrays (n,) or (n, d); cells int arrays (m, 2)
    (segments), (m, 3) (triangles) or (m, 4) (tetrahedra). The other words are the table's, with ``_`` for ``-``:
    ``constraint="conservative"``, ``basis="gaussian"``, ``shape=2.0``,
    ``radius=0.1``, ``polynomial="off"``, ``cluster_size=80``, ``overlap=0.5``."""
    options = {"map": map}
    for key, value in words.items():
        options[key.replace("_", "-")] = value if isinstance(value, str) else repr(value)
    return _mapping_weights(from_mesh, to_mesh, options, from_cells, to_cells)
