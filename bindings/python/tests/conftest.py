"""A local account server (velmora-mock, from VELMORA_MOCK or the PATH) on a free port for the session, and
the library configured once per process with directories of the session's own."""

import itertools
import json
import os
import shutil
import subprocess
import urllib.request

import pytest

import velmora


class Server:
    """The mock's admin calls: answer() scripts the next matching request's answer; state() reads it all."""

    def __init__(self, url):
        self.url, self._opener = url, urllib.request.build_opener(urllib.request.ProxyHandler({}))

    def _call(self, method, path, data=None):
        request = urllib.request.Request(self.url + path, data, method=method)
        with self._opener.open(request, timeout=10) as reply:
            return json.loads(reply.read() or b"null")

    def answer(self, answer):
        self._call("POST", "/__mock/answers", json.dumps(answer).encode())

    def state(self):
        return self._call("GET", "/__mock/state")


@pytest.fixture(scope="session")
def server(tmp_path_factory):
    mock = os.environ.get("VELMORA_MOCK") or shutil.which("velmora-mock")
    if not mock:
        pytest.skip("no velmora-mock: set VELMORA_MOCK")
    root = tmp_path_factory.mktemp("velmora")
    velmora.configure("velmora-python-tests", root / "data", root / "caches")
    process = subprocess.Popen([mock, "--port", "0"], stdout=subprocess.PIPE, text=True)
    try:
        banner = process.stdout.readline()
        assert banner.startswith("velmora-mock listening on "), banner
        yield Server(banner.split()[-1])
    finally:
        process.terminate()
        process.wait(10)


_accounts = itertools.count(1)


@pytest.fixture
def sdk(server):
    """The library for an account of the test's own: switching accounts wipes what the last test stored."""
    yield velmora.Velmora.initialize(f"python-app-{next(_accounts)}", "python-client", server.url)
    assert velmora.wait_for_pending_requests(10)
