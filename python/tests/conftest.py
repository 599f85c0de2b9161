"""The suite runs against the in-process simulated vehicle (its default rig) unless a test starts its own
processes; sensor-simd and sensorctl come from the build (SENSOR_SIMD, SENSORCTL set by ctest)."""
import atexit
import os
import shutil
import subprocess
import sys
import tempfile

import pytest

os.environ.setdefault("SENSOR_SIM_SERVICE", "off")
if "VEXALOG_DIR" not in os.environ:
    # The library's log files of this run, removed when the suite ends.
    os.environ["VEXALOG_DIR"] = tempfile.mkdtemp(prefix="sensoripc-log-")
    atexit.register(shutil.rmtree, os.environ["VEXALOG_DIR"], ignore_errors=True)


@pytest.hookimpl(tryfirst=True)
def pytest_configure(config):
    """Tests' temporary directories (sockets, rigs) go in one directory of this run, removed when it ends,
    rather than in pytest's /tmp/pytest-of-<user>, which keeps the last three runs."""
    if config.option.basetemp is None:
        config.option.basetemp = tempfile.mkdtemp(prefix="sensoripc-tests-")
        atexit.register(shutil.rmtree, config.option.basetemp, ignore_errors=True)


def run_python(code, env=None, timeout=60):
    """Runs `code` in a Python process of its own (a rig or a service is chosen once per process)."""
    return subprocess.run([sys.executable, "-c", code], env={**os.environ, **(env or {})}, capture_output=True,
                          text=True, timeout=timeout)


@pytest.fixture
def tool_paths():
    paths = {name: os.environ.get(name) for name in ("SENSOR_SIMD", "SENSORCTL")}
    if not all(paths.values()):
        pytest.skip("SENSOR_SIMD and SENSORCTL name the build's sensor-simd and sensorctl")
    return paths
