"""Frames of the in-process vehicle: zero-copy read-only views, raw pairing, copies, and the rule that no
view can reach a buffer the library has taken back."""
import gc

import numpy as np
import pytest

import sensoripc


def plane_is_view(a):
    return not a.flags.writeable and not a.flags.owndata and a.base is not None


# Would catch planes copied or writable, strides that ignore the pitch, chroma not interleaved, Bayer not
# 16-bit, a raw frame of another exposure, or counters that do not advance.
def test_camera_frames_come_with_their_raw_frames_as_views():
    last = None
    with sensoripc.Consumer(sensors=["wide"], raw=True) as consumer:
        for _ in range(30):
            with consumer.get(timeout=5) as frame:
                y, uv = frame.planes
                assert frame.format == "nv12" and frame.sensor == "wide"
                assert all(plane_is_view(p) for p in frame.planes)
                h, w = frame.height, frame.width
                assert y.shape == (h, w) and y.dtype == np.uint8 and y.strides[1] == 1 and y.strides[0] >= w
                assert uv.shape == (h // 2, w // 2, 2) and uv.strides[1:] == (2, 1)
                raw = frame.raw
                assert raw is not None and raw.counter == frame.counter and raw.format == "rggb16"
                (bayer,) = raw.planes
                assert bayer.dtype == np.uint16 and bayer.shape == (raw.height, raw.width) and plane_is_view(bayer)
                assert last is None or frame.counter > last
                last = frame.counter
        assert consumer.stats["wide"]["paired"] == 30
    with pytest.raises(ValueError):
        y.flags.writeable = True


# Would catch a frame returned while a view of it lives (the view would show later frames), or a frame
# never returned once its views are gone.
def test_views_keep_their_frame_held():
    with sensoripc.Consumer(sensors="frontslave") as consumer:
        with consumer.get(timeout=5) as frame:
            view = frame.planes[0]
            snapshot = view.copy()
            counter = frame.counter
        assert frame.released and consumer.held == 1
        for _ in range(20):  # more frames than the stream's pool has buffers
            with consumer.get(timeout=5):
                pass
        assert np.array_equal(view, snapshot)
        del view
        gc.collect()
        assert consumer.held == 0
        with pytest.raises(ValueError, match="released"):
            frame.planes
        assert counter == frame.counter


# Would catch copies that share the buffer, a CPU copy that differs from the frame, or an RGB picture of
# the wrong size.
@pytest.mark.parametrize("sensor,cpu", [("rear", False), ("midlidar", True)])
def test_copies_own_their_pixels(sensor, cpu):
    with sensoripc.Consumer(sensors=[sensor], cpu=cpu) as consumer, consumer.get(timeout=5) as frame:
        copies = frame.copy()
        for view, copy in zip(frame.planes, copies):
            assert copy.flags.owndata and copy.flags.writeable
            assert np.array_equal(view, copy)
        assert frame.to_rgb().shape == (frame.height, frame.width, 3)
        if sensor == "rear":
            # The statistics of a frame may not be published yet on a loaded machine: a few frames at most.
            for _ in range(10):
                try:
                    stats = frame.roi_stats()
                    break
                except sensoripc.BadParamError:
                    frame.release()
                    frame = consumer.get(timeout=5)
            assert stats["valid"] and stats["frame_id"] == frame.counter and stats["roi_count"] == 4
            frame.release()
