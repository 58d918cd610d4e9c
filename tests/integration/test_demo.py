"""The demonstration: what it prints, what it leaves, and its messages when it cannot run."""

import os
import re
import shlex
import subprocess

import pytest
import system

DEMO = system.ROOT / "scripts/demo"

pytestmark = system.needs_plain_build


def demo(*arguments, timeout=300, cwd=None):
    return subprocess.run([DEMO, *arguments], capture_output=True, text=True, stdin=subprocess.DEVNULL, timeout=timeout,
                          cwd=cwd, env={**os.environ, "COLUMNS": "200"})


def tables(output, name):
    """Each printing of a table, as a list of rows by column name."""
    found = []
    for block in re.findall(rf"^[^\n]*\({name}\)\n((?:  .+\n)+)", output, re.M):
        header, *rows = block.splitlines()
        columns = [(match[0], match.start()) for match in re.finditer(r"\S+", header)]
        ends = [start for _, start in columns[1:]] + [None]
        found.append([{column: row[start:end].strip() for (column, start), end in zip(columns, ends)} for row in rows])
    return found


@pytest.mark.slow
def test_the_demo_prints_every_table_and_shows_counters_move(tmp_path, monkeypatch):
    monkeypatch.setenv("TMPDIR", str(tmp_path))
    result = demo()
    assert result.returncode == 0, result.stderr
    assert result.stderr == ""
    assert re.findall(r"^\[(\d)/5\] ", result.stdout, re.M) == list("12345")
    assert "prodName = Tovric Kelv Server" in result.stdout and "kernelLoaded = no" in result.stdout
    assert "memReserved = 278528 KB\n" in result.stdout
    vms, = tables(result.stdout, "vmTable")
    assert [(row["vmDisplayName"], row["vmMemSize"]) for row in vms] == [("web-1", "512 MB"), ("backup", "256 MB")]
    for table in ("hbaTable", "tgtTable", "nicTable", "floppyTable", "cdromTable"):
        assert tables(result.stdout, table)[0]
    for table, column, unit in (("cpuTable", "cpuUsedSec", "s"), ("diskTable", "diskRead", "KB"),
                                ("netTable", "netHCPktTx", "packets")):
        first, later = (found[0][column].split() for found in tables(result.stdout, table))
        assert int(later[0]) > int(first[0])
        assert first[1] == later[1] == unit
    assert "scripts/demo --host hosts/small.yaml --keep " in result.stdout.partition("\nTry next:\n")[2]
    assert list(tmp_path.iterdir()) == [], "files are left"


@pytest.mark.slow
def test_a_kept_demo_can_be_queried_and_stopped_as_it_says(tmp_path, monkeypatch):
    tmp_path.chmod(0o755)
    monkeypatch.setenv("TMPDIR", str(tmp_path))
    result = demo("--host", system.HOSTS / "every-device.yaml", "--keep")
    assert result.returncode == 0, result.stderr
    assert len(tables(result.stdout, "vmTable")[0]) == 14
    queries = re.findall(r"^  (.*snmp\w+ .*)$", result.stdout.partition("Try next:\n")[2], re.M)
    stop, = re.findall(r"^  (kill (\d+) (\d+); tail .*; rm -r .*)$", result.stdout, re.M)
    assert len(queries) == 3
    for query in queries:
        reply = subprocess.run(shlex.split(query), capture_output=True, text=True)
        assert reply.returncode == 0 and "every device" in reply.stdout, query
    assert all(system.is_alive(pid) for pid in stop[1:])
    assert (system.ROOT / "build/demo-agent.pid").read_text().strip() == stop[1]
    subprocess.run(["bash", "-c", stop[0]], check=True)
    for pid in stop[1:]:
        system.wait_until(lambda: not system.is_alive(pid), "the demo's processes to end")


@pytest.mark.parametrize("arguments, word", [
    (["--host"], "--host"), (["--host", "/nonexistent.yaml"], "/nonexistent.yaml"), (["--nonsense"], "usage")])
def test_the_demo_names_what_is_wrong_with_its_arguments(arguments, word):
    result = demo(*arguments)
    assert result.returncode != 0
    assert word in result.stderr


@pytest.mark.slow
def test_the_demo_shows_why_a_daemon_does_not_start(tmp_path):
    (tmp_path / "bad.yaml").write_text("about: [1]\n")
    result = demo("--host", "bad.yaml", cwd=tmp_path)
    assert result.returncode != 0
    assert re.search(r"bad\.yaml:\d+:\d+: .*expected", result.stderr)
    assert "did not start" in result.stderr


@pytest.mark.slow
def test_the_demo_reports_that_a_live_host_cannot_be_reached(tmp_path):
    result = demo("--libvirt", f"qemu+unix:///system?socket={tmp_path}/nobody")
    assert result.returncode != 0
    assert re.search("demo: libvirt cannot be reached: .*nobody", result.stderr)
    assert "vmTable" not in result.stdout
