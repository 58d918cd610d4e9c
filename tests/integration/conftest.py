"""Fixtures: each test has a network of its own, and starts the daemon and the agent that it needs in it."""

import contextlib
import pathlib
import shutil
import tempfile

import pytest

for helper in ("system", "snmp_client", "wire"):
    pytest.register_assert_rewrite(helper)

import network  # noqa: E402
import system   # noqa: E402


def pytest_configure(config):
    config.addinivalue_line("markers", "slow: waits for the agent's 20 s cache to age")


def pytest_collection_modifyitems(items):
    """Tests that wait go first, so that the others run beside them."""
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)


@pytest.fixture(scope="session", autouse=True)
def tools_folder(tmp_path_factory):
    """Where net-snmp's tools keep their notes. The first one on a new machine would make it, and say so."""
    folder = tmp_path_factory.mktemp("net-snmp")
    (folder / "cert_indexes").mkdir()
    with pytest.MonkeyPatch.context() as patch:
        patch.setenv("SNMP_PERSISTENT_DIR", str(folder))
        yield


@pytest.fixture(autouse=True)
def own_network():
    network.enter_new()


@pytest.fixture
def directory():
    """A folder that every user can enter, as /run is; the usual temporary folders are closed to other users."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="kelv-"))
    path.chmod(0o755)
    yield path
    shutil.rmtree(path)


@pytest.fixture
def start_daemon(directory):
    """start_daemon(host file, options …) starts the daemon; at the end it must stop cleanly and leave no ticket."""
    with contextlib.ExitStack() as stack:
        def start(host, *options, **how):
            daemon = system.Daemon(host, directory, *options, **how)
            stack.callback(check_stop, daemon)
            return daemon

        def check_stop(daemon):
            was_stopped = daemon.process.poll() is not None
            code = daemon.stop()
            assert was_stopped or code == 0, f"the daemon ended with {code}: {daemon.log_text()}"
            assert not list(daemon.tickets.iterdir()), "tickets are left"

        yield start


@pytest.fixture
def start_agent(directory):
    """start_agent(user=, background=) starts snmpd; at the end it must be alive, stop, and have logged no surprise."""
    with contextlib.ExitStack() as stack:
        def start(**how):
            agent = system.Agent(directory, **how)
            stack.callback(agent.stop)
            return agent

        yield start
