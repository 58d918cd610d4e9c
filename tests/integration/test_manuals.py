"""The manuals against the programs that they describe."""

import re
import subprocess
import sys

import net_snmp
import pytest
import system
import yaml

sys.path.append(str(net_snmp.ROOT / "scripts"))
import log_lines  # noqa: E402

PAGES = net_snmp.ROOT / "man"
# The programs with options: the page, and the section of it that has them.
PROGRAMS = {
    system.DAEMON: ("tovric-vessad.8", "OPTIONS"),
    system.BUILD / "apps/status/kelv-status": ("kelv-status.8", "DESCRIPTION"),
}

# Where in a description each subsection of tovric-host.5 says what is allowed: the parts of its members.
PLACES = {
    "The host": ["{unknown: 0}"],
    "Datastores": ["{vms: [], datastores: [{type: DrellDatastoreInfo, unknown: 0}]}"],
    "Counters": ["{vms: [], counters: [{unknown: 0}]}"],
    "VMs": ["{vms: [{unknown: 0}]}"],
    "Configuration": ["{vms: [{id: a, config: {unknown: 0}}]}"],
    "Devices": [f"{{vms: [{{id: a, config: {{name: a, guestFullName: a, hardware: {{numCPU: 1, memoryMB: 1, "
                f"device: [{{type: {kind}, unknown: 0}}]}}}}}}]}}"
                for kind in ("VirtualController", "VirtualDisk", "VirtualEthernetCard")],
}


def page(name):
    return (PAGES / name).read_text()


def section(text, name, macro="Sh"):
    """The lines of a section or subsection."""
    return re.search(rf'^\.{macro} {name}\n(.*?)(?=^\.S[hs] |\Z)', text, re.M | re.S)[1]


def run(program, *arguments):
    return subprocess.run([program, *arguments], capture_output=True, text=True, timeout=20, stdin=subprocess.DEVNULL)


def options_of_help(program):
    """Each option's argument and default, None where it has none, as --help prints them."""
    found = {}
    for line in re.findall(r"^  (-.*)$", run(program, "--help").stdout, re.M):
        # Without what is allowed, such as ":INT in [0 - 9]" and ":{one,another}".
        line = re.sub(r":INT in \[.*?\]|:\{.*?\}", "", line)
        name, argument, default = re.match(r"(?:-\w,)?(--[\w-]+)(?: ([A-Z]+(?::[A-Z]+)*)(?:=(\S+))?)?", line).groups()
        found[name] = (argument, default)
    return found


def options_of_page(program):
    """The same of the manual."""
    name, options = PROGRAMS[program]
    found = {}
    for head, text in re.findall(r"^\.It Fl (.*)\n((?:(?!\.It|\.El).*\n)*)",
                                 section(page(name), options), re.M):
        option, argument = re.match(r"(?:\w , Fl )?-([\w-]+)(?: Ar (\S+))?$", head).groups()
        default = re.search(r"^The default is\n\.\w+ (\S+) \.$", text, re.M)
        found["--" + option] = (argument, default and default[1])
    return found


@pytest.mark.parametrize("program", PROGRAMS, ids=lambda program: program.name)
def test_the_manual_has_the_options_of_the_help(program):
    assert options_of_page(program) == options_of_help(program)


@pytest.mark.parametrize("program", PROGRAMS, ids=lambda program: program.name)
def test_the_synopsis_has_the_options_with_their_arguments(program):
    synopsis = section(page(PROGRAMS[program][0]), "SYNOPSIS")
    named = {"--" + name: argument or None for name, argument in re.findall(r"Fl -([\w-]+)(?: Ar (\S+))?", synopsis)}
    assert named == {name: argument for name, (argument, _) in options_of_page(program).items()}


@pytest.mark.parametrize("place", PLACES)
def test_the_manual_of_described_hosts_has_the_members_that_are_allowed(place, tmp_path):
    allowed = set()
    for text in PLACES[place]:
        (tmp_path / "host.yaml").write_text(text)
        error = run(system.DAEMON, "--host", tmp_path / "host.yaml", "--foreground").stderr
        allowed |= set(re.search(r"expected one of (.*), found unknown", error)[1].split(", "))
    heads = re.findall(r"^\.It (.*)$", section(page("tovric-host.5"), place, "Ss"), re.M)
    assert {name for head in heads for name in re.findall(r"Cm (\w+)", head)} == allowed


def test_the_manual_of_described_hosts_has_every_type_of_device():
    api = yaml.safe_load((net_snmp.ROOT / "runtime/hask/api.yaml").read_text())
    devices = {"Vm.Device.VirtualDevice"}
    for declared in api["types"]:       # a type comes after its base
        if declared.get("base") in devices:
            devices.add(declared["name"])
    assert set(re.findall(r"Cm (\w+)", section(page("tovric-host.5"), "Device types", "Ss"))) == \
        {name.rpartition(".")[2] for name in devices}


def test_the_example_of_a_described_host_is_served(start_daemon, tmp_path):
    example = re.search(r"^\.Bd -literal.*?\n(.*?)^\.Ed", section(page("tovric-host.5"), "EXAMPLES"), re.M | re.S)[1]
    (tmp_path / "host.yaml").write_text(example)
    assert "host.yaml: 1 VMs, 1 datastores" in start_daemon(tmp_path / "host.yaml").log_text()


def test_the_manual_of_the_module_has_its_lines_letter_by_letter():
    sources = (net_snmp.ROOT / "apps/snmp").rglob("*.cpp")
    logged = set().union(*(log_lines.in_source(file.read_text()) for file in sources))
    patterns = [".+".join(map(re.escape, text.split(log_lines.PLACEHOLDER))) for text, _ in logged]
    items = re.findall(r"^\.It (.*)$", section(page("SNMPKelv.8"), "DIAGNOSTICS"), re.M)
    assert items
    assert [item for item in items if not any(re.fullmatch(pattern, item) for pattern in patterns)] == []
