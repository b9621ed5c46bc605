"""Reading the update log."""

import datetime
import re

# The time zone of every run. The odd minutes tell it from UTC and from the machine's own zone.
TZ = "NPT-05:45"
TIME_ZONE = datetime.timezone(datetime.timedelta(hours=5, minutes=45))

_LINE = re.compile(rb"\[(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\]\t\t([^\n]*)")


def log_lines(data):
    """The log's lines as pairs (time, text); a separator is the pair (None, "").

    Every line has to be whole: "[YYYY-MM-DD hh:mm:ss]", two tabs and a text, or nothing at all.
    """
    if not data:
        return []
    assert data.endswith(b"\n"), f"the log ends within a line: {data[-80:]!r}"
    return [_parse(line) for line in data[:-1].split(b"\n")]


def _parse(line):
    if not line:
        return None, ""
    match = _LINE.fullmatch(line)
    assert match, f"not a log line: {line!r}"
    time = datetime.datetime.strptime(match[1].decode(), "%Y-%m-%d %H:%M:%S")
    return time.replace(tzinfo=TIME_ZONE), match[2].decode(errors="surrogateescape")
