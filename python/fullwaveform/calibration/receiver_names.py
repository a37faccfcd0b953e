"""Names by which people tell the receivers of a file apart."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from typing import Protocol

#: Channel flag -> channel; other flags have no name.
CHANNEL_NAMES = {0: "high", 1: "low"}


class Receiver(Protocol):
    """What is known of one receiver: its levels or its pulse model."""

    @property
    def channel_flag(self) -> int:
        """Of its waveforms."""

    @property
    def descriptor(self) -> int:
        """As in `WaveformBlock`."""


def receiver_name(one: Receiver, all_of_file: Sequence[Receiver], names: Mapping[int, str]) -> str:
    """What distinguishes a receiver from the others of its file; empty if it is the only one.

    Parameters
    ----------
    one : the receiver
    all_of_file : this receiver and the others
    names : `WaveformReader.receiver_names` of the file
    """
    if len(all_of_file) == 1:
        return ""
    name = names.get(one.descriptor, f"descriptor {one.descriptor}")
    if len({receiver.channel_flag for receiver in all_of_file}) == 1:
        return name
    flag = one.channel_flag
    channel = f"{CHANNEL_NAMES[flag]} power" if flag in CHANNEL_NAMES else f"channel flag {flag}"
    is_shared = len({receiver.descriptor for receiver in all_of_file}) == 1
    if is_shared and one.descriptor not in names:  # of formats without descriptors it is always 0
        return channel
    return f"{channel}, {name}"
