import subprocess

import pytest
from panel import Lab

SKIPPED = 77  # what ctest takes for a skipped test


def pytest_sessionstart(session):
    probe = subprocess.run(["unshare", "-Urnmpf", "true"], capture_output=True, text=True, check=False)
    if probe.returncode != 0:
        pytest.exit(f"SKIPPED: no namespaces on this machine: {probe.stderr.strip()}", SKIPPED)


@pytest.fixture(scope="module")
def make_lab():
    labs = []

    def make(*arguments, **options):
        labs.append(Lab(*arguments, **options))
        return labs[-1]

    yield make
    for lab in labs:
        lab.down()
