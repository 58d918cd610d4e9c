"""Fixtures: each test has a network of its own, and starts the daemon and the agent that it needs in it."""

import contextlib
import pathlib
import shutil
import tempfile

import pytest

for helper in ("mib", "expected_tree", "system", "snmp_client", "wire", "libvirt_host", "module_table"):
    pytest.register_assert_rewrite(helper)

import fault_report  # noqa: E402
import libvirt_host  # noqa: E402
import network       # noqa: E402
import system        # noqa: E402


class FaultCollector:
    """Writes the report of the robustness tests at the end of a run that had any."""

    def __init__(self):
        self.lines = []

    def pytest_runtest_logreport(self, report):
        if report.when == "teardown":
            self.lines += [value for name, value in report.user_properties if name == "fault"]

    def pytest_sessionfinish(self):
        if self.lines:
            fault_report.write(self.lines, system.BUILD / "reports/faults.md")


def pytest_configure(config):
    config.addinivalue_line("markers", "slow: waits for the agent's 20 s cache to age")
    if not hasattr(config, "workerinput"):      # in xdist's workers, whose test reports come here
        config.pluginmanager.register(FaultCollector())


def pytest_collection_modifyitems(items):
    """Tests that wait go first, so that the others run beside them."""
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)


@pytest.fixture(scope="session", autouse=True)
def tools_folder(tmp_path_factory):
    """The state of net-snmp's tools: the first one would make the usual folder, and print a line about it."""
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


def stop_cleanly(daemon):
    """Stops the daemon, which must end with 0 unless the test has ended it."""
    was_stopped = daemon.process.poll() is not None
    code = daemon.stop()
    assert was_stopped or code == 0, f"the daemon ended with {code}: {daemon.log_text()}"


@pytest.fixture
def start_daemon(directory):
    """start_daemon(host file, options …) starts the daemon; at the end it must stop cleanly and leave no ticket."""
    with contextlib.ExitStack() as stack:
        def start(host, *options, **how):
            daemon = system.Daemon(host, directory, *options, **how)
            stack.callback(check_stop, daemon)
            return daemon

        def check_stop(daemon):
            stop_cleanly(daemon)
            assert not list(daemon.tickets.iterdir()), "tickets are left"

        yield start


@pytest.fixture
def start_libvirt_daemon(directory):
    """start_libvirt_daemon(uri) starts the daemon on a libvirt host; it must stop cleanly at the end."""
    with contextlib.ExitStack() as stack:
        def start(uri, *options):
            daemon = libvirt_host.Daemon(uri, directory, *options)
            stack.callback(stop_cleanly, daemon)
            return daemon

        yield start


@pytest.fixture
def start_agent(directory):
    """start_agent(user=, background=) starts snmpd; at the end it must run, stop and have logged nothing unexpected."""
    with contextlib.ExitStack() as stack:
        def start(**how):
            agent = system.Agent(directory, **how)
            stack.callback(agent.stop)
            return agent

        yield start
