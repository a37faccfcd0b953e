"""A client of dask.distributed: of a scheduler that is there, or of new workers on this machine."""

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
_PATIENCE = 60.0  # s until there must be a scheduler, and a worker


def check_address(address: str) -> None:
    """ValueError if the address is neither `LOCAL` nor one of a scheduler."""
    if address != LOCAL and not _ADDRESS.fullmatch(address):
        raise ValueError(
            f"{address!r} is neither local nor the address of a scheduler, as HOST:PORT, "
            "tcp://HOST:PORT or tls://HOST:PORT"
        )


@contextmanager
def connected(address: str, workers: int, patience: float = _PATIENCE) -> Iterator[Any]:
    """Yield a client of the scheduler at `address`, or of `workers` new processes for `LOCAL`.

    New workers have one thread each, listen on the loopback only and end with the block.

    Raises
    ------
    ValueError
        dask.distributed is not installed.
    OSError
        Within `patience` (s) there is no scheduler at the address, or no worker with it.
    """
    distributed = _distributed()
    with ExitStack() as stack:
        stack.enter_context(_silenced(logging.getLogger("distributed")))
        where = address
        if address == LOCAL:
            where = stack.enter_context(_local_cluster(distributed, workers))
        try:
            client = stack.enter_context(
                distributed.Client(where, timeout=patience, set_as_default=False)
            )
        except (OSError, TimeoutError) as error:
            raise OSError(f"there is no scheduler to be reached at {address}: {error}") from error
        try:
            client.wait_for_workers(1, timeout=patience)
        except TimeoutError as error:
            raise OSError(
                f"the scheduler at {address} has no workers; start some with: dask worker {address}"
            ) from error
        yield client


@contextmanager
def _local_cluster(distributed: Any, workers: int) -> Iterator[Any]:
    # The scheduler has a server of web pages whether it has pages or not.
    pages = {"dashboard_address": f"{_LOOPBACK}:0", "dashboard": False}
    asked_for = import_module("dask").config.get("distributed.worker.preload")
    with distributed.LocalCluster(
        n_workers=workers,
        threads_per_worker=1,
        processes=True,
        host=_LOOPBACK,
        dashboard_address=None,
        scheduler_kwargs=pages,
        silence_logs=logging.CRITICAL,
        preload=[*asked_for, "fullwaveform.cluster.local_worker"],
    ) as cluster:
        yield cluster


@contextmanager
def _silenced(logger: logging.Logger) -> Iterator[None]:
    """Keeps what is said of lost workers and connections from showing.

    They are the job's business, and what it cannot repair it says in a sentence of its own.
    """
    levels = [(handler, handler.level) for handler in logger.handlers]
    for handler, _ in levels:
        handler.setLevel(logging.CRITICAL + 1)
    try:
        yield
    finally:
        for handler, level in levels:
            handler.setLevel(level)


def _distributed() -> Any:
    try:
        return import_module("distributed")
    except ImportError as error:
        raise ValueError(
            "dask.distributed is not installed, which --cluster needs; install it with: "
            "pip install 'fullwaveform[cluster]'"
        ) from error
