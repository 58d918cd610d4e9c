"""Fixtures of the libvirt tests.

What needs a libvirtd starts one of its own (libvirt_host.Libvirtd) and is skipped, with the reason, where that is not
possible: it takes root, libvirt-daemon-system and qemu-system-x86. The tests on libvirt's test driver take neither.

With xdist's `--dist loadgroup` the tests that compute, one group, run one after the other; those that only wait,
another group, run beside them with a libvirtd of their own.
"""

import pathlib
import shutil
import tempfile

import pytest


def pytest_configure(config):
    config.addinivalue_line("markers", "xdist_group(name): the tests of a group run one after the other")


pytest.register_assert_rewrite("domain_tree")

import libvirt_host  # noqa: E402


@pytest.fixture(scope="session")
def shared_libvirtd():
    reason = libvirt_host.why_not()
    if reason:
        pytest.skip(f"no live guests: {reason}")
    folder = pathlib.Path(tempfile.mkdtemp(prefix="kelv-libvirt-"))
    libvirtd = libvirt_host.Libvirtd(folder)
    yield libvirtd
    libvirtd.stop()
    shutil.rmtree(folder)


@pytest.fixture
def libvirtd(shared_libvirtd):
    """A libvirtd without guests."""
    yield shared_libvirtd
    if shared_libvirtd.process.poll() is not None:
        shared_libvirtd.start()
    shared_libvirtd.end_guests()
