"""The tables and the progress line of the demonstration."""

import sys

import pytest
import system

sys.path.append(str(system.ROOT / "scripts"))

import demo_output  # noqa: E402


def table(*rows, most=200):
    text = "".join("|".join(row) + "\n" for row in rows).replace("|", demo_output.SEPARATOR)
    return demo_output.table("SNMP table: TOVRIC-KELV-MIB::vmTable\n\n" + text, most)


@pytest.mark.parametrize("text, places", [
    ("", 0), ("web-1", 5), ("Größe", 5), ("Gro\u0308ße", 5), ("日本語", 6), ("ﾆﾎﾝ", 3), ("Ｗ", 2), ("🐧", 2),
    ("a\u200db", 2)])
def test_the_width_of_a_text_is_that_on_a_terminal(text, places):
    assert demo_output.width(text) == places


def test_columns_are_aligned_and_numbers_have_units():
    assert table(["vmIdx", "vmDisplayName", "vmMemSize", "used"],
                 ["0", "日本語", "2048 megabytes", "7 seconds"],
                 ["1", "Gro\u0308ße", "512 megabytes", "-1 seconds"],
                 ["10", "web-1", "?", "3 packets"]) == [
        "  vmIdx  vmDisplayName  vmMemSize  used",
        "      0  日本語           2048 MB        7 s",
        "      1  Gro\u0308ße             512 MB       -1 s",
        "     10  web-1                  ?  3 packets"]


def test_a_text_that_looks_like_a_number_stays_as_it_is_among_others():
    assert table(["vmDisplayName", "vmState"], ["512 megabytes", "on"], ["web", "off"]) == [
        "  vmDisplayName  vmState", "  512 megabytes  on", "  web            off"]


def test_control_characters_are_escaped_also_line_ends():
    assert table(["tgtUnit", "tgtLabel"], ["0", "a\tb\n\nc"], ["1", "d\x1b[1m"]) == [
        "  tgtUnit  tgtLabel", r"        0  a\x09b\x0a\x0ac", r"        1  d\x1b[1m"]


def test_a_table_that_is_too_wide_goes_on_below_with_its_first_column():
    assert table(["idx", "first", "second", "third"], ["1", "日本語", "b", "c"], most=20) == [
        "  idx  first", "    1  日本語", "  (continued)", "  idx  second  third", "    1  b       c"]


@pytest.mark.parametrize("text, line", [
    ("TOVRIC-KELV-MIB::floppyTable: No entries\n", "  (none)"), ("Timeout: No Response\n", "  Timeout: No Response")])
def test_what_is_no_table_is_shown(text, line):
    assert demo_output.table(text, 80) == [line]


BUILD = ["-- Configuring done", *(f"[{done}/40] Building x.o" for done in range(1, 41)), "not [41/40]"]


def progress(is_terminal):
    written = []
    demo_output.progress(BUILD, written.append, is_terminal)
    return "".join(written)


def test_progress_is_one_line_of_a_terminal():
    assert progress(True) == "".join(f"\r  [{done}/40] {100 * done // 40} %" for done in range(1, 41)) + "\n"


def test_progress_is_a_line_for_every_tenth_elsewhere():
    assert progress(False) == "".join(f"  [{done}/40] {100 * done // 40} %\n" for done in range(4, 41, 4))
