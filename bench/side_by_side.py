"""Compares the updater with programs that do the same work, and writes docs/performance.md.

Run by scripts/bench.sh in a private mount namespace.
"""

import argparse
import os
import pathlib
import shutil
import subprocess
import sys

import concurrent_hosts
import report
import server_trees
from measure import Subject, compare, in_turn
from report import Row
from update_host import Host, Server

_KB, _MB, _GB = 1 << 10, 1 << 20, 1 << 30
_MOST_BYTES = 2 * _GB  # that the files occupy at a time
_CONFIG_LINE = '      <var name="setting{}" value="some value of this setting" note="kept"/>\n'

_UPDATES = [  # type, name in the table, further arguments, target of a tiny run
    ("0", "agent software", [], 0.35),
    ("1", "kernel modules", [], 0.12),
    ("2", "web server", ["1.24", "64-bit"], 0.22),
    ("3", "rules", [], 0.25),
]

_ON_ALL_CPUS = ("concurrent", "check")


class Bench:
    """The measurements. Each adds its rows to the table.

    @param updater   the program
    @param norvak_host  the program beside it that reads the log
    @param norvak_publish  the program that checks server trees
    @param subjects  directory of the programs of bench/subjects
    @param scratch   an empty directory, preferably in memory
    """

    def __init__(self, updater, norvak_host, norvak_publish, subjects, scratch):
        self._updater = str(updater)
        self._norvak_host = str(norvak_host)
        self._norvak_publish = str(norvak_publish)
        self._subjects = subjects
        self._scratch = scratch
        self._scripts = pathlib.Path(__file__).parent
        self._last_cpu = max(os.sched_getaffinity(0))
        self._server = Server(scratch, self._last_cpu)
        self._host = Host(scratch / "agent", self._server)
        self._direct_to(self._host, pathlib.Path("/var/log"))
        self.rows = []

    def close(self):
        self._host.close()
        self._server.close()

    def measure(self, wanted):
        """Runs the measurements named in @a wanted, or all if it is empty."""
        unknown = set(wanted) - set(self._measurements())
        if unknown:
            sys.exit(f"unknown: {', '.join(unknown)}; known: {', '.join(self._measurements())}")
        all_cpus = os.sched_getaffinity(0)
        # If there are several processors, only the server uses the last one.
        others = all_cpus - {self._last_cpu} or all_cpus
        for name, measurement in self._measurements().items():
            if wanted and name not in wanted:
                continue
            print(f"{name} ...", file=sys.stderr, flush=True)
            os.sched_setaffinity(0, all_cpus if name in _ON_ALL_CPUS else others)
            measurement()

    def _measurements(self):
        return {
            "noise": self._noise,
            "md5": self._md5,
            "start": self._start,
            "tiny": self._tiny_runs,
            "large": self._large_runs,
            "download": self._download,
            "move": self._move,
            "memory": self._memory,
            "concurrent": self._concurrent,
            "config": self._config,
            "status": self._status,
            "check": self._check,
            "checkmemory": self._check_memory,
            "coverage": self._coverage,
        }

    # Measurements.

    def _noise(self):
        program = self._subject("return_at_once")
        found = in_turn(300, {"one": program, "same": program})
        self._add("a C program that only returns", "itself", found, "one", "same", wall=None,
                  cpu=None)

    def _md5(self):
        file = self._scratch / "data"
        _write_noise(file, _GB)
        found = in_turn(9, {
            "ours": self._subject("hash_file", file),
            "openssl": Subject(["openssl", "dgst", "-md5", str(file)]),
            "md5sum": Subject(["md5sum", str(file)]),
            "read": self._subject("read_file", file),
        })
        file.unlink()
        self._add("MD5 of 1 GiB", "openssl dgst -md5", found, "ours", "openssl", cpu=0.95)
        self._add("MD5 of 1 GiB", "md5sum", found, "ours", "md5sum", cpu=0.93)
        self._add("MD5 of 1 GiB", "reading it", found, "ours", "read", cpu=None)

    def _start(self):
        self._server.publish_updates(b"<rules>new</rules>")
        file = str(self._scratch / "fetched")
        without_agent = Subject(self._update("3").command, self._host.outdate,
                                lambda: self._host.check("3"))
        found = in_turn(400, {
            "ours": without_agent,
            "with agent": self._update("3"),
            "curl": Subject(["curl", "-s", "-4", "-o", file, f"{self._server.url}/tarn_rule/md5"]),
            "libcurl": self._subject("load_libcurl"),
            "nothing": self._subject("return_at_once"),
        })
        self._add("rules, tiny, no agent to stop", "one curl of one file", found, "ours", "curl",
                  wall=1.0, cpu=1.0)
        for against, theirs in (("one curl of one file", "curl"),
                                ("loading libcurl only", "libcurl"),
                                ("a C program that only returns", "nothing")):
            self._add("rules, tiny", against, found, "with agent", theirs, wall=None, cpu=None)

    def _tiny_runs(self):
        self._server.publish_updates(b"tiny")
        for update, name, arguments, target in _UPDATES:
            self._against_script(f"{name}, tiny", update, arguments, 100, target)

    def _large_runs(self):
        self._server.publish_updates(_noise_bytes(64 * _MB))
        for update, name, arguments, _ in _UPDATES:
            self._against_script(f"{name}, 64 MB", update, arguments, 25, 1.0)

    def _download(self):
        self._server.publish("large", _noise_bytes(256 * _MB))
        self._add_download("download of 256 MB", "plain/large")
        self._add_download("download of 256 MB by sendfile", "large")
        self._server.publish("large", b"")  # frees its memory

    def _move(self):
        kept, source, target = (self._scratch / name for name in ("kept", "source", "target"))
        kept.write_bytes(_noise_bytes(256 * _MB))

        def prepare():
            source.unlink(missing_ok=True)
            target.unlink(missing_ok=True)
            shutil.copyfile(kept, source)

        found = in_turn(15, {
            "ours": Subject(self._subject("move_file", source, target).command, prepare),
            "cp": Subject(["cp", str(source), str(target)], prepare),
        })
        self._add("move of 256 MB", "cp", found, "ours", "cp", wall=1.5)
        for file in (kept, source, target):
            file.unlink(missing_ok=True)

    def _memory(self):
        peaks = {}
        for size in (256 * _MB, _KB):
            self._server.publish_modules(_noise_bytes(size))
            peaks[size] = [self._peak_memory() for _ in range(5)]
        self.rows.append(Row("kernel modules, 256 MB", "the same with 1 KB", "peak memory",
                             compare(peaks[256 * _MB], peaks[_KB]), unit="MB", target=1.0,
                             is_ratio=False))

    def _concurrent(self):
        self._server.publish_updates(b"tiny")
        hosts = [Host(self._scratch / f"host{index}/agent", self._server) for index in range(200)]
        var_logs = []
        for index, host in enumerate(hosts):
            var_log = self._scratch / f"host{index}/var_log"
            var_log.mkdir()
            self._direct_to(host, var_log)
            var_logs.append(var_log)
        counts = (10, 50, 200)
        together = {count: [] for count in (1, *counts)}
        for _ in range(5):
            for count, found in together.items():
                # As many samples of each count, so that they can be paired.
                for _ in range(200 // count):
                    found += self._cpu_of_each(hosts[:count], var_logs[:count])
        for count in counts:
            self.rows.append(Row(f"rules, {count} updaters at once", "one alone", "CPU of each",
                                 compare(together[count], together[1]), target=1.1))

    def _config(self):
        original, edited = self._scratch / "original.xml", self._scratch / "edited.xml"
        original.write_text(_large_config(50 * _MB))
        subjects = {
            "ours": self._subject("set_setting", edited, "version", "norvak3.1.10").command,
            "xmlstarlet": ["xmlstarlet", "edit", "--inplace", "--pf", "--update",
                           "//norvak/Process/Data/var[@name='version']/@value", "--value",
                           "norvak3.1.10", str(edited)],
        }

        def prepare():
            shutil.copyfile(original, edited)

        def check():
            with open(edited, "rb") as file:
                file.seek(-200, os.SEEK_END)
                assert b'"norvak3.1.10"' in file.read()

        found = in_turn(9, {name: Subject(command, prepare, check)
                                  for name, command in subjects.items()})
        self._add("config.xml of 50 MB: load, set, save", "xmlstarlet edit", found, "ours",
                  "xmlstarlet", wall=0.3, cpu=0.3)

    def _status(self):
        """Logs without a run of type 2: the search for one reads up to its limit."""
        log = self._host.path / "runlog/update.log"
        subjects, peaks = {}, {}
        for size in (_MB, _GB):
            path = self._scratch / f"log{size}"
            _write_log(path, size)
            subjects[size] = Subject([self._norvak_host, "status"],
                                     lambda path=path: _point(log, path))
        found = in_turn(50, subjects)
        for size, subject in subjects.items():
            subject.prepare()
            peaks[size] = [_peak_memory_of(self._scratch, subject.command) for _ in range(5)]
        milliseconds = [[sample.wall * 1000 for sample in found[size]] for size in (_GB, _MB)]
        self.rows.append(Row("norvak_host status, 1 GB log", "the same with 1 MB", "wall clock",
                             compare(*milliseconds), unit="ms", target=5.0, is_ratio=False))
        self.rows.append(Row("norvak_host status, 1 GB log", "16 MB", "peak memory",
                             compare(peaks[_GB], [16] * 5), unit="MB", target=1.0))
        log.unlink()
        for size in subjects:
            (self._scratch / f"log{size}").unlink()

    def _check(self):
        tree, names = self._make_tree(), self._scratch / "names"
        server_trees.make_kernels(tree, 10000, 128 * _KB)
        server_trees.list_files(tree, names)
        cpus = len(os.sched_getaffinity(0))
        found = in_turn(5, {
            "ours": Subject([self._norvak_publish, "check", str(tree)]),
            "md5sum": Subject(["xargs", "-0", "-a", str(names), "-P", str(cpus), "-n", "500",
                               "md5sum"]),
        })
        self._add("check of 30,000 modules of 128 KB", "xargs -P md5sum", found, "ours", "md5sum",
                  wall=1.0)
        shutil.rmtree(tree)

    def _check_memory(self):
        peaks = {}
        for size in (256 * _MB, _KB):
            tree = self._make_tree()
            server_trees.make_large(tree, size)
            command = [self._norvak_publish, "check", str(tree)]
            peaks[size] = [_peak_memory_of(self._scratch, command) for _ in range(5)]
            shutil.rmtree(tree)
        self.rows.append(Row("check of files of 256 MB", "the same with 1 KB", "peak memory",
                             compare(peaks[256 * _MB], peaks[_KB]), unit="MB", target=1.0,
                             is_ratio=False))

    def _coverage(self):
        tree, fleet = self._make_tree(), self._scratch / "fleet"
        server_trees.make_kernels(tree, 1000, _KB)
        server_trees.make_fleet(fleet, 100000, 1000)
        found = in_turn(5, {
            "ours": Subject([self._norvak_publish, "coverage", str(tree), "--fleet", str(fleet)]),
            "second": Subject(["sleep", "1"]),
        })
        self._add("coverage of 100,000 hosts", "one second", found, "ours", "second", wall=1.0)
        shutil.rmtree(tree)

    # Shared by the measurements.

    def _make_tree(self):
        tree = self._scratch / "tree"
        tree.mkdir(mode=0o755)
        return tree

    def _against_script(self, what, update, arguments, rounds, target):
        script = [str(self._scripts / "equivalent_update.sh"), update, *arguments]
        found = in_turn(rounds, {
            "ours": self._update(update, arguments),
            "script": Subject(script, self._prepare_host, lambda: self._host.check(update)),
        })
        self._add(what, "a shell script", found, "ours", "script", wall=target, cpu=target)

    def _add_download(self, what, path):
        url, file = f"{self._server.url}/{path}", self._scratch / "fetched"

        def prepare():
            file.unlink(missing_ok=True)

        found = in_turn(50, {
            "ours": Subject(self._subject("download_file", url, file).command, prepare),
            "one file": Subject(self._subject("download_one_file", url, file).command, prepare),
            "curl": Subject(["curl", "-s", "-4", "-o", str(file), url], prepare),
        })
        prepare()
        self._add(what, "curl -s -4 -o", found, "ours", "curl", wall=1.35, cpu=None)
        self._add(what, "libcurl, one open file", found, "ours", "one file", wall=None)

    def _update(self, update, arguments=()):
        arguments = arguments or (["0"] if update == "0" else [])
        return Subject([self._updater, update, *arguments], self._prepare_host,
                       lambda: self._host.check(update))

    def _prepare_host(self):
        self._host.outdate()
        self._host.run_agent()

    def _subject(self, name, *arguments):
        return Subject([str(self._subjects / name), *map(str, arguments)])

    def _add(self, what, against, found, ours, theirs, **targets):
        """Adds a row for each measure, wall or cpu, in @a targets."""
        names = {"wall": "wall clock", "cpu": "CPU"}
        for measure, target in targets.items():
            numbers = [[getattr(sample, measure) for sample in found[name]]
                       for name in (ours, theirs)]
            self.rows.append(Row(what, against, names[measure], compare(*numbers), target=target))

    def _peak_memory(self):
        self._host.outdate()
        peak = _peak_memory_of(self._scratch, [self._updater, "1"])
        self._host.check("1")
        return peak

    def _cpu_of_each(self, hosts, var_logs):
        for host in hosts:
            host.outdate()
        found = concurrent_hosts.cpu_of_each([self._updater, "3"], var_logs)
        for host in hosts:
            host.check("3")
        return found

    @staticmethod
    def _direct_to(host, var_log):
        (var_log / "version_control").write_text(f"{host.path}\n")


def _peak_memory_of(scratch, command):
    """In MB. A process inherits the peak of its parent, so the parent must be small."""
    output = scratch / "peak"
    subprocess.run(["/usr/bin/time", "-f", "%M", "-o", str(output), *command], check=True,
                   stdout=subprocess.DEVNULL)
    return int(output.read_text()) / 1024


def _point(link, target):
    link.unlink(missing_ok=True)
    link.symlink_to(target)


def _write_log(path, size):
    """A log of type 0 runs with nothing to do and type 1 runs that install all modules."""
    stamp = "[2026-01-31 23:59:59]\t\t"
    modules = ("norvak_ipfilter", "tessel_linux", "quorin_linux")
    lines = ["[SOFT] norvak is not need to update, or check new version fail"]
    lines += [text for name in modules for text in (
        f"[KERNEL] check download {name} kernel MD5 success",
        f"[KERNEL] download kernel {name} success")]
    runs = "".join(f"{stamp}{line}\n" for line in lines) + "\n"
    block = (runs * (_MB // len(runs) + 1)).encode()
    with open(path, "wb") as file:
        while file.tell() < size:
            file.write(block)


def _noise_bytes(size):
    block = os.urandom(_MB)
    return (block * (size // _MB + 1))[:size]


def _write_noise(path, size):
    with open(path, "wb") as file:
        for _ in range(size // _MB):
            file.write(os.urandom(_MB))


def _large_config(size):
    lines = ['<?xml version="1.0" encoding="UTF-8"?>\n<norvak>\n  <Process>\n    <Data>\n']
    lines += [_CONFIG_LINE.format(index) for index in range(size // len(_CONFIG_LINE))]
    lines.append('      <var name="version" value="norvak3.1.9"/>\n')
    lines.append("    </Data>\n  </Process>\n</norvak>\n")
    return "".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--updater", type=pathlib.Path, required=True)
    parser.add_argument("--norvak-host", type=pathlib.Path, required=True)
    parser.add_argument("--norvak-publish", type=pathlib.Path, required=True)
    parser.add_argument("--subjects", type=pathlib.Path, required=True)
    parser.add_argument("--page", type=pathlib.Path, help="page that receives the table")
    parser.add_argument("--picture", type=pathlib.Path)
    parser.add_argument("--only", action="append", default=[], help="name of a measurement")
    parser.add_argument("scratch", type=pathlib.Path)
    options = parser.parse_args()

    scratch = options.scratch
    for directory in (str(scratch), "/var/log"):
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={_MOST_BYTES}", "tmpfs", directory],
                       check=True)
    bench = Bench(options.updater, options.norvak_host, options.norvak_publish, options.subjects,
                  scratch)
    try:
        bench.measure(options.only)
    finally:
        bench.close()
    print(report.table(bench.rows), end="")
    if options.page:
        report.write_page(options.page, bench.rows)
    if options.picture:
        report.draw(options.picture, bench.rows)
    unsteady = [row for row in bench.rows if row.is_ratio and not row.comparison.is_steady]
    for row in unsteady:
        print(f"Uncertain, because the machine was too busy: {row.what} / {row.against}, {row.measure}")
    for row in bench.rows:
        if not row.reaches_target:
            print(f"Target missed: {row.what} / {row.against}, {row.measure}")


if __name__ == "__main__":
    main()
