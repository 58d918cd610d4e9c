"""The report of the robustness tests: each fault, what the agent does about it, how long that took."""


def milliseconds(seconds):
    return f"{seconds * 1000:.1f}" if seconds < 0.1 else f"{seconds * 1000:.0f}"


def cell(text):
    return str(text).replace("|", "\\|").replace("\x1b", "")


def row(line):
    took = milliseconds(line["seconds"]) if line["seconds"] else "–"
    delays = f"{milliseconds(line['p50'])} / {milliseconds(line['p99'])}" if "p50" in line else "–"
    memory = f" (peak {line['megabytes']} MB)" if "megabytes" in line else ""
    if "resident_kilobytes" in line:
        memory = f" (resident {line['resident_kilobytes'][0]} kB, then {line['resident_kilobytes'][-1]} kB; " \
                 f"heap {line['heap_bytes'][0]} bytes, then {line['heap_bytes'][-1]} bytes)"
    if "processor" in line:
        took += f" (processor {milliseconds(line['processor'])})"
    return f"| {cell(line['fault'])} | {cell(line['does'])}{memory} | {took} | {delays} | `{cell(line['test'])}` |"


def write(lines, path):
    """Writes the table of what watch.report noted in a run, as Markdown."""
    lines = sorted(lines, key=lambda line: line["test"])
    path.parent.mkdir(parents=True, exist_ok=True)
    faults = sum(line.get("faults", 1) for line in lines)
    path.write_text("\n".join([
        "# Faults", "",
        "\"took\" is the time of the slowest request that met the fault, or the average of many;"
        " the delays are those of `sysUpTime`",
        "from the start of the fault to its end. Delays and times are those of the computer that ran the tests.", "",
        "| fault | what the agent does | took (ms) | `sysUpTime` p50 / p99 (ms) | test |", "|---|---|---|---|---|",
        *map(row, lines), "", f"{faults} faults in {len(lines)} lines.", ""]), encoding="utf-8")
