import subprocess, tempfile

import pytest


@pytest.fixture
def tmp():  # a fresh directory under /tmp, removed with everything in it
    path = tempfile.mkdtemp(prefix='quelvane-test-', dir='/tmp')
    yield path
    subprocess.run(['sh', '-c', f"chmod -R u+rwx '{path}' 2>/dev/null; rm -rf '{path}'"])
