"""Bad arguments to map_coordinates and affine_transform: each raises
TypeError, ValueError or NotImplementedError with a message naming the
argument, and a given output array is left untouched."""

import numpy as np
import pytest

import qzinterp3d as qz

VOLUME = np.arange(60, dtype=np.float32).reshape(3, 4, 5)
COORDS = np.ones((3, 2, 6))
SENTINEL = 12345.0

MAP_CASES = [
    (dict(input="volume"), TypeError, r"^input has dtype <U6"),
    (dict(input=VOLUME.astype(np.complex64)), TypeError, r"^input has dtype complex64"),
    (dict(input=np.float32(1.0)), ValueError, r"^input must have 1, 2 or 3 dimensions"),
    (dict(input=VOLUME[None]), NotImplementedError, r"^input has 4 dimensions; only 1, 2 or 3"),
    (dict(input=VOLUME[:, :0]), ValueError, r"^input has shape \(3, 0, 5\), with an empty axis"),
    (dict(coordinates=COORDS[:2]), ValueError, r"^coordinates must have shape \(input\.ndim, \.\.\.\) = \(3, \.\.\.\)"),
    (dict(coordinates=np.float64(1.0)), ValueError, r"^coordinates must have shape"),
    (dict(coordinates=COORDS.astype(np.complex128)), TypeError, r"^coordinates have dtype complex128"),
    (dict(coordinates=np.full((3, 2, 6), "a")), TypeError, r"^coordinates have dtype <U1"),
    (dict(order=2), NotImplementedError, r"^order=2 is not supported; order 0 \(nearest\) and 1 \(linear\) are"),
    (dict(order=5), NotImplementedError, r"^order=5 is not supported"),
    (dict(order=-1), ValueError, r"^order must be 0 or 1, got -1"),
    (dict(order=1.0), TypeError, r"^order must be an integer"),
    (dict(order=True), TypeError, r"^order must be an integer"),
    (dict(mode="reflect"), NotImplementedError, r"^mode='reflect' is not supported; mode 'constant' and 'nearest' are"),
    (dict(mode="grid-constant"), NotImplementedError, r"^mode='grid-constant' is not supported"),
    (dict(mode="wrap"), NotImplementedError, r"^mode='wrap' is not supported"),
    (dict(mode="edge"), ValueError, r"^mode must be 'constant' or 'nearest', got 'edge'"),
    (dict(mode=0), TypeError, r"^mode must be a str"),
    (dict(cval="0"), TypeError, r"^cval must be a real number, got str"),
    (dict(cval=1j), TypeError, r"^cval must be a real number, got complex"),
    (dict(cval=None), TypeError, r"^cval must be a real number, got NoneType"),
    (dict(output="no such dtype"), TypeError, r"^output must be None, a dtype or a numpy\.ndarray"),
    (dict(output=np.complex64), TypeError, r"^output has dtype complex64; expected a real dtype"),
    (dict(output=">f4"), TypeError, r"^output has dtype >f4; expected a real dtype in native byte order"),
    (dict(output=np.zeros((6, 2), np.float32)), ValueError, r"^output has shape \(6, 2\), expected \(2, 6\)"),
]


def given_output(shape=(2, 6), dtype=np.float32):
    return np.full(shape, SENTINEL, dtype)


@pytest.mark.parametrize("kwargs, error, message", MAP_CASES)
def test_map_coordinates_errors_name_the_argument(kwargs, error, message):
    args = dict(input=VOLUME, coordinates=COORDS, order=1, mode="constant", cval=0.0)
    args.update(kwargs)
    with pytest.raises(error, match=message):
        qz.map_coordinates(**args)
    if "output" not in kwargs:
        output = given_output()
        with pytest.raises(error, match=message):
            qz.map_coordinates(**args, output=output)
        assert np.all(output == SENTINEL)


def test_read_only_output_is_refused_untouched():
    output = given_output()
    output.flags.writeable = False
    with pytest.raises(ValueError, match=r"^output is read-only"):
        qz.map_coordinates(VOLUME, COORDS, output=output)
    with pytest.raises(ValueError, match=r"^output is read-only"):
        qz.affine_transform(VOLUME, np.eye(3), output=output[None])
    assert np.all(output == SENTINEL)


def test_unaligned_output_is_refused_untouched():
    raw = np.full(4 * 12 + 1, 7, np.uint8)
    output = np.frombuffer(raw.data, np.float32, 12, offset=1).reshape(2, 6)
    raw.flags.writeable = True
    before = raw.copy()
    with pytest.raises(ValueError, match=r"^output is not aligned"):
        qz.map_coordinates(VOLUME, COORDS, output=output)
    np.testing.assert_array_equal(raw, before)


AFFINE_CASES = [
    (dict(input=[["a"]]), TypeError, r"^input has dtype <U1"),
    (dict(input=VOLUME[None]), NotImplementedError, r"^input has 4 dimensions"),
    (dict(matrix="eye"), TypeError, r"^matrix has dtype <U3"),
    (dict(matrix=np.eye(3) * 1j), TypeError, r"^matrix has dtype complex128"),
    (dict(matrix=np.ones((3, 3, 3))), ValueError, r"^matrix must be 1-D or 2-D, got shape \(3, 3, 3\)"),
    (dict(matrix=np.eye(2)), ValueError, r"^matrix has 2 rows; the input has 3 dimensions"),
    (dict(matrix=np.ones(2)), ValueError, r"^matrix has 2 rows; the input has 3 dimensions"),
    (dict(matrix=np.eye(3)[:, :2]), ValueError, r"^matrix has 2 columns; the output has 3 dimensions"),
    (dict(matrix=np.ones((4, 4))), ValueError, r"^matrix: a homogeneous matrix of shape \(4, 4\) must have the last row \[0, 0, 0, 1\]"),
    (dict(matrix=np.ones(3), output_shape=(2, 6)), ValueError, r"^matrix: a diagonal matrix needs an output of 3 dimensions"),
    (dict(offset="1"), TypeError, r"^offset has dtype <U1"),
    (dict(offset=[1.0, 2.0]), ValueError, r"^offset must be a number or have shape \(3,\), got \(2,\)"),
    (dict(output_shape=(2, 6, 1.5)), TypeError, r"^output_shape must be a sequence of integers"),
    (dict(output_shape=5), TypeError, r"^output_shape must be a sequence of integers"),
    (dict(output_shape=()), ValueError, r"^output_shape must have at least one dimension"),
    (dict(output_shape=(1, 2, 6, 1)), NotImplementedError, r"^output_shape has 4 dimensions; 1, 2 or 3"),
    (dict(output_shape=(2, -6, 1)), ValueError, r"^output_shape must not be negative"),
    (dict(order=3), NotImplementedError, r"^order=3 is not supported"),
    (dict(mode="mirror"), NotImplementedError, r"^mode='mirror' is not supported"),
    (dict(mode="bogus"), ValueError, r"^mode must be 'constant' or 'nearest'"),
    (dict(cval=[0.0]), TypeError, r"^cval must be a real number, got list"),
    (dict(output=np.bytes_), TypeError, r"^output has dtype \|S0"),
]


@pytest.mark.parametrize("kwargs, error, message", AFFINE_CASES)
def test_affine_transform_errors_name_the_argument(kwargs, error, message):
    args = dict(input=VOLUME, matrix=np.eye(3), offset=0.0, output_shape=(1, 2, 6), order=1,
                mode="constant", cval=0.0)
    args.update(kwargs)
    with pytest.raises(error, match=message):
        qz.affine_transform(**args)
    if "output" not in kwargs and "output_shape" not in kwargs:
        output = given_output((1, 2, 6))
        with pytest.raises(error, match=message):
            qz.affine_transform(**args, output=output)
        assert np.all(output == SENTINEL)


def test_affine_output_of_another_shape_is_refused_untouched():
    output = given_output((1, 2, 6))
    with pytest.raises(ValueError, match=r"^output has shape \(1, 2, 6\), expected \(2, 2, 6\)"):
        qz.affine_transform(VOLUME, np.eye(3), output_shape=(2, 2, 6), output=output)
    assert np.all(output == SENTINEL)


def test_output_sharing_memory_with_an_input_is_refused_untouched():
    volume = np.full((2, 3, 6), SENTINEL, np.float32)
    with pytest.raises(ValueError, match=r"^output shares memory with input"):
        qz.affine_transform(volume, np.eye(3), output=volume)
    with pytest.raises(ValueError, match=r"^output shares memory with input"):
        qz.map_coordinates(volume, np.ones((3, 3, 6)), output=volume[0])
    coords = np.full((3, 2, 6), SENTINEL)
    with pytest.raises(ValueError, match=r"^output shares memory with coordinates"):
        qz.map_coordinates(VOLUME, coords, output=coords[0])
    assert np.all(volume == SENTINEL) and np.all(coords == SENTINEL)
