"""What scripts/demo prints, from standard input.

table WIDTH   the output of snmptable, fields separated by U+001F, as aligned columns of at most WIDTH in all
progress      how far the output of ninja says that it is
"""
import re
import sys
import unicodedata

SEPARATOR = "\x1f"
_UNITS = {"megabytes": "MB", "kilobytes": "KB", "seconds": "s"}
_NUMBER = re.compile(r"(-?\d+)(?: (\w+))?|\??")
_INDENT, _GAP = "  ", "  "


def width(text):
    """The places that a text takes on a terminal."""
    shown = [character for character in text if unicodedata.category(character) not in ("Mn", "Me", "Cf")]
    return sum(2 if unicodedata.east_asian_width(character) in "WF" else 1 for character in shown)


def _rows(lines):
    """The heading and the rows; a text may have line ends of its own."""
    rows = []
    for line in lines:
        if rows and (SEPARATOR not in line or rows[-1].count(SEPARATOR) < rows[0].count(SEPARATOR)):
            rows[-1] += "\n" + line
        else:
            rows.append(line)
    return [row.split(SEPARATOR) for row in rows]


def _column(heading, cells):
    """A column's heading and cells, all of one width: numbers to the right, with their unit."""
    cells = [re.sub(r"[\x00-\x1f\x7f-\x9f]", lambda c: rf"\x{ord(c[0]):02x}", cell) for cell in cells]
    numbers = [_NUMBER.fullmatch(cell) for cell in cells]
    is_number = all(numbers) and any(number[1] for number in numbers)
    if is_number:
        cells = [f"{found[1]} {_UNITS.get(found[2], found[2])}" if found[2] else found[0] for found in numbers]
    widest = max(map(width, [heading, *cells]))
    padded = [" " * (widest - width(cell)) for cell in cells]
    return [heading + " " * (widest - width(heading))] + [
        space + cell if is_number else cell + space for space, cell in zip(padded, cells)]


def table(text, most):
    """The lines of a table. One that is too wide goes on below, with its first column again."""
    lines = text.rstrip("\n").split("\n")
    if lines[0].startswith("SNMP table"):
        lines = lines[2:]
    if not lines or SEPARATOR not in lines[0]:
        return [_INDENT + ("(none)" if line.endswith(": No entries") else line) for line in lines]
    heading, *rows = _rows(lines)
    first, *others = [_column(name, cells) for name, *cells in zip(heading, *rows)]
    printed = []
    while others:
        part = [first, others.pop(0)]
        while others and sum(width(column[0]) + len(_GAP) for column in [*part, others[0]]) <= most:
            part.append(others.pop(0))
        printed += [_INDENT + "(continued)"] if printed else []
        printed += [(_INDENT + _GAP.join(line)).rstrip() for line in zip(*part)]
    return printed


def progress(lines, write, is_terminal):
    """Writes how far a build is: on one line of a terminal, else a line for every tenth."""
    tenths, end = 0, ""
    for line in lines:
        step = re.match(r"\[(\d+)/(\d+)\] ", line)
        if not step:
            continue
        done, count = int(step[1]), int(step[2])
        text = f"{_INDENT}[{done}/{count}] {100 * done // count} %"
        if is_terminal:
            write("\r" + text)
            end = "\n"
        elif 10 * done // count > tenths:
            tenths = 10 * done // count
            write(text + "\n")
    write(end)


def main():
    for stream in (sys.stdin, sys.stdout):
        stream.reconfigure(encoding="utf-8", errors="replace")
    if sys.argv[1] == "progress":
        def write(text):
            print(text, end="", flush=True)

        progress(sys.stdin, write, sys.stdout.isatty())
    else:
        print(*table(sys.stdin.read(), int(sys.argv[2])), sep="\n")


if __name__ == "__main__":
    main()
