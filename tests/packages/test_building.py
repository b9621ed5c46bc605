"""A build from source, on a system that makes no packages."""

import subprocess

from conftest import PROJECT


def test_it_needs_none_of_the_documents_that_packages_quote(make_root):
    root = make_root("build-publish")
    root.file("/source").mkdir()
    subprocess.run(["mount", "--bind", PROJECT, root.file("/source")], check=True)
    root.run("rm", "-r", "/usr/share/doc")
    root.run("cmake", "-G", "Ninja", "-S", "/source", "-B", "/build", "-DBUILD_TESTING=OFF")
