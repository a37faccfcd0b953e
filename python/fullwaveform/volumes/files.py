"""Files of volumes: Zarr folders with all quantities, GeoTIFF with one."""

from __future__ import annotations

import errno
from abc import ABC, abstractmethod
from collections.abc import Iterable, Mapping
from contextlib import AbstractContextManager
from importlib import import_module
from pathlib import Path
from typing import Any
from zlib import crc32

import numpy as np

from fullwaveform.data.arrays import AnyArray
from fullwaveform.io.atomic import FileKind, OutputError, atomic_path
from fullwaveform.io.atomic_folder import atomic_folder
from fullwaveform.volumes.grid import TILE, VoxelGrid
from fullwaveform.volumes.quantities import QUANTITIES, Quantity, checked_quantity

Window = tuple[slice, slice, slice]
#: Where a part of the volume lies, and its voxels of the type `VOXEL` (layers, rows, columns).
Parts = Iterable[tuple[Window, AnyArray]]

ZARR_ENDING = ".zarr"
TIFF_ENDINGS = (".tif", ".tiff")
_MARK = "fullwaveform_volume"  # in the metadata, by which a volume is recognised
_LAYOUT = 1
_AXES = ("z", "y", "x")
_REFERENCE = "spatial_ref"
_MAX_LAYERS = 65_535  # bands of a GeoTIFF


def _library(name: str) -> Any:
    try:
        return import_module(name)
    except ModuleNotFoundError as error:
        raise ValueError(
            f"{name} is not installed; install it with: pip install 'fullwaveform[volumes]'"
        ) from error
    except ImportError as error:
        raise ValueError(
            f"{name} is installed but cannot be loaded: {error}; install what is missing with the "
            "packages of the system"
        ) from error


class VolumeFile(ABC):
    """A file format of volumes. The constructor raises ValueError without its library."""

    kind: FileKind

    def __init__(self, path: Path) -> None:
        self.path = path

    @abstractmethod
    def open(self, overwrite: bool) -> AbstractContextManager[Path]:
        """A place to write to, that gets its name at the end of the ``with`` statement."""

    @abstractmethod
    def write(
        self,
        place: Path,
        grid: VoxelGrid,
        parts: Parts,
        metadata: Mapping[str, Any],
        system: Any | None,
    ) -> None:
        """Write the parts of a volume that are not empty, and how it was made.

        `system` is its reference system, an object of pyproj, if it is known.
        """


def volume_file(path: Path, quantity: str | None) -> VolumeFile:
    """The file of a volume, by the ending of its name; `quantity` is for GeoTIFF only.

    Raises ValueError for another ending, an unknown quantity or a missing package.
    """
    ending = path.suffix.lower()
    if ending in TIFF_ENDINGS:
        return TiffVolume(path, checked_quantity("sum" if quantity is None else quantity))
    if ending != ZARR_ENDING:
        raise ValueError(f"{path} must end in {ZARR_ENDING} or {' or '.join(TIFF_ENDINGS)}")
    if quantity is not None:
        raise ValueError(f"quantity {quantity!r}: a Zarr volume has all; this is only for GeoTIFF")
    return ZarrVolume(path)


class ZarrVolume(VolumeFile):
    """A Zarr group (format 3): an array per quantity, coordinates of the voxels' centres.

    A chunk is a tile; tiles that no waveform reaches are not stored. Reference system and
    coordinates follow the CF conventions.
    """

    def __init__(self, path: Path) -> None:
        super().__init__(path)
        self._zarr = _library("zarr")
        self.kind = FileKind("a Zarr volume", self._is_volume, is_folder=True)

    def _is_volume(self, path: Path) -> bool:
        known = {*QUANTITIES, *_AXES, _REFERENCE, "zarr.json"}
        group = self._zarr.open_group(path, mode="r")
        return _MARK in group.attrs and {entry.name for entry in path.iterdir()} <= known

    def open(self, overwrite: bool) -> AbstractContextManager[Path]:
        """See `VolumeFile.open`."""
        return atomic_folder(self.path, self.kind, overwrite=overwrite)

    def write(
        self,
        place: Path,
        grid: VoxelGrid,
        parts: Parts,
        metadata: Mapping[str, Any],
        system: Any | None,
    ) -> None:
        """See `VolumeFile.write`."""
        group = self._zarr.open_group(place, mode="w", zarr_format=3)
        group.attrs.update({_MARK: _LAYOUT, "Conventions": "CF-1.10", **metadata})
        for axis, centres in zip(_AXES, grid.centres(), strict=True):
            attributes = {"axis": axis.upper(), "units": metadata["voxel_size_unit"]}
            group.create_array(axis, data=centres, dimension_names=(axis,), attributes=attributes)
        mapping = {}
        if system is not None:
            reference = group.create_array(_REFERENCE, shape=(), dtype="int32")
            reference.attrs.update({"crs_wkt": system.to_wkt()})
            mapping = {"grid_mapping": _REFERENCE}
        arrays = {
            quantity: group.create_array(
                quantity.name,
                shape=grid.shape,
                chunks=TILE,
                dtype=np.dtype(quantity.dtype),
                fill_value=quantity.empty,
                dimension_names=_AXES,
                attributes={"units": quantity.unit, "long_name": quantity.description, **mapping},
            )
            for quantity in QUANTITIES.values()
        }
        for window, voxels in parts:
            for quantity, array in arrays.items():
                array[window] = quantity.of(voxels)


class TiffVolume(VolumeFile):
    """A GeoTIFF of one quantity: a band per layer, the lowest first; north is up.

    Tiles that no waveform reaches are not stored.
    """

    def __init__(self, path: Path, quantity: Quantity) -> None:
        super().__init__(path)
        self._rasterio = _library("rasterio")
        self._quantity = quantity
        self.kind = FileKind("a GeoTIFF volume", self._is_volume)

    def _is_volume(self, path: Path) -> bool:
        with self._rasterio.open(path) as dataset:
            return _MARK in dataset.tags()

    def open(self, overwrite: bool) -> AbstractContextManager[Path]:
        """See `VolumeFile.open`."""
        return atomic_path(self.path, self.kind, overwrite=overwrite)

    def write(
        self,
        place: Path,
        grid: VoxelGrid,
        parts: Parts,
        metadata: Mapping[str, Any],
        system: Any | None,
    ) -> None:
        """See `VolumeFile.write`; ValueError for more layers than bands."""
        layers, rows, columns = grid.shape
        if layers > _MAX_LAYERS:
            raise ValueError(
                f"{self.path}: {layers:,} layers; a GeoTIFF has at most {_MAX_LAYERS:,} bands: "
                "use a larger size, or .zarr"
            )
        west, north, _ = grid.corner
        quantity = self._quantity
        profile = {
            "driver": "GTiff",
            "width": columns,
            "height": rows,
            "count": layers,
            "dtype": np.dtype(quantity.dtype).name,
            "nodata": quantity.empty if np.isnan(quantity.empty) else None,
            "transform": self._rasterio.Affine(grid.size, 0.0, west, 0.0, -grid.size, north),
            "crs": None if system is None else self._rasterio.crs.CRS.from_wkt(system.to_wkt()),
            "tiled": True,
            "blockxsize": TILE[2],
            "blockysize": TILE[1],
            "interleave": "band",
            "compress": "deflate",
            "sparse_ok": True,
            "bigtiff": "if_safer",
        }
        try:
            written = self._write(place, profile, grid, parts, metadata)
            is_complete = self._has(place, written)
        except self._rasterio.errors.RasterioError as error:  # not always an OSError
            message = f"cannot write {self.path}: {error} Is the disk full?"
            raise OutputError(errno.EIO, message) from error
        if not is_complete:
            raise OutputError(
                errno.EIO, f"cannot write {self.path}: the file is incomplete. Is the disk full?"
            )

    def _write(
        self,
        place: Path,
        profile: Mapping[str, Any],
        grid: VoxelGrid,
        parts: Parts,
        metadata: Mapping[str, Any],
    ) -> list[tuple[Window, int]]:
        """Write the file; returns the place and the checksum of each part."""
        written = []
        layers, bottom, quantity = grid.shape[0], grid.corner[2], self._quantity
        with (
            self._rasterio.Env(GDAL_CACHEMAX=64_000_000, GDAL_PAM_ENABLED=False),
            self._rasterio.open(place, "w", **profile) as dataset,
        ):
            tags = {_MARK: _LAYOUT, "quantity": quantity.name, "bottom": bottom, **metadata}
            dataset.update_tags(**tags)
            dataset.units = [quantity.unit] * layers
            dataset.descriptions = [
                f"{quantity.description}, z {bottom + layer * grid.size:.12g} to "
                f"{bottom + (layer + 1) * grid.size:.12g}"
                for layer in range(layers)
            ]
            for window, voxels in parts:
                values = np.ascontiguousarray(quantity.of(voxels))
                dataset.write(values, indexes=_bands(window), window=self._area(window))
                written.append((window, crc32(values.data)))
        return written

    def _has(self, place: Path, written: list[tuple[Window, int]]) -> bool:
        """Whether a file can be read as it was written: closing it does not report a full disk."""
        with self._rasterio.open(place) as dataset:
            return _MARK in dataset.tags() and all(
                crc32(dataset.read(_bands(window), window=self._area(window))) == checksum
                for window, checksum in written
            )

    def _area(self, window: Window) -> Any:
        return self._rasterio.windows.Window.from_slices(*window[1:])


def _bands(window: Window) -> list[int]:
    return list(range(window[0].start + 1, window[0].stop + 1))
