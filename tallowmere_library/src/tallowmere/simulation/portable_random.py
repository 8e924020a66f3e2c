"""Random numbers that are the same on every machine: a counter-based generator and portable functions.

The default dataset (:mod:`~tallowmere.simulation.synthetic_market`) must
be identical wherever it is built, whatever the numpy version or the
processor. So it draws nothing from numpy's generators and calls no
library ``exp`` or ``log`` (whose last bits differ between platforms and
between vectorised and plain code); everything here is integer arithmetic
and the IEEE operations ``+ - * /`` and ``sqrt``, each rounded exactly, in a
fixed order. The compiled engine (``tallowmere._native``) performs the same
operations in the same order and gets the same bits; the test suite checks
that it does.

- :func:`draws`: 64-bit numbers, each a function of a generator key, a
  stream number and an index (the finaliser of SplitMix64 applied to a
  Weyl sequence), so any part of any stream can be computed on its own.
- :func:`uniforms`: doubles in (0, 1), ``(k + 0.5) / 2**52`` for the top 52
  bits ``k`` of a draw.
- :func:`normals`: standard normal numbers by Acklam's rational approximation
  of the inverse normal distribution function (relative error below 1.2e-9),
  one draw each; they lie within about ±8.1.
- :func:`portable_log`, :func:`portable_exp`: the natural logarithm and the
  exponential, by the reductions and polynomials of fdlibm, accurate to about
  one unit in the last place.
"""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from tallowmere.simulation.market_panel import FloatArray

__all__ = ["draws", "normals", "portable_exp", "portable_log", "stream_key", "uniforms"]

UIntArray = npt.NDArray[np.uint64]

_MASK = (1 << 64) - 1
_WEYL = 0x9E3779B97F4A7C15
_STREAM_STEP = 0xD1B54A32D192ED03
_MIX_1 = 0xBF58476D1CE4E5B9
_MIX_2 = 0x94D049BB133111EB


def _mix_int(value: int) -> int:
    value = ((value ^ (value >> 30)) * _MIX_1) & _MASK
    value = ((value ^ (value >> 27)) * _MIX_2) & _MASK
    return value ^ (value >> 31)


def stream_key(generator_key: int, stream: int) -> int:
    """The starting point of one stream of a generator key."""
    return _mix_int((generator_key + stream * _STREAM_STEP) & _MASK)


def draws(key: int, first: int, count: int) -> UIntArray:
    """Draws ``first`` to ``first + count - 1`` of the stream that starts at ``key`` (see :func:`stream_key`)."""
    indices = np.arange(first + 1, first + count + 1, dtype=np.uint64)
    values: UIntArray = np.uint64(key) + indices * np.uint64(_WEYL)  # both wrap modulo 2**64
    values = (values ^ (values >> np.uint64(30))) * np.uint64(_MIX_1)
    values = (values ^ (values >> np.uint64(27))) * np.uint64(_MIX_2)
    mixed: UIntArray = values ^ (values >> np.uint64(31))
    return mixed


_EXPONENT_OF_TWO_TO_52 = np.uint64(0x4330000000000000)


def uniforms(values: UIntArray) -> FloatArray:
    """Doubles in (0, 1): ``(k + 0.5) / 2**52`` for the top 52 bits ``k`` of each draw, all exact."""
    top = (values >> np.uint64(12)) | _EXPONENT_OF_TWO_TO_52
    whole: FloatArray = top.view(np.float64) - 4503599627370496.0  # k, exactly
    result: FloatArray = (whole + 0.5) * 2.0**-52
    return result


# fdlibm's logarithm.
_LN2_HI = 6.93147180369123816490e-01
_LN2_LO = 1.90821492927058770002e-10
_SQRT2 = 1.41421356237309514547e00
_LG = (
    6.666666666666735130e-01,
    3.999999999940941908e-01,
    2.857142874366239149e-01,
    2.222219843214978396e-01,
    1.818357216161805012e-01,
    1.531383769920937332e-01,
    1.479819860511658591e-01,
)


def portable_log(values: FloatArray) -> FloatArray:
    """The natural logarithm of positive normal doubles."""
    bits = np.ascontiguousarray(values, dtype=np.float64).view(np.uint64)
    exponents = (bits >> np.uint64(52)).astype(np.int64) - 1023
    mantissas = (bits & np.uint64(0x000FFFFFFFFFFFFF) | np.uint64(0x3FF0000000000000)).view(np.float64)
    high = mantissas > _SQRT2  # keep the mantissa in [sqrt(2) / 2, sqrt(2))
    mantissas = np.where(high, mantissas * 0.5, mantissas)
    scale = (exponents + high).astype(np.float64)
    f = mantissas - 1.0
    s = f / (2.0 + f)
    z = s * s
    w = z * z
    t1 = w * (_LG[1] + w * (_LG[3] + w * _LG[5]))
    t2 = z * (_LG[0] + w * (_LG[2] + w * (_LG[4] + w * _LG[6])))
    r = t2 + t1
    half_square = 0.5 * f * f
    result: FloatArray = scale * _LN2_HI - ((half_square - (s * (half_square + r) + scale * _LN2_LO)) - f)
    return result


# fdlibm's exponential.
_INVERSE_LN2 = 1.44269504088896338700e00
_P = (
    1.66666666666666019037e-01,
    -2.77777777770155933842e-03,
    6.61375632143793436117e-05,
    -1.65339022054652515390e-06,
    4.13813679705723846039e-08,
)


def portable_exp(values: FloatArray) -> FloatArray:
    """The exponential of doubles between -700 and 700."""
    x = np.asarray(values, dtype=np.float64)
    k = np.floor(x * _INVERSE_LN2 + 0.5)
    hi = x - k * _LN2_HI
    lo = k * _LN2_LO
    r = hi - lo
    t = r * r
    c = r - t * (_P[0] + t * (_P[1] + t * (_P[2] + t * (_P[3] + t * _P[4]))))
    y = 1.0 - ((lo - (r * c) / (2.0 - c)) - hi)
    powers = ((k.astype(np.int64) + 1023) << 52).view(np.float64)  # 2**k
    result: FloatArray = y * powers
    return result


# Acklam's inverse normal distribution function.
_A = (-3.969683028665376e01, 2.209460984245205e02, -2.759285104469687e02, 1.383577518672690e02, -3.066479806614716e01, 2.506628277459239e00)
_B = (-5.447609879822406e01, 1.615858368580409e02, -1.556989798598866e02, 6.680131188771972e01, -1.328068155288572e01)
_C = (-7.784894002430293e-03, -3.223964580411365e-01, -2.400758277161838e00, -2.549732539343734e00, 4.374664141464968e00, 2.938163982698783e00)
_D = (7.784695709041462e-03, 3.224671290700398e-01, 2.445134137142996e00, 3.754408661907416e00)
_P_LOW = 0.02425
_P_HIGH = 0.97575


def _tail(q: FloatArray) -> FloatArray:
    numerator = ((((_C[0] * q + _C[1]) * q + _C[2]) * q + _C[3]) * q + _C[4]) * q + _C[5]
    denominator = (((_D[0] * q + _D[1]) * q + _D[2]) * q + _D[3]) * q + 1.0
    result: FloatArray = numerator / denominator
    return result


def normals(values: UIntArray) -> FloatArray:
    """Standard normal numbers, one per draw: the inverse normal distribution function of :func:`uniforms`."""
    p = uniforms(values)
    q = p - 0.5
    r = q * q
    numerator = (((((_A[0] * r + _A[1]) * r + _A[2]) * r + _A[3]) * r + _A[4]) * r + _A[5]) * q
    denominator = ((((_B[0] * r + _B[1]) * r + _B[2]) * r + _B[3]) * r + _B[4]) * r + 1.0
    result: FloatArray = numerator / denominator
    low = p < _P_LOW
    if low.any():
        result[low] = _tail(np.sqrt(-2.0 * portable_log(p[low])))
    high = p > _P_HIGH
    if high.any():
        result[high] = -_tail(np.sqrt(-2.0 * portable_log(1.0 - p[high])))
    return result
