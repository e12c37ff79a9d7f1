import signal
import subprocess

import pytest
from panel import Lab

SKIPPED = 77  # what ctest takes for a skipped test
TIME_LIMIT = 60


def pytest_configure(config):
    config.addinivalue_line("markers", "limit(seconds): how long the test may take")


def pytest_sessionstart(session):
    probe = subprocess.run(["unshare", "-Urnmpf", "true"], capture_output=True, text=True, check=False)
    if probe.returncode != 0:
        pytest.exit(f"SKIPPED: no namespaces on this machine: {probe.stderr.strip()}", SKIPPED)


@pytest.fixture(autouse=True)
def limit(request):
    marker = request.node.get_closest_marker("limit")
    seconds = marker.args[0] if marker else TIME_LIMIT

    def expire(*_):
        raise TimeoutError(f"took more than {seconds} s")

    signal.signal(signal.SIGALRM, expire)
    signal.alarm(seconds)
    yield
    signal.alarm(0)


@pytest.fixture(scope="module")
def make_lab():
    labs = []

    def make(*arguments, **options):
        labs.append(Lab(*arguments, **options))
        return labs[-1]

    yield make
    for lab in labs:
        lab.down()
