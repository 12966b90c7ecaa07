"""The bed the session runs under (labgrid_bed_host) and the two boards of the bench."""
import os

import pytest

from kivtool_labgrid import KivtoolDriver
from labgrid.resource.udev import USBFlashableDevice


class Bed:
    """Pulls and plugs the bed's adapters through the host's request pipe."""

    def __init__(self, ctl):
        self.req, self.rep = (int(fd) for fd in ctl.split(","))

    def _ask(self, request):
        os.write(self.req, (request + "\n").encode())
        answer = b""
        while not answer.endswith(b"\n"):
            chunk = os.read(self.rep, 256)
            if not chunk:
                raise RuntimeError("the bed host went away")
            answer += chunk
        if answer != b"ok\n":
            raise RuntimeError(f"{request}: {answer.decode().strip()}")

    def pull(self, port):
        self._ask(f"pull {port}")

    def plug(self, port, to=None):
        self._ask(f"plug {port} {to or port}")


@pytest.fixture(scope="session")
def bed():
    ctl = os.environ.get("KIVBED_CTL")
    if not ctl:
        pytest.fail("run under labgrid_bed_host (ctest -L labgrid)")
    return Bed(ctl)


@pytest.fixture(scope="session")
def targets(env):
    return env.get_target("by-path"), env.get_target("by-serial")


@pytest.fixture
def a(targets):
    return targets[0].get_driver(KivtoolDriver)


@pytest.fixture
def b(targets):
    return targets[1].get_driver(KivtoolDriver)


def resource(target):
    return target.get_resource(USBFlashableDevice, wait_avail=False)
