"""The texts that module and daemon log: what the sources have, and what the operator's guide has."""
import re

PLACEHOLDER = "…"
# The heading of the guide's tables of log lines.
HEADING = "| text | level | cause | remedy |"

_LEVELS = {
    "trace": "debug", "debug": "debug", "info": "info", "notice": "notice", "warn": "warning", "warning": "warning",
    "err": "error", "error": "error", "crit": "critical", "critical": "critical",
}
_CALL = re.compile(r"\b(?:spdlog::(?P<level>trace|debug|info|warn|error|critical)|(?P<file>fprintf)|"
                   r"(?P<agent>snmp_log)|spdlog::log|Log)\s*\(")
_LEVEL = re.compile(r"(?:(?:\w+::)*(LogLevel|level)::|LOG_)(\w+)")
_LITERAL = r'"(?:[^"\\]|\\.)*"'
_PLACEHOLDERS = re.compile(r"\{[^{}]*\}|%\d+|%(?:ll|l|z)?[a-z]")


def _without_comments(source):
    return re.sub(rf"({_LITERAL})|//[^\n]*|/\*.*?\*/", lambda match: match[1] or " ", source, flags=re.DOTALL)


def _arguments(source, start):
    """The arguments of a call, from behind its opening parenthesis."""
    arguments, depth = [], 0
    for token in re.compile(rf"{_LITERAL}|'(?:[^'\\]|\\.)'|[()\[\]{{}},]", re.DOTALL).finditer(source, start):
        depth += (token[0] in "([{") - (token[0] in ")]}")
        if depth < 0 or (depth == 0 and token[0] == ","):
            arguments.append(source[start:token.start()].strip())
            start = token.end()
        if depth < 0:
            break
    return arguments


def _text(argument, source):
    """The text of a literal, of literals in a row or of a constant; None for anything else."""
    constant = re.search(rf"\bconst char\* {re.escape(argument)} =\s*({_LITERAL})", source)
    start = rf"(?:(?:Tessim::)?PrintFormatter\()?((?:{_LITERAL}\s*)+)"
    literals = re.match(start, constant[1] if constant else argument)
    if not literals:
        return None
    text = "".join(literal[1:-1] for literal in re.findall(_LITERAL, literals[1]))
    return text.replace('\\"', '"').removesuffix("\\n")


def in_source(source):
    """The (text, level) of every line that a C++ source logs; ValueError for a call whose text or level is not found.

    A line that is passed on as it is ("%s") belongs to the call that made it.
    """
    found = set()
    source = _without_comments(source)
    for call in _CALL.finditer(source):
        arguments = _arguments(source, call.end())
        level, texts = call["level"], arguments
        if call["file"]:
            level, texts = "error", arguments[1:]
        for index, argument in enumerate([] if level else arguments):
            match = _LEVEL.fullmatch(argument)
            if match:
                # The module's writer has one level for whatever the runtime logs.
                level, texts = "info" if match[1] == "LogLevel" else match[2].lower(), arguments[index + 1:]
                break
        text = _text(texts[0], source) if level else next(filter(None, (_text(each, source) for each in texts)), None)
        if text == "%s":
            text = _text(texts[-1], source)
            if text is None:
                continue
        if (text is None) != (level is None):
            raise ValueError(f"a log call without text or level: {call[0]}{', '.join(arguments)})")
        if text is not None:
            found.add((_PLACEHOLDERS.sub(PLACEHOLDER, text), _LEVELS[level]))
    return found


def in_guide(document):
    """The (text, level) of every row in the tables of log lines of a Markdown document; ValueError for another row."""
    found, within = set(), False
    for line in document.splitlines():
        if line == HEADING or not line.startswith("|"):
            within = line == HEADING
        elif within and not line.startswith("|---"):
            row = re.fullmatch(r"\| `(.+?)` \| (\w+) \| \S.* \| \S.* \|", line)
            if not row or (row[1], row[2]) in found:
                raise ValueError(f"not a row of a log line, or the second one: {line}")
            found.add((row[1], row[2]))
    return found
