"""A ring that falls into two parts, and heals."""
import time

import pytest
from panel import SUMMARY_TOPICS, wait_until

PARTS = [(1, 4), (2, 3)]


@pytest.mark.limit(170)
def test_lost_part_is_forgotten_too_early_or_never_or_stays_lost(make_lab):
    lab = make_lab(4)
    pairs = [(seer, seen) for part in PARTS for seer in part for seen in lab.nodes if seen not in part]

    def all_see(expected, limit):
        for seer, seen in pairs:
            lab[seer].await_topics({f"pub/diag/{lab[seen].mac}/{name}": text for name, text in expected.items()}, limit)

    for node in lab.nodes.values():
        node.watch()
    all_see({"job_rev": b"1"}, 75)

    lab.run("cut", 1, "B")
    lab.run("cut", 3, "B")
    cut = time.monotonic()
    gone = {name: None for name in SUMMARY_TOPICS}
    all_see(gone, 90)
    # A node was last heard at most 15 s before the cut, and is looked for at least every 15 s.
    assert 19 < time.monotonic() - cut < 56
    # What is left is what was never withdrawn, and lists of the own part only.
    for part in PARTS:
        for seer in part:
            topics = lab[seer].retained()
            for seen in set(lab.nodes) - set(part):
                assert {topic.rpartition("/")[2] for topic in topics if lab[seen].mac in topic} == {
                    "software_versions",
                    "fire_ip",
                }
            down = topics["pub/diag/net/fire/link_down"]
            assert sorted(down[i + 6] for i in range(0, len(down), 8)) == sorted(part)

    lab.run("mend", 1, "B")
    lab.run("mend", 3, "B")
    # Regular summaries come every 15 s, and bring most topics back.
    all_see({"repeater": b"0"}, 45)
    for node in lab.nodes.values():
        wait_until(lambda: node.retained()["pub/diag/net/fire/link_down"] == b"\0", 30, node.retained)
