"""Scale-out of :func:`qzinterp3d.interp3` over chunked dask arrays.

``interp3(volume, xq, yq, zq, method="linear", fill_value=nan, client=None)``
takes the query coordinates as dask arrays, maps the numpy function over
their chunks and returns a lazy dask array. The volume goes to the workers
whole, once: it is one task of the graph (or one scattered copy per worker
when a distributed ``client`` is given), which every chunk's task reads.

The result is bit-identical to one call of :func:`qzinterp3d.interp3` on the
whole arrays. For that the query chunks are laid out as the numpy function
lays out its rows: a 2-D query keeps each row whole (chunks only along the
first axis), and a 1-D query is chunked in multiples of ``ROW_LENGTH``
points. Arrays chunked otherwise are rechunked.
"""

import uuid

import dask
import dask.array as da
import numpy as np

from . import _core

__all__ = ["interp3"]


def _as_dask(name, a):
    if isinstance(a, da.Array):
        return a
    if isinstance(a, np.ndarray):
        return da.from_array(a, chunks=a.shape if a.ndim else (), name=False)
    raise TypeError(f"{name} must be a dask array or a numpy.ndarray, got {type(a).__name__}")


def _row_aligned_chunks(chunks):
    """1-D chunk sizes that are multiples of ROW_LENGTH, all but the last."""
    row = _core.ROW_LENGTH
    if all(c % row == 0 for c in chunks[:-1]):
        return chunks
    size = max(row, round(max(chunks) / row) * row)
    total = sum(chunks)
    sizes = [size] * (total // size)
    if total % size:
        sizes.append(total % size)
    return tuple(sizes)


def _volume_meta(volume):
    """An array with the volume's shape, dtype and a contiguous last axis,
    backed by one row of memory: enough for the argument checks."""
    row = np.zeros(volume.shape[-1] if volume.ndim else 0, dtype=volume.dtype)
    return np.broadcast_to(row, volume.shape)


def _aligned(a):
    """``a`` itself, or a C-ordered copy when its memory is not aligned to its
    elements (dask's transfers between processes can leave arrays so)."""
    return a if a.flags.aligned else np.array(a, order="C", copy=True)


class _Volume:
    """Carries the volume to the workers. Unpickling builds it again through
    ``__init__``, which re-aligns the array if its transfer left it unaligned:
    at most one copy per worker, not one per task."""

    __slots__ = ("array",)

    def __init__(self, array):
        self.array = _aligned(array)

    def __reduce__(self):
        return (_Volume, (self.array,))


def _interp3_block(xq, yq, zq, volume, method, fill_value):
    xq, yq, zq = (_aligned(a) for a in (xq, yq, zq))
    return _core.interp3(volume.array, xq, yq, zq, method=method, fill_value=fill_value)


def interp3(volume, xq, yq, zq, method="linear", fill_value=np.nan, client=None):
    """Sample a 3-D grid at the points of chunked query arrays.

    Parameters
    ----------
    volume : numpy.ndarray or dask array, shape (nz, ny, nx)
        The samples, as for :func:`qzinterp3d.interp3`. A dask array is
        gathered into one chunk; a numpy array is sent to the workers as it
        is, once.
    xq, yq, zq : dask arrays (or numpy arrays), 1-D or 2-D, of one shape
        1-based coordinates along the volume's last, middle and first axis,
        float32 (float64 for a float64 volume). Rechunked, if needed, so that
        2-D chunks span whole rows and 1-D chunks are multiples of
        ``qzinterp3d.ROW_LENGTH`` points (all but the last).
    method : {"linear", "nearest"}
    fill_value : float
        As for :func:`qzinterp3d.interp3`.
    client : distributed.Client, optional
        When given, a numpy ``volume`` is scattered to every worker of this
        client once (``client.scatter(volume, broadcast=True)``) instead of
        travelling inside the task graph.

    Returns
    -------
    dask.array.Array, lazy, of the coordinates' shape and chunks, float32
    (float64 for a float64 volume). Its values are bit-identical to
    ``qzinterp3d.interp3(volume, xq, yq, zq, method, fill_value)`` on the
    computed inputs.

    Arguments are checked at once, with the numpy function's errors.
    """
    if not isinstance(volume, (np.ndarray, da.Array)):
        raise TypeError(
            f"volume must be a numpy.ndarray or a dask array, got {type(volume).__name__}"
        )
    xq, yq, zq = (_as_dask(n, a) for n, a in (("xq", xq), ("yq", yq), ("zq", zq)))
    for name, a in (("xq", xq), ("yq", yq), ("zq", zq)):
        if a.ndim not in (1, 2):
            raise ValueError(f"{name} must be 1-D or 2-D, got a {a.ndim}-D array of shape {a.shape}")
    for name, a in (("yq", yq), ("zq", zq)):
        if a.shape != xq.shape:
            raise ValueError(
                f"{name} has shape {a.shape} but xq has shape {xq.shape}; "
                "xq, yq and zq must have one shape"
            )
    # Every other check is the numpy function's, on empty queries.
    meta_volume = volume if isinstance(volume, np.ndarray) else _volume_meta(volume)
    empty = tuple(np.empty((0,) * a.ndim, dtype=a.dtype) for a in (xq, yq, zq))
    meta = _core.interp3(meta_volume, *empty, method=method, fill_value=fill_value)

    if xq.ndim == 2:
        chunks = (xq.chunks[0], (xq.shape[1],))
    else:
        chunks = (_row_aligned_chunks(xq.chunks[0]),)
    xq, yq, zq = (a.rechunk(chunks) for a in (xq, yq, zq))

    if isinstance(volume, da.Array):
        whole = volume.rechunk(volume.shape).to_delayed().ravel()[0]
        volume_arg = dask.delayed(_Volume)(whole)
    elif client is not None:
        volume_arg = client.scatter(_Volume(volume), broadcast=True, hash=False)
    else:
        volume_arg = dask.delayed(_Volume(volume), name=f"qzinterp3d-volume-{uuid.uuid4().hex}")

    index = "ij"[: xq.ndim]
    return da.blockwise(
        _interp3_block,
        index,
        xq, index,
        yq, index,
        zq, index,
        volume_arg, None,
        method, None,
        fill_value, None,
        dtype=meta.dtype,
        meta=meta,
        name=f"qzinterp3d-interp3-{uuid.uuid4().hex}",
    )
