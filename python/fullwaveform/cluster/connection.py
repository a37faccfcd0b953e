"""A Dask client of an existing scheduler, or of new workers on this machine."""

from __future__ import annotations

import logging
import re
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from importlib import import_module
from typing import Any

LOCAL = "local"
_ADDRESS = re.compile(r"((tcp|tls|ws|wss)://)?[^\s/]+:\d+")
_LOOPBACK = "127.0.0.1"
_CONNECT_TIMEOUT_S = 60.0
_WORKER_TIMEOUT_S = 60.0


def check_address(address: str) -> None:
    """ValueError if the address is neither `LOCAL` nor that of a scheduler."""
    if address != LOCAL and not _ADDRESS.fullmatch(address):
        raise ValueError(
            f"{address!r} must be 'local' or the address of a Dask scheduler: HOST:PORT, "
            "tcp://HOST:PORT or tls://HOST:PORT"
        )


@contextmanager
def connected(
    address: str,
    workers: int,
    connect_timeout: float = _CONNECT_TIMEOUT_S,
    worker_timeout: float = _WORKER_TIMEOUT_S,
) -> Iterator[Any]:
    """Yield a client of the scheduler at `address`, or of `workers` new processes for `LOCAL`.

    New workers have one thread each, listen on the loopback interface only and end with the block.

    Raises
    ------
    ValueError
        dask.distributed is not installed.
    OSError
        The scheduler does not answer within `connect_timeout` (s), or has no worker within
        `worker_timeout` (s) after that.
    """
    distributed = _distributed()
    with ExitStack() as stack:
        stack.enter_context(_silenced())
        target = address
        if address == LOCAL:
            target = stack.enter_context(_local_cluster(distributed, workers))
        try:
            client = stack.enter_context(
                distributed.Client(target, timeout=connect_timeout, set_as_default=False)
            )
        except (OSError, TimeoutError) as error:
            raise OSError(f"cannot connect to the scheduler at {address}: {error}") from error
        try:
            client.wait_for_workers(1, timeout=worker_timeout)
        except TimeoutError as error:
            raise OSError(
                f"the scheduler at {address} has no workers; start some with: dask worker {address}"
            ) from error
        except Exception as error:  # of many types: the scheduler has ended meanwhile
            raise OSError(f"connection to the scheduler at {address} lost: {error}") from error
        yield client


@contextmanager
def _local_cluster(distributed: Any, workers: int) -> Iterator[Any]:
    # The scheduler opens a web server even without a dashboard.
    web_server = {"dashboard_address": f"{_LOOPBACK}:0", "dashboard": False}
    preload = import_module("dask").config.get("distributed.worker.preload")
    with distributed.LocalCluster(
        n_workers=workers,
        threads_per_worker=1,
        processes=True,
        host=_LOOPBACK,
        dashboard_address=None,
        scheduler_kwargs=web_server,
        silence_logs=logging.CRITICAL,
        preload=[*preload, "fullwaveform.cluster.local_worker"],
    ) as cluster:
        yield cluster


@contextmanager
def _silenced() -> Iterator[None]:
    """Hide Dask's log of lost workers and connections: the run repairs or reports them itself."""
    levels = [(handler, handler.level) for handler in logging.getLogger("distributed").handlers]
    tasks = logging.getLogger("asyncio")  # logs errors of tasks that nobody awaits any more
    former = tasks.disabled
    for handler, _ in levels:
        handler.setLevel(logging.CRITICAL + 1)
    tasks.disabled = True
    try:
        yield
    finally:
        tasks.disabled = former
        for handler, level in levels:
            handler.setLevel(level)


def _distributed() -> Any:
    try:
        return import_module("distributed")
    except ImportError as error:
        raise ValueError(
            "dask.distributed is not installed; install it with: "
            "pip install 'fullwaveform[cluster]'"
        ) from error
