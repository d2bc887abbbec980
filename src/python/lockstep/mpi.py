"""Serve a lockstep project from every rank of an MPI communicator.

Every rank opens the project with the same communicator and makes the same
calls in the same order; each call is collective and has the same outcome
on every rank::

    from mpi4py import MPI
    import lockstep.mpi

    with lockstep.mpi.Project("../sub1", MPI.COMM_WORLD) as project:
        project.put("mesh", my_points)          # this rank's points: its part of the mesh
        for request in project.requests(last_cycle):
            flux = project.get("flux")          # this rank's rows of an input mapped onto "mesh"
            project.put("temperature", mine)    # this rank's rows

Rank 0 holds the directory's lock, waits for the driver's requests and
reads and writes the field files; the other ranks sleep while it waits. A
field put here holds the ranks' rows in rank order, and records how many
each rank gave: an input that lockstep-exchange maps onto such a mesh comes
back to each rank as the rows of its own points. A rank may have no rows.

A failure of any call on any rank (a wrong name or type, ranks that call
different things) raises ``lockstep.Error`` on every rank, and nothing more
is reported done. Any other exception that leaves the ``with`` block on one
rank stops every rank (``MPI_Abort``) with that rank's number and message,
so that none waits for it forever.
"""

from __future__ import annotations

from typing import Any, Optional

from . import Error
from . import Project as _SerialProject
from ._lockstep_mpi import ParallelEndpoint as _ParallelEndpoint

__all__ = ["Project"]


class _Endpoint:
    """The parallel endpoint with the serial one's calls."""

    def __init__(self, directory: str, communicator: Any) -> None:
        self._parallel = _ParallelEndpoint(directory, communicator.py2f())

    def __getattr__(self, name: str) -> Any:
        return getattr(self._parallel, name)

    def wait(self, timeout: Optional[float]) -> tuple:
        if timeout is not None:
            raise Error("a parallel project waits without a timeout: every rank must get the same request")
        return self._parallel.wait()

    @property
    def mode(self) -> str:
        return "rank 0 of " + str(self._parallel.size) + ", as a project of one process"


class Project(_SerialProject):
    """A project directory served by every rank of ``communicator`` (an
    mpi4py communicator). Every method of ``lockstep.Project`` is here, each
    collective; ``put`` and ``get`` take and give this rank's rows."""

    def __init__(self, directory: str, communicator: Any) -> None:
        self._endpoint = _Endpoint(str(directory), communicator)
        self._pending = None

    @property
    def rank(self) -> int:
        return self._open().rank

    @property
    def size(self) -> int:
        return self._open().size

    def abort(self, message: str) -> None:
        """Ends every rank of the job with this rank's number and
        ``message``; for a failure on one rank only."""
        self._open().abort(message)

    def __exit__(self, kind: Any, exception: Any, traceback: Any) -> None:
        # A lockstep.Error of a call came on every rank: each leaves with it.
        # Anything else happened on this rank only, and the others would wait
        # for it forever.
        if exception is not None and not isinstance(exception, Error) and self._endpoint is not None:
            self.abort(f"{kind.__name__}: {exception}")
        self.close()
