"""The topics by their names in src/topics.h, such as TOPICS["LISTS_FILTER"]."""
import re
from pathlib import Path

_HEADER = Path(__file__).resolve().parent.parent.parent / "src" / "topics.h"
TOPICS = dict(re.findall(r'^constexpr .*\b([A-Z0-9_]+) = "([^"]*)";', _HEADER.read_text(encoding="utf-8"), re.M))
