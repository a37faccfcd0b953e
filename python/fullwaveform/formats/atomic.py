"""Files that appear under their name only when they are whole."""

from __future__ import annotations

import errno
import os
import secrets
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path


@contextmanager
def replace_when_whole(path: str | os.PathLike[str]) -> Iterator[Path]:
    """Yield a temporary path beside `path` that takes its name when the block ends well.

    The temporary file exists already, empty, and lies in the same folder, so that the final
    renaming cannot fail for want of space. After an error, Ctrl-C included, it is removed and
    whatever stood under `path` before is untouched.

    Raises
    ------
    OSError
        Its subclass by cause, if the folder is missing or cannot be written to, or if `path` is a
        folder itself.
    """
    final = Path(path)
    temporary = _create_beside(final)
    try:
        yield temporary
        temporary.replace(final)
    except BaseException:
        temporary.unlink(missing_ok=True)
        raise


def _create_beside(final: Path) -> Path:
    if final.is_dir():
        raise OSError(errno.EISDIR, f"cannot write {final}: it is a folder")
    temporary = final.with_name(f".{final.name}.{secrets.token_hex(4)}.part")
    try:
        # Mode 0666 leaves the permissions of the result to the umask, as for any other file.
        os.close(os.open(temporary, os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o666))
    except FileNotFoundError as error:
        message = f"cannot write {final}: the folder {final.parent} does not exist"
        raise OSError(errno.ENOENT, message) from error
    except OSError as error:
        raise OSError(error.errno, f"cannot write {final}: {error.strerror}") from error
    return temporary
