"""Argument checks: each error is a TypeError (wrong kind or dtype) or a
ValueError (wrong shape or layout) whose message starts with the argument's
name. Nothing is converted: an input of the wrong dtype is refused, not
copied."""

import numpy as np
import pytest

import qzinterp3d as qz

VOLUME = np.zeros((3, 4, 5), dtype=np.float32)
Q = np.ones((2, 6), dtype=np.float32)


def call(volume=VOLUME, xq=Q, yq=Q, zq=Q, **kwargs):
    return qz.interp3(volume, xq, yq, zq, **kwargs)


def unaligned(shape, dtype):
    dtype = np.dtype(dtype)
    raw = np.zeros(int(np.prod(shape)) * dtype.itemsize + 1, dtype=np.uint8)
    a = np.frombuffer(raw.data, dtype=dtype, offset=1, count=int(np.prod(shape))).reshape(shape)
    assert not a.flags.aligned
    return a


def test_valid_call_passes():
    assert call().shape == Q.shape


@pytest.mark.parametrize(
    "kwargs, error, pattern",
    [
        (dict(volume=[[[1.0]]]), TypeError, r"^volume must be a numpy\.ndarray, got list"),
        (dict(volume=VOLUME.astype(np.int64)), TypeError, r"^volume has dtype int64; expected one of"),
        (dict(volume=VOLUME.astype(np.float16)), TypeError, r"^volume has dtype float16"),
        (dict(volume=VOLUME.astype(">f4")), TypeError, r"^volume has dtype >f4"),
        (dict(volume=VOLUME.astype(bool)), TypeError, r"^volume has dtype bool"),
        (dict(volume=VOLUME[0]), ValueError, r"^volume must be 3-D, of shape \(nz, ny, nx\), got a 2-D"),
        (dict(volume=VOLUME[None]), ValueError, r"^volume must be 3-D"),
        (dict(volume=VOLUME[:, :0, :]), ValueError, r"^volume has shape \(3, 0, 5\), with an empty axis"),
        (dict(volume=VOLUME[:, :, ::2]), ValueError, r"^volume must be contiguous along its last axis"),
        (dict(volume=np.asfortranarray(VOLUME)), ValueError, r"^volume must be contiguous along its last axis"),
        (dict(volume=VOLUME.transpose(0, 2, 1)), ValueError, r"^volume must be contiguous along its last axis"),
        (dict(volume=unaligned((3, 4, 5), np.float32)), ValueError, r"^volume is not aligned"),
        (dict(method="cubic"), ValueError, r"^method must be 'linear' or 'nearest', got 'cubic'"),
        (dict(method="bilinear"), ValueError, r"^method must be 'linear' or 'nearest'"),
        (dict(method=None), TypeError, r"^method must be a str"),
        (dict(fill_value="zero"), TypeError, r"^fill_value must be a real number, got str"),
        (dict(fill_value=None), TypeError, r"^fill_value must be a real number"),
        (dict(xq=Q.tolist()), TypeError, r"^xq must be a numpy\.ndarray, got list"),
        (dict(xq=Q.astype(np.float64)), TypeError,
         r"^xq must have dtype float32 to go with a volume of dtype float32, got float64"),
        (dict(yq=Q.astype(np.int32)), TypeError, r"^yq must have dtype float32 .* got int32"),
        (dict(zq=Q.astype(np.float16)), TypeError, r"^zq must have dtype float32 .* got float16"),
        (dict(zq=Q.astype(">f4")), TypeError, r"^zq must have dtype float32 .* got >f4"),
        (dict(volume=VOLUME.astype(np.float64)), TypeError,
         r"^xq must have dtype float64 to go with a volume of dtype float64, got float32"),
        (dict(volume=VOLUME.astype(np.uint16), yq=Q.astype(np.float64)), TypeError,
         r"^yq must have dtype float32 to go with a volume of dtype uint16"),
        (dict(xq=Q[None], yq=Q[None], zq=Q), ValueError, r"^zq has shape \(2, 6\) but xq has shape \(1, 2, 6\)"),
        (dict(xq=np.ones((), np.float32)), ValueError, r"^yq has shape \(2, 6\) but xq has shape \(\)"),
        (dict(yq=Q[:, :5]), ValueError, r"^yq has shape \(2, 5\) but xq has shape \(2, 6\)"),
        (dict(zq=Q.ravel()), ValueError, r"^zq has shape \(12,\) but xq has shape \(2, 6\)"),
        (dict(xq=np.ones((2, 12), np.float32)[:, ::2]), ValueError,
         r"^xq must be contiguous along its last axis"),
        (dict(zq=np.ones((6, 2), np.float32).T), ValueError, r"^zq must be contiguous along its last axis"),
        (dict(yq=unaligned((2, 6), np.float32)), ValueError, r"^yq is not aligned"),
    ],
)
def test_errors_name_the_argument(kwargs, error, pattern):
    with pytest.raises(error, match=pattern):
        call(**kwargs)


def test_one_d_coordinates_must_be_contiguous():
    q = np.ones(20, np.float32)
    with pytest.raises(ValueError, match=r"^yq must be contiguous along its last axis"):
        qz.interp3(VOLUME, q[:10], q[1::2], q[10:])


def test_row_stride_not_a_whole_number_of_elements():
    raw = np.zeros(64, np.uint8)
    xq = np.lib.stride_tricks.as_strided(raw.view(np.float32), shape=(2, 3), strides=(6, 4))
    with pytest.raises(ValueError, match=r"^xq's first axis has a stride of 6 bytes"):
        call(xq=xq, yq=Q[:, :3], zq=Q[:, :3])


def test_volume_strides_beyond_32_bits():
    big = np.lib.stride_tricks.as_strided(VOLUME, shape=(2, 2, 2), strides=(4 << 32, 20, 4))
    with pytest.raises(ValueError, match=r"^volume's first axis \(z\) has a stride of 4294967296"):
        call(volume=big)


def test_errors_come_before_any_work_on_empty_queries():
    empty = np.ones((0, 3), np.float64)
    with pytest.raises(TypeError, match=r"^xq must have dtype float32"):
        qz.interp3(VOLUME, empty, empty, empty)
