"""The packaged updater with the libcurl of other distributions, imitated by a shim."""

import subprocess

import pytest
from conftest import PROJECT, compile_library
from harness import AgentHost
from test_updates import UPDATES, assert_updates

VERSIONS = {
    "unversioned": "{ global: curl_*; local: *; };",
    "CURL_OPENSSL_3": "CURL_OPENSSL_3 { global: curl_*; local: *; };",
}


def loaded_libraries(program, environment):
    return subprocess.run(["ldd", program], env=environment, check=True, capture_output=True,
                          text=True).stdout


@pytest.fixture(params=VERSIONS)
def libcurl(request, tmp_path):
    """A directory with a libcurl.so.4 of the given symbol versions."""
    [real] = {line.split("=> ")[1] for line in subprocess.run(
        ["/sbin/ldconfig", "--print-cache"], check=True, capture_output=True,
        text=True).stdout.splitlines() if "libcurl.so.4 (libc6,x86-64)" in line}
    script = tmp_path / "versions"
    script.write_text(VERSIONS[request.param])
    tmp_path.chmod(0o755)
    compile_library(PROJECT / "tests/packages/curl_shim.cpp", tmp_path / "libcurl.so.4",
             "-Wl,-soname,libcurl.so.4", f"-Wl,--version-script={script}",
             f'-DREAL_LIBCURL="{real}"', "-ldl")
    return tmp_path


@pytest.mark.parametrize("update", UPDATES)
def test_updates_stay_silent(update, libcurl, unpack, uname_answers, server):
    updater = unpack("amd64") / "usr/sbin/norvak_update"
    environment = {"LD_LIBRARY_PATH": str(libcurl)}
    assert f"libcurl.so.4 => {libcurl}/libcurl.so.4" in loaded_libraries(updater, environment)
    host = AgentHost(updater, lambda: uname_answers)
    try:
        host.start_agent()
        assert_updates(host, server, update, environment=environment)
    finally:
        host.close()
