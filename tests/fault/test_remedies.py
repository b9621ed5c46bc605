"""The page says what to do about everything that can stay. Comes after the tests of the faults."""

from faults.tables import remedy_lines


def test_everything_that_can_stay_has_a_remedy(page):
    page.check("remedies", remedy_lines(page.lines()))
