"""The page says what to do about everything that can remain. Runs after the other fault tests."""

from faults.tables import remedy_lines


def test_everything_that_can_remain_has_a_remedy(page):
    page.check("remedies", remedy_lines(page.lines()))
