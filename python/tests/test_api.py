"""Names, errors, sensor control, and the module as its users meet it."""
import os
import signal
import subprocess
import sys
import time

import pytest

import sensoripc
from conftest import run_python


# Would catch a wrong name passed on to the library, or an error that does not say what exists.
def test_unknown_names_are_value_errors_listing_the_known_ones():
    with pytest.raises(ValueError, match="wideleft.*narrow"):
        sensoripc.Consumer(sensors=["no-such-sensor"])
    with pytest.raises(ValueError, match="camera-demo"):
        sensoripc.Consumer(sensors=["wide"], app="no-such-app")
    with pytest.raises(ValueError, match="raw"):
        sensoripc.Consumer(sensors=["frontslave"], raw=True)
    assert sensoripc.__version__.count(".") == 2


# Would catch result codes raised as a bare RuntimeError, or the code lost on the way.
def test_result_codes_raise_their_own_class():
    with pytest.raises(sensoripc.BadParamError) as info:
        sensoripc.Consumer(sensors=["wide"], app=13)  # an application without a registration
    assert isinstance(info.value, sensoripc.Error) and info.value.result == -5
    assert issubclass(sensoripc.NoFrameError, TimeoutError)


# Would catch control calls that lose their arguments or return nothing usable.
def test_sensor_control_returns_records():
    sensors = sensoripc.sensors()
    assert len(sensors) == 22 and sensors[2].name == "wide" and sensors[2].present and sensors[2].kind == "camera"
    sensoripc.write_register(sensor="wide", reg=0x3000, value=0x1234, width=16)
    assert sensoripc.read_register(sensor="wide", reg=0x3000, width=16) == 0x1234
    sensoripc.i2c_write(sensor="narrow", addr=0x50, data=b"\x01\x02")
    assert len(sensoripc.i2c_read(sensor="narrow", addr=0x50, length=2)) == 2
    sensoripc.set_frame_sync(group=1, delta_ms=5)
    assert isinstance(sensoripc.diagnostics().radar_faults, list)
    assert sensoripc.status().link_mask & (1 << 2)


SLOW_RIG = """
[[stream]]
id = 12
rate_hz = 0.1
[stream.capture]
format = "grey8"
width = 64
height = 8
"""


# Would catch a get that keeps waiting (or blocks the interpreter) when Ctrl-C comes.
def test_a_waiting_get_ends_on_a_signal(tmp_path):
    rig = tmp_path / "slow.toml"
    rig.write_text(SLOW_RIG)
    code = ("import sensoripc\n"
            "c = sensoripc.Consumer(sensors=['frontslave'])\n"
            "c.get(timeout=30).release()\n"
            "print('waiting', flush=True)\n"
            "c.get(timeout=60)\n")
    env = {**os.environ, "SENSOR_SIM_RIG": str(rig)}
    child = subprocess.Popen([sys.executable, "-c", code], env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             text=True)
    try:
        assert child.stdout.readline().strip() == "waiting"
        time.sleep(0.3)
        sent = time.monotonic()
        child.send_signal(signal.SIGINT)
        _, err = child.communicate(timeout=10)
        assert time.monotonic() - sent < 2.0
        assert "KeyboardInterrupt" in err and child.returncode != 0
    finally:
        if child.poll() is None:
            child.kill()
            child.wait()


# Would catch a module that only works in-process: frames through sensor-simd, beside a sensorctl stream
# of another application, with the same checks as in-process.
def test_through_sensor_simd_beside_sensorctl(tmp_path, tool_paths):
    socket = str(tmp_path / "service.sock")
    env = {**os.environ, "SENSOR_SIM_SERVICE": socket}
    service = subprocess.Popen([tool_paths["SENSOR_SIMD"], "--socket", socket], env=env, stdout=subprocess.DEVNULL,
                               stderr=subprocess.PIPE, text=True)
    stream = None
    try:
        for _ in range(100):
            if os.path.exists(socket):
                break
            time.sleep(0.05)
        stream = subprocess.Popen([tool_paths["SENSORCTL"], "stream", "--sensors", "narrow", "--camera-app",
                                   "camera-irc", "--duration", "20"], env=env, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        code = ("import sensoripc\n"
                "last = -1\n"
                "with sensoripc.Consumer(sensors=['wide'], app='vic', raw=True) as c:\n"
                "    for _ in range(30):\n"
                "        with c.get(timeout=5) as f:\n"
                "            y, uv = f.planes\n"
                "            assert not y.flags.writeable and not y.flags.owndata and f.counter > last\n"
                "            assert f.raw.counter == f.counter and uv.shape[2] == 2\n"
                "            last = f.counter\n"
                "print('ok', last)\n")
        result = run_python(code, env)
        assert result.returncode == 0, result.stderr
        assert result.stdout.startswith("ok")
        assert stream.poll() is None  # the sensorctl stream ran on beside it
    finally:
        for p in (stream, service):
            if p is not None and p.poll() is None:
                p.send_signal(signal.SIGTERM)
                p.wait(timeout=10)
