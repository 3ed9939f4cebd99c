"""Fixtures shared by the component and the end-to-end tests."""
import pytest

from harness import namespace as namespaces
from harness.daemon import BIN, Sandbox


def pytest_collection_modifyitems(items):
    items.sort(key=lambda item: item.get_closest_marker("long") is not None)    # stable: otherwise as collected
    reason = namespaces.available()
    if reason:
        for item in items:
            item.add_marker(pytest.mark.skip(reason=reason))


@pytest.fixture(scope="session", autouse=True)
def programs():
    missing = [name for name in ("sflowd", "sflow-samplingd", "sflow-cli") if not (BIN / name).exists()]
    assert not missing, f"{BIN}: {', '.join(missing)} not built: run cmake --build --preset release"


@pytest.fixture
def make_namespace():
    """A function that makes namespaces; they go with the test."""
    made = []

    def make(label):
        made.append(namespaces.Namespace(label))
        return made[-1]

    yield make
    for namespace in reversed(made):
        namespace.close()


@pytest.fixture
def make_sandbox():
    """A function that makes sandboxes; their daemons end with the test."""
    made = []

    def make(namespace=None):
        made.append(Sandbox(namespace))
        return made[-1]

    yield make
    for sandbox in reversed(made):
        sandbox.close()
