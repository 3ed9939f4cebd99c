"""Network devices that not every kernel can make."""
import pytest


def add_device(namespace, *words):
    """`ip link add`, skipping the test when the kernel lacks the kind of device."""
    try:
        namespace.ip("link", "add", *words)
    except RuntimeError as error:
        if "Unknown device type" in str(error) or "not supported" in str(error):
            pytest.skip(f"kernel without such a device: {error}")
        raise
