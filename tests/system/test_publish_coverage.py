"""norvak_publish coverage: which kernels of a fleet find modules in a tree."""

import base64
import http.server
import json
import pathlib
import re
import shutil
import threading

import jsonschema
import pytest

from harness.kernel import FIRST, MODULES, QUORIN, TESSEL

_PROJECT = pathlib.Path(__file__).resolve().parents[2]
_SCHEMA = json.loads((_PROJECT / "docs/norvak_publish-coverage.schema.json").read_text())
_REAL_KERNELS = _PROJECT / "tests/data/real_kernels.tsv"

HEADER = "distribution,machine,release,count\n"
EL5 = "centos-xen/x64/2.6.18-164"
EL6 = "centos/x64/2.6.32-431"
EL7 = "centos/x64/3.10.0-1160"
SUSE = "suse/x64/3.0.101-63-XEN"
FLEET = HEADER + """\
centos,x86_64,2.6.32-431.el6.x86_64,20
centos,x86_64,3.10.0-1160.el7.x86_64,5
centos,x86_64,2.6.18-164.el5xen,7
centos,x86_64,3.10.0-1160.119.1.el7.x86_64,90
suse,x86_64,3.0.101-63-xen,3
"""


class Fleet:
    """A tree, a fleet, and reports on them."""

    def __init__(self, publisher):
        self._publisher = publisher
        self.tree = publisher.tree
        self.file = publisher.scratch / "fleet"

    def publish(self, directory, *names):
        for name in names or MODULES:
            target = self.tree / "kernels" / directory / name
            target.mkdir(parents=True)
            (target / "md5").touch()
            (target / f"{name}.ko").touch()

    def run(self, text, *options):
        self.file.write_text(text)
        return self._publisher.run("coverage", "--fleet", self.file, *options)

    def report(self, text):
        run = self.run(text, "--json")
        assert (run.returncode, run.stderr) == (0, "")
        report = json.loads(run.stdout)
        jsonschema.validate(report, _SCHEMA)
        return report


@pytest.fixture
def fleet(publisher):
    return Fleet(publisher)


def publish_most(fleet):
    """All but the kernel of SUSE, and an incomplete one."""
    fleet.publish(EL7)
    fleet.publish(EL6)
    fleet.publish(EL5, FIRST, QUORIN)


def test_the_worst_comes_first(fleet):
    publish_most(fleet)
    report = fleet.report(FLEET)
    assert (report["hosts"], report["uncovered_hosts"]) == (125, 10)
    found = [(row["directory"], row["hosts"], row["missing"], row["shared"])
             for row in report["directories"]]
    assert found == [(f"kernels/{EL5}", 7, [TESSEL], False),
                     (f"kernels/{SUSE}", 3, list(MODULES), False),
                     (f"kernels/{EL7}", 95, [], True),
                     (f"kernels/{EL6}", 20, [], False)]
    assert [(of["release"], of["hosts"]) for of in report["directories"][2]["kernels"]] == [
        ("3.10.0-1160.119.1.el7.x86_64", 90), ("3.10.0-1160.el7.x86_64", 5)]


def test_the_report_is_printed_for_people(fleet):
    publish_most(fleet)
    run = fleet.run(FLEET)
    assert (run.returncode, run.stderr) == (0, "")
    assert run.stdout.splitlines() == [
        f"         7  kernels/{EL5}: without {TESSEL}",
        f"         3  kernels/{SUSE}: missing",
        f"        95  kernels/{EL7}: complete",
        "              3.10.0-1160.119.1.el7.x86_64 (x86_64): 90",
        "              3.10.0-1160.el7.x86_64 (x86_64): 5",
        f"        20  kernels/{EL6}: complete",
        "10 of 125 hosts have no complete set of modules"]


def test_a_module_without_its_list_is_missing(fleet):
    fleet.publish(EL6)
    (fleet.tree / "kernels" / EL6 / TESSEL / "md5").unlink()
    assert fleet.report(FLEET)["directories"][0]["missing"] == list(MODULES)
    row = next(row for row in fleet.report(FLEET)["directories"]
               if row["directory"] == f"kernels/{EL6}")
    assert row["missing"] == [TESSEL]


def test_hosts_request_the_directories_that_are_agreed_on(fleet):
    """The table that the tests of the updater use."""
    rows = [line.split("\t") for line in _REAL_KERNELS.read_text().splitlines()
            if line and not line.startswith("#")]
    text = HEADER + "".join(f"{row[0]},{row[1]},{row[2]},1\n" for row in rows)
    found = {(of["distribution"], of["machine"], of["release"]): row["directory"]
             for row in fleet.report(text)["directories"] for of in row["kernels"]}
    assert found == {tuple(row[:3]): f"kernels/{row[3]}" for row in rows}


def test_hosts_identify_themselves(fleet, host):
    """The fleet can be the output of norvak_host identify --json, one host a line."""
    host.write("suse", "")
    uname = {"NORVAK_TEST_MACHINE": "x86_64", "NORVAK_TEST_RELEASE": "3.0.101-63-xen"}
    line = host.inspect("identify", "--json", uname=uname).stdout.decode()
    report = fleet.report(line * 3)
    assert [(row["directory"], row["hosts"]) for row in report["directories"]] == [
        (f"kernels/{SUSE}", 3)]


def test_a_fleet_that_is_not_understood_is_refused(fleet):
    run = fleet.run(HEADER + "debian,x86_64,6.1.0,1\n")
    assert (run.returncode, run.stdout) == (2, "")
    assert run.stderr == (f"norvak_publish: {fleet.file}, line 2: the distribution is neither centos "
                          "nor suse nor ubuntu\n")


def test_a_page_that_cannot_be_written_is_reported(fleet):
    run = fleet.run(FLEET, "--html", fleet.tree / "missing/page.html")
    assert (run.returncode, run.stdout) == (2, "")
    assert "missing/page.html" in run.stderr


# The page, in a browser.


@pytest.fixture
def page(fleet):
    publish_most(fleet)
    path = fleet.file.parent / "www/coverage.html"
    path.parent.mkdir()
    run = fleet.run(FLEET + "suse,x86_64,3.0.101-63-<b>&amp;\"-xen,1\n", "--html", path)
    assert (run.returncode, run.stdout, run.stderr) == (0, "", "")
    return path


def test_the_page_refers_to_nothing_else(page):
    text = page.read_text()
    references = re.findall(r'(?:href|src)="([^"]*)"', text) + re.findall(r"url\(|@import", text)
    assert references == ["data:,", "#directories", "#shared"]
    assert "<script" not in text


class _Handler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *arguments):
        self.server.requests.append(self.path)


@pytest.fixture
def web(page):
    """Serves the page; `requests` are the paths that were requested."""
    def handler(*arguments):
        return _Handler(*arguments, directory=page.parent)
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler) as server:
        server.requests = []
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        yield server
        server.shutdown()
        thread.join()


@pytest.fixture
def browser(web):
    """A headless Chromium that shows the page."""
    webdriver = pytest.importorskip("selenium.webdriver", reason="no python3-selenium")
    from selenium.webdriver.chrome.service import Service
    programs = [shutil.which(name) for name in ("chromium", "chromedriver")]
    if not all(programs):
        pytest.skip("no chromium with chromium-driver")
    options = webdriver.ChromeOptions()
    options.binary_location = programs[0]
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service(programs[1]), options=options)
    driver.get(f"http://127.0.0.1:{web.server_port}/coverage.html")
    yield driver
    assert driver.get_log("browser") == []
    assert web.requests == ["/coverage.html"]
    driver.quit()


def accessible_names(browser, role):
    """The names that assistive technology reads for the elements with @a role."""
    tree = browser.execute_cdp_cmd("Accessibility.getFullAXTree", {})["nodes"]
    return [node.get("name", {}).get("value") for node in tree
            if not node["ignored"] and node["role"]["value"] == role]


def set_width(browser, width):
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": 800, "deviceScaleFactor": 2, "mobile": width < 700})


def assert_fits(browser, width):
    assert browser.execute_script("return document.documentElement.scrollWidth") <= width
    beyond = browser.execute_script(
        "return [...document.querySelectorAll('body *')].filter("
        "  e => e.getBoundingClientRect().right > arguments[0] + 1).map(e => e.outerHTML)", width)
    assert beyond == []


def keep_screenshot(browser, name, tmp_path):
    shot = browser.execute_cdp_cmd("Page.captureScreenshot", {"captureBeyondViewport": True})
    (tmp_path / f"{name}.png").write_bytes(base64.b64decode(shot["data"]))


def test_the_page_shows_the_matrix(browser):
    rows = browser.find_elements("css selector", "tbody tr")
    cells = [[cell.text for cell in row.find_elements("css selector", "th, td")] for row in rows]
    present, absent = "✓ published", "✗ missing"
    assert [row[:5] for row in cells] == [
        [f"kernels/{EL5}", "7", present, absent, present],
        [f"kernels/{SUSE}", "3", absent, absent, absent],
        ['kernels/suse/x64/3.0.101-63-<B>&AMP;"-XEN', "1", absent, absent, absent],
        [f"kernels/{EL7}", "95", present, present, present],
        [f"kernels/{EL6}", "20", present, present, present]]
    assert cells[3][5].splitlines() == ["3.10.0-1160.119.1.el7.x86_64 (x86_64): 90",
                                        "3.10.0-1160.el7.x86_64 (x86_64): 5"]
    shared = browser.find_elements("css selector", "section[aria-labelledby=shared] > ul > li")
    assert [item.text.splitlines()[0] for item in shared] == [f"kernels/{EL7}"]
    assert [item.text for item in browser.find_elements("css selector", "dd")] == [
        "126", "11", "5", "3"]


@pytest.mark.parametrize("width", [320, 390, 768, 1280])
def test_the_page_fits_the_screen(browser, width, tmp_path):
    set_width(browser, width)
    assert_fits(browser, width)
    keep_screenshot(browser, f"coverage-{width}", tmp_path)


@pytest.mark.parametrize("width", [390, 1280])
def test_assistive_technology_finds_names_and_the_table(browser, width):
    set_width(browser, width)
    assert accessible_names(browser, "RootWebArea") == ["Kernel module coverage"]
    assert accessible_names(browser, "heading") == [
        "Kernel module coverage", "Directories", "Kernels that share modules"]
    assert accessible_names(browser, "navigation") == ["On this page"]
    assert accessible_names(browser, "link") == ["Directories", "Kernels that share modules"]
    assert accessible_names(browser, "region") == ["Directories", "Kernels that share modules"]
    assert accessible_names(browser, "columnheader") == [
        "Directory", "Hosts", *MODULES, "Kernels and their hosts"]
    assert accessible_names(browser, "rowheader")[0] == f"kernels/{EL5}"
    assert len(accessible_names(browser, "table")) == 1


def test_the_page_works_with_the_keyboard(browser):
    from selenium.webdriver.common.keys import Keys
    for name, target in (("Directories", "directories"), ("Kernels that share modules", "shared")):
        browser.switch_to.active_element.send_keys(Keys.TAB)
        link = browser.switch_to.active_element
        assert link.text == name
        outline = browser.execute_script(
            "return getComputedStyle(document.activeElement).outlineStyle")
        assert outline == "solid"
    link.send_keys(Keys.ENTER)
    assert browser.current_url.endswith("#shared")
    top = browser.execute_script(
        "const e = document.getElementById('shared').getBoundingClientRect();"
        "return e.top >= 0 && e.bottom <= innerHeight")
    assert top and target == "shared"


def test_colours_can_be_told_from_the_paper(browser):
    """Contrast of at least 4.5:1, on a light and on a dark background."""
    script = """
        const value = c => { c /= 255; return c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4 };
        const light = text => { const [r, g, b] = text.match(/[0-9.]+/g).map(Number);
          return 0.2126 * value(r) + 0.7152 * value(g) + 0.0722 * value(b) };
        const paper = light(getComputedStyle(document.body).backgroundColor);
        return ['body', '.good', '.bad', 'a'].map(s => {
          const ink = light(getComputedStyle(document.querySelector(s)).color);
          return (Math.max(ink, paper) + 0.05) / (Math.min(ink, paper) + 0.05) });"""
    for scheme in ("light", "dark"):
        browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})
        assert min(browser.execute_script(script)) >= 4.5


def test_the_page_can_be_printed(browser, tmp_path):
    set_width(browser, 700)  # about that of a sheet of paper
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"media": "print"})
    keep_screenshot(browser, "coverage-print", tmp_path)
    assert_fits(browser, 700)
    assert not browser.find_element("css selector", "nav").is_displayed()
    columns = browser.find_elements("css selector", "thead th")
    assert len({column.location["y"] for column in columns}) == 1
    assert all(column.is_displayed() and column.size["height"] > 5 for column in columns)
    assert browser.execute_script("return getComputedStyle(document.body).color") == "rgb(0, 0, 0)"
