"""The expected tree itself, on cases worked out by hand."""

import expected_tree
import pytest
import system
from expected_tree import ENTERPRISE, Between, Instance


def values(host, *suffix, **how):
    base = ENTERPRISE + suffix
    return {i.oid[len(base):]: i.value for i in expected_tree.tree(host, **how) if i.oid[:len(base)] == base}


@pytest.fixture(scope="module")
def small():
    return expected_tree.load(system.HOSTS / "small.yaml")


def test_the_small_host_has_the_rows_that_a_reader_counts(small):
    assert values(small, 1) == {(1, 0): b"Tovric Kelv Server", (2, 0): b"3.0.2", (3, 0): ENTERPRISE + (60, 1, 3, 0, 2), (4, 0): b"13638"}
    assert values(small, 2, 1, 1, 3) == {(0,): b"/volumes/4a5b/web-1/web-1.cfg", (1,): b"/volumes/4a5b/backup/backup.cfg"}
    assert values(small, 2, 2, 1, 4) == {(0, 0): b"lsilogic", (1, 0): b"buslogic"}
    assert values(small, 2, 6, 1, 3) == {(0, 0): b"remote device backing"}
    assert values(small, 2, 5, 1, 4) == {(0, 0): b"false"}
    assert values(small, 3, 1, 2, 1, 1) == {(16,): 16, (17,): 17}
    assert values(small, 3, 2, 4, 1, 3) == {(16,): 524288}
    assert values(small, 3, 4, 1, 10, elapsed=3) == {(1,): Between(4294967301, 4294967301 + 270, 64)}
    assert values(small, 3, 4, 1, 6, elapsed=3) == {(1,): Between(5, 275, 32)}


def test_the_reservation_counts_in_bytes_once(small):
    assert values(small, 3, 2, 2, first=True) == {(0,): 285212672}
    assert values(small, 3, 2, 2) == {(0,): 278528}
    assert values(small, 3, 2, 3) == {(0,): 1818624}


def test_instances_are_in_the_order_of_a_walk(small):
    oids = [i.oid for i in expected_tree.tree(small)]
    assert oids == sorted(set(oids))


def test_the_first_row_of_an_index_stands():
    host = expected_tree.load(system.HOSTS / "every-device.yaml")
    assert values(host, 2, 3, 1, 3)[(0, 3)] == b"Hard Disk 2"
    host = expected_tree.load(system.HOSTS / "resources.yaml")
    assert values(host, 3, 1, 2, 1, 2)[(17,)] == 0          # the second processor of machine 16, not machine 17
    assert values(host, 3, 2, 4, 1, 2)[(0xffffffff,)] == 11


def test_the_sample_hosts_hold_the_edges_of_the_figures():
    host = expected_tree.load(system.HOSTS / "resources.yaml")
    assert values(host, 3, 1, 1) == {(0,): 40000 - 65536}
    assert values(expected_tree.load(system.HOSTS / "many-cores.yaml"), 3, 1, 1) == {(0,): 0}
    # Machines 3, 16, suspended 17 and the two without a number; 15 is powered off.
    assert values(host, 3, 1, 2, 1, 3) == {(0,): 2, (1,): 3, (3,): 0, (16,): 2, (17,): 2147483, (18,): 0, (0xffffffff,): 1}
    assert values(host, 3, 2, 4, 1, 3) == {(0,): 2047 * 1024, (3,): -2147483648, (16,): 524288, (17,): 3000000 * 1024 - (1 << 32),
                                           (2147483647,): 4096, (0xffffffff,): 1024}
    assert values(host, 3, 2, 4, 1, 4) == {(0,): -1, (3,): 0, (16,): -2147483648, (17,): 5, (2147483647,): -1, (0xffffffff,): 13}
    # On a device, on the cluster datastore, six of unknown name, then another machine's; one on another datastore has no row.
    assert values(host, 3, 3, 1, 2) == {(n,): name for n, name in enumerate([b"disk-1:0", b"disk-0:0", *[b"unknown"] * 6, b"disk-0:0"], 1)}
    assert values(host, 3, 3, 1, 4) == {(n,): s for n, s in enumerate([1000, 2000, 4000, 0, 6000, 7000, 8000, 9000, 12], 1)}
    assert [values(host, 3, 3, 1, n)[(2,)] for n in (5, 6, 7, 8)] == [-1, 0, 5, 0]
    assert values(host, 3, 4, 1, 2)[(3,)] == b"unknown" and values(host, 3, 4, 1, 6)[(3,)] == 1
    assert values(host, 3, 4, 1, 4)[(4,)] == b"SNMP Error"
    assert set(values(host, 3, 4, 1, 5).values()) == {0}
    narrow = [values(host, 3, 4, 1, n)[(card,)] for card in (1, 2, 7) for n in (6, 7, 8, 9)]
    assert narrow == [0, 2147483647, -2147483648, 1, -1, 0, 5, 0, -1, -1, -1, -1]
    wide = [values(host, 3, 4, 1, n)[(card,)] for card in (1, 2, 7) for n in (10, 11, 12, 13)]
    assert wide == [0, 2**31 - 1, 2**31, 1, 2**32 - 1, 2**32, 2**32 + 5, 2**62, *[2**64 - 1] * 4]


def test_the_first_counter_of_a_name_in_the_catalogue_has_the_figures():
    host = expected_tree.load(system.HOSTS / "catalogue.yaml")
    names = [f"{c['group']}.{c['name']}" for c in host["counters"]]
    keys = [int(c["key"]) for c in host["counters"] if (c["group"], c["name"]) == ("cpu", "used")]
    assert keys == [91, 7] and "disk.numberWrite" not in names
    assert values(host, 3, 1, 2, 1, 3) == {(5,): 5, (6,): 6}
    assert [values(host, 3, 3, 1, n)[(1,)] for n in (5, 6, 7, 8)] == [11, 22, -1, 44]


def test_a_machine_without_a_configuration_is_passed_over():
    host = expected_tree.load(system.HOSTS / "every-device.yaml")
    assert len(expected_tree.machines(host)) == len(host["vms"]) - 1
    assert values(host, 2, 1, 1, 7)[(1,)] == -1


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


def test_a_machine_without_a_path_shows_its_id():
    assert expected_tree.path_on_host({"files": {}}, {"id": "42"}) == "Unknown config: 42"


@pytest.mark.parametrize("milliseconds, expected", [
    (2900, 2), (-500, 0), (-1, 0), (-1000, -1), (181000, 181), (2147483647, 2147483), (4294967296 + 5000, 5), (2147483648, -2147483)])
def test_processor_time_is_whole_seconds_toward_zero(milliseconds, expected):
    assert expected_tree.seconds(milliseconds) == expected


@pytest.mark.parametrize("text, expected", [
    ("16", 16), ("-7", -7), ("web", -1), ("", -1), ("1x", -1), ("2147483647", 2147483647), ("2147483648", -1), ("+16", -1)])
def test_identifiers_are_32_bit_numbers_or_minus_one(text, expected):
    assert expected_tree.vm_id({"id": text}) == expected


def test_running_figures_wrap():
    near_the_end = Between(2147483640, 2147483650, 32)
    assert near_the_end == 2147483647
    assert near_the_end == -2147483647
    assert not near_the_end == 2147483639
    assert not near_the_end == -2147483645
    assert not Between(5, 7) == 8


def test_texts_are_cut_before_a_character_that_does_not_fit():
    assert expected_tree.cut("x" * 3000) == b"x" * 2559
    assert expected_tree.cut("é" * 1280) == "é".encode() * 1279


def test_a_wrong_value_is_told_from_the_right_one():
    right = Instance(ENTERPRISE, "INTEGER", 5)
    assert right != Instance(ENTERPRISE, "INTEGER", 6)
    assert right != Instance(ENTERPRISE, "Counter64", 5)
