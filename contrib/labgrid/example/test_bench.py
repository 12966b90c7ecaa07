"""Example farm tests: pick a board by its target name, use its registers and its flash."""
import pytest

from kivtool_labgrid import KivtoolDriver, KivtoolError

SCRATCH = 0x4A180048     # a register the tests may overwrite
GENERATION = 0x00103FF0  # top nibble: the chip generation


@pytest.fixture(params=["board-a", "board-b"])
def kiv(env, request):
    return env.get_target(request.param).get_driver(KivtoolDriver)


def test_chip_generation(kiv):
    # Addresses are on the page the chip has selected (the switch core after reset); the
    # page stays selected for later runs, so go back to the switch core afterwards.
    kiv.run("reg chgpage axi")
    try:
        assert kiv.reg_get(GENERATION) >> 28 == 4
    finally:
        kiv.run("reg chgpage swcore")


def test_register_write_read(kiv):
    kiv.reg_set(SCRATCH, 0x1234ABCD)
    assert kiv.reg_get(SCRATCH) == 0x1234ABCD


def test_flash_image(kiv, tmp_path):
    image = tmp_path / "firmware.bin"
    image.write_bytes(bytes(range(256)) * 2)
    kiv.update(str(image))      # copies the image to the exporter, programs, compares
    assert kiv.verify(str(image))


def test_failure_is_an_exception(kiv):
    with pytest.raises(KivtoolError, match="open fail"):
        kiv.run("spi verify /no/such/file.bin")
