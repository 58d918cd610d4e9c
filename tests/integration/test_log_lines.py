"""The log lines that scripts/lint finds in the sources and in the operator's guide."""

import sys

import pytest
import system

sys.path.append(str(system.ROOT / "scripts"))

import log_lines  # noqa: E402

SOURCE = r'''
// spdlog::info("a comment");
spdlog::warn("VM {} (\"{}\") is gone, // not a comment", name, f(a, b));
snmp_log(LOG_ERR, "%s: %lld of " "%d\n", g("x, y"), 1);
Log(logger.Get(), Service::Logger::LogLevel::Error, Tessim::PrintFormatter("lost: %1") << why);
static constexpr const char* bug = "BUG.\n";
snmp_log(LOG_ERR, "%s", bug);
std::fprintf(stderr, "%s:%u failed\n", file, line);
snmp_log(priority, "%s\n", line.c_str());
spdlog::log(line.level, line.text);
void Log(spdlog::level::level_enum level, std::string_view text);
'''

GUIDE = """
| text | level | meaning |
|---|---|---|
| `not a log line` | info | |

| text | level | cause | remedy |
|---|---|---|---|
| `VM … is gone` | warning | it went | none |

| `not in a table` | info | a | b |
"""


def test_a_source_logs_what_its_calls_say_without_what_they_pass_on():
    assert log_lines.in_source(SOURCE) == {
        ('VM … ("…") is gone, // not a comment', "warning"), ("…: … of …", "error"), ("lost: …", "info"),
        ("BUG.", "error"), ("…:… failed", "error")}


@pytest.mark.parametrize("call", [
    'spdlog::info(text);', 'snmp_log(LOG_INFO, text);', 'Log(level, "text");', 'snmp_log(priority, "text\\n");'])
def test_a_call_whose_text_or_level_is_not_found_is_refused(call):
    with pytest.raises(ValueError):
        log_lines.in_source(call)


def test_the_guide_names_the_rows_of_its_tables_of_log_lines():
    assert log_lines.in_guide(GUIDE) == {("VM … is gone", "warning")}


@pytest.mark.parametrize("row", [
    "| `text` | info | cause | |", "| text | info | cause | remedy |", "| `text` | info | cause |",
    "| `text` | info | a | b |\n| `text` | info | c | d |"])
def test_a_row_without_text_cause_or_remedy_or_a_second_one_is_refused(row):
    with pytest.raises(ValueError):
        log_lines.in_guide(f"{log_lines.HEADING}\n|---|---|---|---|\n{row}\n")
