"""sensoripc: the vehicle's cameras, radars and lidars from Python, through the sensor IPC client.

Frames come from a :class:`Consumer`; each :class:`Frame` is held from the library until it is released
(leaving its ``with`` block, ``release()``) *and* the last numpy view of its planes is gone: a view keeps
its frame held, so no view can ever point at a buffer the library has taken back. Keep views short-lived
(or ``copy()`` what must outlive the frame): a stream's pool has few buffers.
"""
from ._sensoripc import (  # noqa: F401
    AccessFailedError,
    BadParamError,
    BufferTooSmallError,
    ConnectionTimeoutError,
    Consumer,
    Error,
    FailedError,
    Frame,
    NoFrameError,
    NotInitError,
    ServiceFailedError,
    StreamError,
    StreamRefusedError,
    __version__,
    app_names,
    diagnostics,
    frame_sync_start,
    i2c_read,
    i2c_write,
    read_register,
    sensor_names,
    sensors,
    set_frame_sync,
    status,
    write_register,
)
from ._convert import to_rgb
from ._records import Diagnostics, Sensor, Status  # noqa: F401

Frame.to_rgb = to_rgb
