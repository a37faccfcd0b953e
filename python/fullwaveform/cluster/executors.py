"""What runs units: any executor, or the workers of a Dask scheduler."""

from __future__ import annotations

import signal
import threading
from abc import ABC, abstractmethod
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import (
    BrokenExecutor,
    CancelledError,
    Executor,
    ProcessPoolExecutor,
    ThreadPoolExecutor,
)
from contextlib import contextmanager, suppress
from multiprocessing import get_context
from typing import Any

_IN_FLIGHT = 1000  # units given to an executor, of which nobody knows how many it runs at a time
_UNITS_FOR_PROCESSES = 64
_UNITS_PER_THREAD = 2  # submitted per thread of a Dask worker: one runs, one is next


class LostWorkersError(Exception):
    """The workers of a unit were lost, perhaps because of another unit."""


class Workers(ABC):
    """Runs functions of JSON text elsewhere."""

    @abstractmethod
    def has_workers(self) -> bool:
        """Whether there is somebody who works."""

    @abstractmethod
    def capacity(self) -> int:
        """How many units may be submitted at a time; OSError if the connection is lost."""

    @abstractmethod
    def submit(self, function: Callable[[str], str], text: str) -> Any:
        """A future with `result()`, and `add_done_callback` if it has one; OSError if refused."""

    @abstractmethod
    def cancel(self, futures: Sequence[Any]) -> None:
        """Give up units that have not started."""

    @abstractmethod
    def failure(self, error: BaseException) -> Exception:
        """The error to raise for one that a future has raised instead of returning a result.

        `LostWorkersError` if only this unit is affected, else OSError.
        """


class ExecutorWorkers(Workers):
    """An executor as in concurrent.futures: `submit` returns futures, `result()` of which waits."""

    def __init__(self, executor: Any) -> None:
        self._executor = executor

    def has_workers(self) -> bool:
        """Executors start theirs on demand."""
        return True

    def capacity(self) -> int:
        """A number that keeps large clusters busy and the queued texts small."""
        return _IN_FLIGHT

    def submit(self, function: Callable[[str], str], text: str) -> Any:
        """The future of the executor."""
        try:
            return self._executor.submit(function, text)
        except Exception as error:  # broken by an earlier unit, or shut down
            raise self.failure(error) from error

    def cancel(self, futures: Sequence[Any]) -> None:
        """Cancel the futures that can be."""
        for future in futures:
            if hasattr(future, "cancel"):
                future.cancel()

    def failure(self, error: BaseException) -> Exception:
        """The executor cannot continue in any case."""
        reason = " ".join(str(error).split())  # some executors report the end of each worker
        if isinstance(error, BrokenExecutor):
            return OSError(f"the executor has lost a worker (out of memory?): {reason}")
        if isinstance(error, CancelledError):
            return OSError("the executor has cancelled the units of the run")
        return OSError(f"the executor cannot run the extraction ({type(error).__name__}: {reason})")


class DaskWorkers(Workers):
    """The workers of a client of dask.distributed."""

    def __init__(self, client: Any) -> None:
        self._client = client

    def has_workers(self) -> bool:
        """Whether a worker is connected to the scheduler."""
        return self._threads() > 0

    def capacity(self) -> int:
        """Two units per thread."""
        return _UNITS_PER_THREAD * max(self._threads(), 1)

    def submit(self, function: Callable[[str], str], text: str) -> Any:
        """The future of the client."""
        try:
            # Not pure: the same unit may be repeated, and then writes its part again.
            return self._client.submit(function, text, pure=False)
        except Exception as error:
            raise OSError(_CONNECTION_LOST) from error

    def cancel(self, futures: Sequence[Any]) -> None:
        """Cancel the futures, also those that are running."""
        with suppress(Exception):  # the units are gone with the scheduler
            self._client.cancel(list(futures), force=True)

    def failure(self, error: BaseException) -> Exception:
        """Lost workers affect one unit, a lost scheduler and missing packages the whole run."""
        # Units return their own errors as texts, so these are errors of the connection.
        if isinstance(error, (CancelledError, OSError, TimeoutError)) or self._is_disconnected():
            return OSError(_CONNECTION_LOST)
        if type(error).__name__ == "KilledWorker":
            workers = error.allowed_failures + 1  # type: ignore[attr-defined]
            return LostWorkersError(
                f"unit failed on {workers} workers (out of memory?); reduce --block"
            )
        return OSError(
            f"a worker cannot run the extraction ({type(error).__name__}: {error}); install the "
            "same version of fullwaveform on all machines"
        )

    def _is_disconnected(self) -> bool:
        """Whether the client has lost the scheduler, and with it all units."""
        return bool(self._client.status != "running")

    def _threads(self) -> int:
        if self._is_disconnected():  # asking would take as long as the client tries to connect
            raise OSError(_CONNECTION_LOST)
        try:
            return sum(self._client.ncores().values())
        except Exception as error:  # of many types: the client may be closing at this moment
            raise OSError(_CONNECTION_LOST) from error


_CONNECTION_LOST = (
    "connection to the scheduler lost; restart the scheduler and continue with --resume"
)


def workers_of(executor: Any) -> Workers:
    """The workers of an executor, or of a client of dask.distributed."""
    if hasattr(executor, "ncores") and hasattr(executor, "get_executor"):
        return DaskWorkers(executor)
    if not callable(getattr(executor, "submit", None)):
        raise ValueError(
            f"invalid executor {executor!r}; expected an object with submit(function, argument), "
            "as in concurrent.futures"
        )
    return ExecutorWorkers(executor)


@contextmanager
def local_executor(workers: int, units: int) -> Iterator[Executor]:
    """An executor on this machine for short units, in which much is Python.

    Threads for few units, which are done before processes would have started.
    """
    if workers == 1 or units < _UNITS_FOR_PROCESSES:
        with local_threads(min(workers, units)) as threads:
            yield threads
        return
    pool = ProcessPoolExecutor(
        workers, get_context("spawn"), initializer=ignore_keyboard_interrupts
    )
    try:
        yield pool
    finally:
        pool.shutdown(cancel_futures=True)


@contextmanager
def local_threads(workers: int) -> Iterator[Executor]:
    """Threads that give up the units that have not begun when the ``with`` statement ends."""
    pool = ThreadPoolExecutor(workers, thread_name_prefix="unit")
    try:
        yield pool
    finally:
        pool.shutdown(cancel_futures=True)


def ignore_keyboard_interrupts() -> None:
    """A terminal sends Ctrl-C to all its processes; the main process handles it."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)


def call_when_done(future: Any, call: Callable[[Any], None]) -> None:
    """Call the function with the future when it is done, possibly in another thread."""
    if hasattr(future, "add_done_callback"):
        future.add_done_callback(call)
        return

    def wait() -> None:
        with suppress(BaseException):  # raised again where the result is read
            future.result()
        call(future)

    threading.Thread(target=wait, daemon=True).start()
