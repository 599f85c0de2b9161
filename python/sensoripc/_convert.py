"""Frames to 8-bit RGB pictures for display (numpy only)."""
import numpy as np


def _yuv420_to_rgb(y, uv, v_first):
    # BT.601, limited range, as the vehicle's processed frames are.
    c = y.astype(np.int32) - 16
    chroma = uv.astype(np.int32) - 128
    d = chroma[..., 1] if v_first else chroma[..., 0]
    e = chroma[..., 0] if v_first else chroma[..., 1]
    d = np.repeat(np.repeat(d, 2, axis=0), 2, axis=1)[: y.shape[0], : y.shape[1]]
    e = np.repeat(np.repeat(e, 2, axis=0), 2, axis=1)[: y.shape[0], : y.shape[1]]
    rgb = np.empty(y.shape + (3,), np.int32)
    rgb[..., 0] = (298 * c + 409 * e + 128) >> 8
    rgb[..., 1] = (298 * c - 100 * d - 208 * e + 128) >> 8
    rgb[..., 2] = (298 * c + 516 * d + 128) >> 8
    return np.clip(rgb, 0, 255).astype(np.uint8)


def to_rgb(frame, bayer_bits=12):
    """An (height, width, 3) uint8 RGB picture of the frame (a new array: the frame may be released).

    4:2:0 frames are converted with BT.601 limited-range coefficients; grey frames are repeated over the
    three channels (16-bit samples scaled to 8 bits); a Bayer RGGB mosaic of ``bayer_bits`` significant
    bits is shown at full size from each 2x2 cell's colours."""
    planes = frame.planes
    fmt = frame.format
    if fmt in ("nv12", "nv21"):
        return _yuv420_to_rgb(planes[0], planes[1], fmt == "nv21")
    if fmt == "gray8":
        return np.repeat(planes[0][..., None], 3, axis=2)
    if fmt == "gray16":
        return np.repeat((planes[0] >> 8).astype(np.uint8)[..., None], 3, axis=2)
    if fmt == "rggb16":
        m = planes[0]
        shift = max(bayer_bits - 8, 0)
        r = m[0::2, 0::2] >> shift
        g = ((m[0::2, 1::2].astype(np.uint32) + m[1::2, 0::2]) // 2) >> shift
        b = m[1::2, 1::2] >> shift
        cell = np.clip(np.stack([r, g, b], axis=-1), 0, 255).astype(np.uint8)
        return np.repeat(np.repeat(cell, 2, axis=0), 2, axis=1)
    raise ValueError(f"no RGB conversion for format {fmt}")
