"""A scheduler and workers of dask.distributed as processes on the loopback interface."""

from __future__ import annotations

import json
import subprocess
import sys
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from pathlib import Path

from distributed import Client

from ..support.child_processes import TIMEOUT_S, environment, started, wait_until

HOLD = Path(__file__).with_name("held_workers.py")


def hold(folder: Path, block: int, **more: str) -> dict[str, str]:
    """Environment variables by which workers hold the part that starts at the block."""
    return {
        "HOLD_FOLDER": str(folder),
        "HOLD_BLOCK": str(block),
        "DASK_DISTRIBUTED__WORKER__PRELOAD": json.dumps([str(HOLD)]),
        **more,
    }


def command(*call: str | Path, **variables: str) -> subprocess.Popen[str]:
    """The command line in its own process group, as a terminal starts it."""
    return started(
        subprocess.Popen(
            [sys.executable, "-m", "fullwaveform", *map(str, call)],
            env=environment(**variables),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
    )


@contextmanager
def dask(*call: str, **variables: str) -> Iterator[subprocess.Popen[bytes]]:
    """A Dask process that ends with the block."""
    process = subprocess.Popen(
        [sys.executable, "-m", "dask", *call],
        env=environment(**variables),
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    )
    try:
        yield process
    finally:
        process.kill()
        process.wait()


@contextmanager
def scheduler(folder: Path, **variables: str) -> Iterator[tuple[str, subprocess.Popen[bytes]]]:
    """Address and process of a scheduler without workers."""
    file = folder / "scheduler.json"
    call = ("scheduler", "--host", "127.0.0.1", "--port", "0", "--scheduler-file", str(file))
    with dask(*call, "--no-dashboard", "--no-show", **variables) as process:
        address = wait_until(lambda: file.exists() and _address(file))
        yield address, process


@contextmanager
def workers(address: str, number: int, **variables: str) -> Iterator[list[subprocess.Popen[bytes]]]:
    """Worker processes of one thread each, connected, without a nanny to restart them."""
    call = ("worker", address, "--nthreads", "1", "--no-nanny", "--no-dashboard")
    call += ("--host", "127.0.0.1", "--death-timeout", "60")
    with ExitStack() as stack:
        processes = [stack.enter_context(dask(*call, **variables)) for _ in range(number)]
        # On a busy machine they start more slowly than a command waits for them.
        with Client(address, timeout=TIMEOUT_S, set_as_default=False) as client:
            client.wait_for_workers(number, timeout=TIMEOUT_S)
        yield processes


def _address(file: Path) -> str:
    try:
        address: str = json.loads(file.read_text(encoding="utf-8"))["address"]
    except ValueError:  # not completely written yet
        return ""
    return address
