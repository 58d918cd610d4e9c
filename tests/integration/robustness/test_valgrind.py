"""The module in the real agent under valgrind: nothing is lost, nothing uninitialised is read."""

import shutil
import time
import xml.etree.ElementTree

import pytest
import system
from module_table import UNLOAD, UNLOADED, WRITABLE, change_module, load, status

REFRESHES = 100

# What can still be reached at the end is not lost; an array whose elements have a size in front is reached by its
# middle.
NOT_LOST = {"Leak_StillReachable", "Leak_PossiblyLost"}


def findings(report):
    """Valgrind's errors in the module: pairs of a kind, and a text with the functions that led there."""
    for error in xml.etree.ElementTree.parse(report).getroot().iter("error"):
        frames = [(frame.findtext("obj") or "", frame.findtext("fn") or "?") for frame in error.iter("frame")]
        if any(library.endswith("SNMPKelv.so") for library, _ in frames):
            what = error.findtext("what") or error.findtext("xwhat/text")
            yield error.findtext("kind"), what + ": " + " < ".join(function for _, function in frames)


@pytest.mark.slow
@pytest.mark.skipif(not shutil.which("valgrind"), reason="valgrind is not installed")
@system.needs_plain_build
def test_a_load_a_hundred_refreshes_and_an_unload_lose_nothing(directory, fake, host, shifted_agent):
    report = directory / "valgrind.xml"
    valgrind = ["valgrind", "--quiet", "--leak-check=full", "--show-leak-kinds=all", "--num-callers=40",
                "--keep-debuginfo=yes", "--child-silent-after-fork=yes", "--xml=yes", f"--xml-file={report}"]
    agent = shifted_agent(module=None, configuration=WRITABLE, under=valgrind, timeout=60)
    load(1, system.MODULE)
    # Under valgrind, on a busy computer, a login may time out; then the agent backs off for 5 s.
    whole, deadline = 0, time.monotonic() + 120
    while whole < REFRESHES:
        assert time.monotonic() < deadline, f"{whole} refreshes: {agent.log_text()}"
        if agent.refresh()[1]:
            whole += 1
        else:
            time.sleep(0.2)
    agent.assert_right(host)
    change_module(1, UNLOAD)
    assert status(agent, 1) == UNLOADED
    agent.stop()
    found = list(findings(report))
    assert any("SNMP::GetOrdaneClient" in text for _, text in found), \
        "the client lives on, and valgrind knows who made it"
    assert [finding for finding in found if finding[0] not in NOT_LOST] == []
