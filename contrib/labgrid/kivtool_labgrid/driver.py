"""labgrid driver that runs kivtool against one USB I/O adapter.

The adapter is a USBFlashableDevice (local) or NetworkUSBFlashableDevice (on an exporter)
resource. Every call starts the tool once, with the resource's port path selected and -e,
through the resource's command prefix (ssh to the exporter for a remote place), so a call
either reaches the board behind that adapter or fails: it never falls back to another one.
"""
import logging
import os
import re
import shlex
import subprocess

import attr

from labgrid.driver.common import Driver
from labgrid.driver.exception import ExecutionError
from labgrid.factory import target_factory
from labgrid.step import step
from labgrid.util.managedfile import ManagedFile

# USB IDs of the adapter; a resource whose device has other IDs is refused.
ADAPTER_VENDOR_ID = 0x0C55
ADAPTER_PRODUCT_ID = 0x5731

# What the tool prints before the output of the line it runs.
_BANNER = re.compile(r"\A# SDK version [0-9a-fA-F]+\r?\n#\r?\n")
_REGISTER = re.compile(r"\[0x([0-9A-Fa-f]+)\]=0x([0-9A-Fa-f]+)")
_MATCHED = re.compile(r"^Matched: Compare Image Length \d+", re.MULTILINE)
_MISMATCH = re.compile(r"^Image not match between 0x[0-9a-f]+ ~ 0x[0-9a-f]+ !", re.MULTILINE)
_ESCAPE = re.compile(r"\x1b\[[0-9;]*m")


@attr.s(eq=False)
class KivtoolError(ExecutionError):
    """A line the tool ran failed, or the tool could not run it.

    `status` is the tool's exit status (None when it did not finish), `output` what the
    line printed on standard output, `stderr_text` the tool's standard error.
    """
    line = attr.ib(default=None)
    status = attr.ib(default=None)
    output = attr.ib(default="")
    stderr_text = attr.ib(default="")

    def __str__(self):
        text = self.msg
        for part in (self.stderr_text, self.output):
            part = _ESCAPE.sub("", part or "").strip()
            if part:
                text += "\n" + part
        return text


class KivtoolMismatch(KivtoolError):
    """The flash does not hold the image (the tool's compare did not report a match)."""


class KivtoolUnavailable(KivtoolError):
    """The adapter's resource is not available (unplugged, or not seen yet)."""


@target_factory.reg_driver
@attr.s(eq=False)
class KivtoolDriver(Driver):
    """Runs kivtool on the board behind the bound adapter.

    Args:
        timeout (float): seconds one tool run may take (a whole-flash update takes minutes)
        cwd (str): working directory of the tool, where it reads kivcfg.txt (local only;
            a remote run starts in the exporter user's home directory)
    """
    bindings = {
        "adapter": {"USBFlashableDevice", "NetworkUSBFlashableDevice"},
    }
    timeout = attr.ib(default=600.0, converter=float)
    cwd = attr.ib(default=None, validator=attr.validators.optional(attr.validators.instance_of(str)))

    def __attrs_post_init__(self):
        super().__attrs_post_init__()
        self.logger = logging.getLogger(f"{self}:{self.target}")
        tool = self.target.env.config.get_tool("kivtool") if self.target.env else None
        self.tool = tool or "kivtool"

    def on_activate(self):
        pass

    def on_deactivate(self):
        pass

    def _selector(self):
        """The adapter's port path as the tool's selector; raises when it is not there."""
        self.adapter.poll()
        path = self.adapter.path if self.adapter.avail else None
        if not path:
            raise KivtoolUnavailable(f"{self.adapter.display_name}: the adapter is not available")
        ids = (self.adapter.vendor_id, self.adapter.model_id)
        if ids != (ADAPTER_VENDOR_ID, ADAPTER_PRODUCT_ID):
            raise KivtoolError(
                f"{self.adapter.display_name}: device {ids[0]:04x}:{ids[1]:04x} at {path} is not "
                f"the USB I/O adapter {ADAPTER_VENDOR_ID:04x}:{ADAPTER_PRODUCT_ID:04x}: match "
                "ID_VENDOR_ID and ID_MODEL_ID as well")
        return "path:" + path

    def _command(self, words):
        """The command and the working directory to run it in."""
        argv = [self.tool, "-e", "-a", self._selector(), "--"] + words
        prefix = self.adapter.command_prefix
        if not prefix:
            return argv, self.cwd
        # ssh hands the words to the exporter's shell as one command line.
        return prefix + [shlex.quote(a) for a in argv], None

    @Driver.check_active
    @step(args=["line"], result=True)
    def run(self, line):
        """Runs one command line; returns what it printed on standard output (without
        the tool's start-up lines). Raises KivtoolError when the line fails."""
        words = line.split()
        if not words:
            raise ValueError("an empty command line")
        argv, cwd = self._command(words)
        self.logger.debug("running %s", " ".join(argv))
        try:
            res = subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True,
                                 timeout=self.timeout, cwd=cwd, check=False)
        except subprocess.TimeoutExpired as e:
            raise KivtoolError(f"kivtool: '{line}' did not finish within {self.timeout:g} s",
                               line=line, output=_text(e.stdout), stderr_text=_text(e.stderr)) from e
        except OSError as e:
            raise KivtoolError(f"kivtool: cannot run {argv[0]}: {e.strerror}", line=line) from e
        out = _BANNER.sub("", _text(res.stdout))
        err = _text(res.stderr)
        if res.returncode != 0:
            raise KivtoolError(f"kivtool: '{line}' failed with status {res.returncode}",
                               stdout=out.splitlines(), stderr=err.splitlines(),
                               line=line, status=res.returncode, output=out, stderr_text=err)
        return out

    def reg_get(self, addr):
        """Reads the 32-bit register at `addr`, as `reg get` does: on the page the chip has
        selected (the switch core, 0x4A, after reset; `run("reg chgpage axi")` changes it
        for this and later runs)."""
        addr = _u32(addr)
        out = self.run(f"reg get 0x{addr:08X}")
        for a, value in _REGISTER.findall(out):
            if int(a, 16) == addr:
                return int(value, 16)
        raise KivtoolError(f"kivtool: no value for 0x{addr:08X} in the output", line="reg get", output=out)

    def reg_set(self, addr, value):
        """Writes the 32-bit `value` to the register at `addr` (on the selected page)."""
        self.run(f"reg set 0x{_u32(addr):08X} 0x{_u32(value):08X}")

    @Driver.check_active
    @step(args=["image"])
    def update(self, image):
        """Programs `image` into the board's flash and compares it; raises unless it matched.
        The image is first copied to the host that holds the adapter."""
        self._flash("update", image)

    @Driver.check_active
    @step(args=["image"], result=True)
    def verify(self, image):
        """Compares the board's flash with `image`: True when it matches, KivtoolMismatch
        when it does not."""
        self._flash("verify", image)
        return True

    def _flash(self, word, image):
        mf = ManagedFile(image, self.adapter)
        mf.sync_to_resource()
        remote = mf.get_remote_path()
        if any(c.isspace() for c in remote):
            raise ValueError(f"the tool takes file names without blanks: {remote!r}")
        try:
            out = self.run(f"spi {word} {remote}")
        except KivtoolError as e:
            if _MISMATCH.search(e.output):
                raise KivtoolMismatch(f"kivtool: flash does not match {image}", line=e.line,
                                      status=e.status, output=e.output, stderr_text=e.stderr_text) from e
            raise
        if not _MATCHED.search(out):
            raise KivtoolMismatch(f"kivtool: 'spi {word}' reported no match for {image}",
                                  line=f"spi {word}", output=out)


def _text(data):
    if data is None:
        return ""
    return data.decode("utf-8", "backslashreplace") if isinstance(data, bytes) else data


def _u32(value):
    value = int(value)
    if not 0 <= value <= 0xFFFFFFFF:
        raise ValueError(f"not a 32-bit value: {value:#x}")
    return value
