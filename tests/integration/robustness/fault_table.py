"""Prints the table of faults from the file that KELV_FAULT_REPORT named during a run of the tests.

    KELV_FAULT_REPORT=/tmp/faults.jsonl /usr/bin/python3 -m pytest -n 3 tests/integration/robustness
    /usr/bin/python3 tests/integration/robustness/fault_table.py /tmp/faults.jsonl
"""

import json
import sys


def milliseconds(seconds):
    return f"{seconds * 1000:.1f}" if seconds < 0.1 else f"{seconds * 1000:.0f}"


def cell(text):
    return str(text).replace("|", "\\|").replace("\x1b", "")


def main(path):
    with open(path, encoding="utf-8") as stream:
        lines = [json.loads(line) for line in stream]
    lines.sort(key=lambda line: line["test"])
    print("| fault | what the agent does | took (ms) | `sysUpTime` p50 / p99 (ms) | test |")
    print("|---|---|---|---|---|")
    for line in lines:
        took = milliseconds(line["seconds"]) if line["seconds"] else "–"
        delays = f"{milliseconds(line['p50'])} / {milliseconds(line['p99'])}" if "p50" in line else "–"
        memory = f" (peak {line['megabytes']} MB)" if "megabytes" in line else ""
        if "resident_kilobytes" in line:
            memory = f" ({line['resident_kilobytes'][0]} kB, {line['resident_kilobytes'][-1]} kB)"
        if "processor" in line:
            took += f" (processor {milliseconds(line['processor'])})"
        print(f"| {cell(line['fault'])} | {cell(line['does'])}{memory} | {took} | {delays} | `{cell(line['test'])}` |")
    print(f"\n{sum(line.get('faults', 1) for line in lines)} faults in {len(lines)} lines.")


if __name__ == "__main__":
    main(sys.argv[1])
