"""kivtool driven through labgrid: two adapters on the usbfs bed, each with its own board.
Runs under labgrid_bed_host (ctest -L labgrid), which pulls and plugs adapters on request."""
import os
import time

import pytest

from kivtool_labgrid import KivtoolDriver, KivtoolError, KivtoolMismatch, KivtoolUnavailable
from labgrid.resource.udev import USBFlashableDevice

SCRATCH = 0x4A180048


class Bed:
    """Requests to the bed host: one line each way."""

    def __init__(self, ctl):
        self.req, self.rep = (int(fd) for fd in ctl.split(","))

    def _ask(self, request):
        os.write(self.req, (request + "\n").encode())
        answer = b""
        while not answer.endswith(b"\n"):
            chunk = os.read(self.rep, 256)
            assert chunk, "the bed host went away"
            answer += chunk
        assert answer == b"ok\n", f"{request}: {answer.decode().strip()}"

    def pull(self, port):
        self._ask(f"pull {port}")

    def plug(self, port, to=None):
        self._ask(f"plug {port} {to or port}")


@pytest.fixture(scope="session")
def bed():
    if "KIVBED_CTL" not in os.environ:
        pytest.fail("run under labgrid_bed_host (ctest -L labgrid)")
    return Bed(os.environ["KIVBED_CTL"])


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


def wait_avail(res, avail, seconds=10.0):
    deadline = time.monotonic() + seconds
    while res.avail != avail and time.monotonic() < deadline:
        res.poll()
        time.sleep(0.05)
    assert res.avail == avail, f"{res.display_name} never became {'available' if avail else 'unavailable'}"


def test_resources_bind_by_port_path_and_by_serial(targets):
    a, b = (resource(t) for t in targets)
    for res in (a, b):
        wait_avail(res, True)
    assert (a.path, b.path) == ("1-3.1", "1-3.2")
    assert a.devnode != b.devnode and a.devnode.endswith(f"/{a.busnum:03d}/{a.devnum:03d}")


def test_each_driver_reaches_its_own_board_only(a, b):
    before = b.reg_get(SCRATCH)
    a.reg_set(SCRATCH, 0x5A5A5A5A)
    assert a.reg_get(SCRATCH) == 0x5A5A5A5A
    assert b.reg_get(SCRATCH) == before
    b.reg_set(SCRATCH, 0x0000B0B0)
    assert (a.reg_get(SCRATCH), b.reg_get(SCRATCH)) == (0x5A5A5A5A, 0x0000B0B0)
    assert "[0x4A180048]=0x5A5A5A5A" in a.run("reg get 0x4A180048")


@pytest.mark.parametrize("line, message", [
    ("spi verify /nonexistent/image.bin", "FILE /nonexistent/image.bin open fail!"),
    ("reg get", "Incomplete command"),
    ("reg frobnicate 1", "Error on 1th token 'frobnicate'"),
])
def test_a_failed_line_raises_with_the_tools_message(a, line, message):
    with pytest.raises(KivtoolError) as info:
        a.run(line)
    assert info.value.status == 1 and info.value.line == line
    assert message in str(info.value)


def test_update_and_verify_flash_the_chosen_board(a, b, tmp_path):
    image = tmp_path / "image.bin"
    image.write_bytes(bytes((i * 7 + 3) & 0xFF for i in range(1100)))
    a.update(str(image))
    assert a.verify(str(image))
    with pytest.raises(KivtoolMismatch, match="Image not match between 0x000000"):
        b.verify(str(image))


def test_a_pulled_adapter_fails_the_call_and_leaves_the_other_board(targets, a, b, bed):
    res = resource(targets[0])
    b.reg_set(SCRATCH, 0x0000B0B0)
    a.reg_set(SCRATCH, 0x11111111)
    path = res.path
    # Until labgrid has taken in the adapter's leaving, the driver still names it: the tool
    # then finds no adapter at that port and refuses, rather than opening the other one.
    res.poll = lambda: None
    try:
        bed.pull("1-3.1")
        with pytest.raises(KivtoolError, match="Not Found"):
            a.reg_set(SCRATCH, 0x22222222)
    finally:
        del res.poll
    wait_avail(res, False)
    with pytest.raises(KivtoolUnavailable):
        a.reg_set(SCRATCH, 0x33333333)
    assert b.reg_get(SCRATCH) == 0x0000B0B0
    bed.plug("1-3.1")
    wait_avail(res, True)
    assert res.path == path and a.reg_get(SCRATCH) == 0x11111111


def test_a_serial_follows_the_adapter_to_another_port(targets, b, bed):
    res = resource(targets[1])
    b.reg_set(SCRATCH, 0x0000CAFE)
    bed.pull("1-3.2")
    wait_avail(res, False)
    bed.plug("1-3.2", "1-4")
    wait_avail(res, True)
    assert res.path == "1-4" and b.reg_get(SCRATCH) == 0x0000CAFE


def test_a_remote_place_runs_the_tool_through_the_command_prefix(targets, a, monkeypatch, tmp_path):
    # As ssh runs it on the exporter: the words are joined into one line for a shell there.
    log = tmp_path / "exporter.log"
    prefix = ["/bin/sh", "-c", f'echo "$*" > {log}; eval "$*"', "exporter"]
    monkeypatch.setattr(type(resource(targets[0])), "command_prefix", property(lambda self: prefix))
    a.reg_set(SCRATCH, 0x00C0FFEE)
    assert a.reg_get(SCRATCH) == 0x00C0FFEE
    assert log.read_text().split()[1:] == ["-e", "-a", "path:1-3.1", "--", "reg", "get", "0x4A180048"]
