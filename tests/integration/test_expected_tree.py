"""The expected tree itself, on cases computed by hand."""

import expected_tree
import mib
import pytest
import system
from expected_tree import Between, Instance


def values(host, name, **how):
    """A column's values by index, a scalar's by (0,)."""
    oid = mib.objects()[name].oid
    return {i.oid[len(oid):]: i.value for i in expected_tree.tree(host, **how) if i.oid[:len(oid)] == oid}


def row(host, index, *names):
    """The values of some columns in one row."""
    return [values(host, name)[index] for name in names]


OPERATIONS = ["diskNumRead", "diskRead", "diskNumWrite", "diskWrite"]
NARROW = ["netPktTx", "netTx", "netPktRx", "netRx"]
WIDE = ["netHCPktTx", "netHCTx", "netHCPktRx", "netHCRx"]


@pytest.fixture(scope="module")
def small():
    return expected_tree.load(system.HOSTS / "small.yaml")


def test_the_small_host_has_the_rows_that_a_reader_counts(small):
    assert row(small, (0,), "prodName", "prodVersion", "prodBuild") == [b"Tovric Kelv Server", b"3.0.2", b"13638"]
    assert values(small, "prodOID") == {(0,): mib.oids()["kelvServer"] + (3, 0, 2)}
    assert values(small, "vmConfigFile") == {
        (0,): b"/volumes/4a5b/web-1/web-1.cfg", (1,): b"/volumes/4a5b/backup/backup.cfg"}
    assert values(small, "hbaType") == {(0, 0): b"lsilogic", (1, 0): b"buslogic"}
    assert values(small, "cdBacking") == {(0, 0): b"remote device backing"}
    assert values(small, "fdConnected") == {(0, 0): b"false"}
    assert values(small, "cpuVMID") == {(16,): 16, (17,): 17}
    assert values(small, "memConfiguredKB") == {(16,): 524288}
    assert values(small, "netHCPktTx", elapsed=3) == {(1,): Between(4294967301, 4294967301 + 270, 64)}
    assert values(small, "netPktTx", elapsed=3) == {(1,): Between(5, 275, 32)}


def test_the_reservation_counts_in_bytes_once(small):
    assert values(small, "memReserved", first=True) == {(0,): 285212672}
    assert values(small, "memReserved") == {(0,): 278528}
    assert values(small, "memUnreserved") == {(0,): 1818624}


def test_instances_are_in_the_order_of_a_walk(small):
    oids = [i.oid for i in expected_tree.tree(small)]
    assert oids == sorted(set(oids))


def test_the_first_row_of_an_index_stands():
    host = expected_tree.load(system.HOSTS / "every-device.yaml")
    assert values(host, "tgtLabel")[(0, 3)] == b"Hard Disk 2"
    host = expected_tree.load(system.HOSTS / "resources.yaml")
    assert values(host, "cpuShares")[(17,)] == 0          # the second processor of VM 16, not VM 17
    assert values(host, "memShares")[(0xffffffff,)] == 11


def test_a_row_needs_every_column_unless_the_table_is_partial():
    cells = {"fdVmIdx": 1, "fdUnit": 0, "fdBacking": "a"}
    with pytest.raises(AssertionError, match="fdConnected"):
        expected_tree.Table("floppyTable").add(**cells)
    with pytest.raises(AssertionError, match="fdColour"):
        expected_tree.Table("floppyTable", partial=True).add(**cells, fdColour="b")
    partial = expected_tree.Table("floppyTable", partial=True)
    partial.add(**cells)
    *_, backing, unread = partial.instances()
    assert backing == Instance(mib.oid("fdBacking", 1, 0), "OCTET STRING", b"a")
    assert unread == Instance(mib.oid("fdConnected", 1, 0), "OCTET STRING", b"anything")
    assert unread != Instance(mib.oid("fdConnected", 1, 0), "INTEGER", 1)


def test_the_sample_hosts_hold_the_edges_of_the_statistics():
    host = expected_tree.load(system.HOSTS / "resources.yaml")
    assert values(host, "numCpuCores") == {(0,): 40000 - 65536}
    assert values(expected_tree.load(system.HOSTS / "many-cores.yaml"), "numCpuCores") == {(0,): 0}
    # VMs 3, 16, suspended 17 and the two without a number; 15 is powered off.
    assert values(host, "cpuUsedSec") == {
        (0,): 2, (1,): 3, (3,): 0, (16,): 2, (17,): 2147483, (18,): 0, (0xffffffff,): 1}
    assert values(host, "memConfiguredKB") == {
        (0,): 2047 * 1024, (3,): -2147483648, (16,): 524288, (17,): 3000000 * 1024 - (1 << 32),
        (2147483647,): 4096, (0xffffffff,): 1024}
    assert values(host, "memActive") == {
        (0,): -1, (3,): 0, (16,): -2147483648, (17,): 5, (2147483647,): -1, (0xffffffff,): 13}
    # On a device, on the cluster datastore, six of unknown name, another VM's; one on another datastore has no row.
    names = [b"disk-1:0", b"disk-0:0", *[b"unknown"] * 6, b"disk-0:0"]
    shares = [1000, 2000, 4000, 0, 6000, 7000, 8000, 9000, 12]
    assert values(host, "diskName") == {(n,): name for n, name in enumerate(names, 1)}
    assert values(host, "diskShares") == {(n,): share for n, share in enumerate(shares, 1)}
    assert row(host, (2,), *OPERATIONS) == [-1, 0, 5, 0]
    assert row(host, (3,), "netName", "netPktTx") == [b"unknown", 1]
    assert row(host, (4,), "netMac") == [b"SNMP Error"]
    assert set(values(host, "netSpare").values()) == {0}
    narrow = [row(host, (card,), *NARROW) for card in (1, 2, 7)]
    assert narrow == [[0, 2147483647, -2147483648, 1], [-1, 0, 5, 0], [-1] * 4]
    wide = [row(host, (card,), *WIDE) for card in (1, 2, 7)]
    assert wide == [[0, 2**31 - 1, 2**31, 1], [2**32 - 1, 2**32, 2**32 + 5, 2**62], [2**64 - 1] * 4]


def test_the_first_counter_of_a_name_in_the_catalogue_has_the_statistics():
    host = expected_tree.load(system.HOSTS / "catalogue.yaml")
    names = [f"{c['group']}.{c['name']}" for c in host["counters"]]
    keys = [int(c["key"]) for c in host["counters"] if (c["group"], c["name"]) == ("cpu", "used")]
    assert keys == [91, 7] and "disk.numberWrite" not in names
    assert values(host, "cpuUsedSec") == {(5,): 5, (6,): 6}
    assert row(host, (1,), *OPERATIONS) == [11, 22, -1, 44]


def test_a_vm_without_a_configuration_is_skipped():
    host = expected_tree.load(system.HOSTS / "every-device.yaml")
    assert len(expected_tree.vms_shown(host)) == len(host["vms"]) - 1
    assert values(host, "vmVMID")[(1,)] == -1


@pytest.mark.parametrize("path, pairs, expected", [
    ("[storage1] vm/vm.cfg", [("storage1", "/volumes/4a5b/")], "/volumes/4a5b/vm/vm.cfg"),
    ("[storage1] vm/vm.cfg", [("storage1", "/volumes/4a5b")], "/volumes/4a5bvm/vm.cfg"),
    ("[ storage1 ]  vm.cfg  ", [("storage1", "/v/")], "/v/vm.cfg"),
    ("[] vm.cfg", [("", "/v/")], "vm.cfg"),
    ("vm.cfg", [("storage1", "/v/")], "vm.cfg"),
    ("[storage1 vm.cfg", [("storage1 vm.cfg", "/v/")], "[storage1 vm.cfg"),
    ("x [s] y", [("s", "/v/")], "/v/y"),
    ("[S] y", [("s", "/v/")], "[S] y"),
    ("[s] y", [("s", "/1/"), ("s", "/2/")], "/1/y"),
])
def test_datastore_paths_are_found_on_the_host(path, pairs, expected):
    config = {"files": {"vmPathName": path}, "datastoreUrl": [{"name": n, "url": u} for n, u in pairs]}
    assert expected_tree.path_on_host(config, {"id": "1"}) == expected


def test_a_vm_without_a_path_shows_its_id():
    assert expected_tree.path_on_host({"files": {}}, {"id": "42"}) == "Unknown config: 42"


@pytest.mark.parametrize("milliseconds, expected", [
    (2900, 2), (-500, 0), (-1, 0), (-1000, -1), (181000, 181),
    (2147483647, 2147483), (4294967296 + 5000, 5), (2147483648, -2147483)])
def test_processor_time_is_whole_seconds_toward_zero(milliseconds, expected):
    assert expected_tree.seconds(milliseconds) == expected


@pytest.mark.parametrize("text, expected", [
    ("16", 16), ("-7", -7), ("web", -1), ("", -1), ("1x", -1),
    ("2147483647", 2147483647), ("2147483648", -1), ("+16", -1)])
def test_identifiers_are_32_bit_numbers_or_minus_one(text, expected):
    assert expected_tree.vm_id({"id": text}) == expected


def test_running_numbers_wrap():
    near_the_end = Between(2147483640, 2147483650, 32)
    assert near_the_end == 2147483647
    assert near_the_end == -2147483647
    assert not near_the_end == 2147483639
    assert not near_the_end == -2147483645
    assert not Between(5, 7) == 8


def test_texts_are_truncated_before_a_character_that_does_not_fit():
    assert expected_tree.truncate("x" * 3000, 2559) == b"x" * 2559
    assert expected_tree.truncate("é" * 1280, 2559) == "é".encode() * 1279


def test_a_wrong_value_differs_from_the_right_one():
    right = Instance((1, 3), "INTEGER", 5)
    assert right != Instance((1, 3), "INTEGER", 6)
    assert right != Instance((1, 3), "Counter64", 5)
