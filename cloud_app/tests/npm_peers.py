#!/usr/bin/env python3
"""Installs the pinned npm peers (the agent CLIs, the official SDKs, the Portkey gateway) once per lock file.

The packages go into a cache folder keyed by the lock file's hash, never into
the source tree: `$QUILLMERE_TEST_NPM_DIR` when set, else
`$XDG_CACHE_HOME/quillmere-test-npm/<hash>` (`~/.cache/...` by default).
A finished install leaves a stamp, so later calls cost one stat. Two test
processes starting at once take turns on a file lock; the second finds the
stamp and does nothing.

    peers = npm_peers.require(self)   # in a unittest: skips the test when the install failed
    peers.claude, peers.codex, peers.node_modules, peers.gateway_command(port)

    python3 npm_peers.py              # installs, then prints the paths as JSON
"""

import fcntl
import hashlib
import json
import os
import re
import shutil
import subprocess
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
NPM_DIR = os.path.join(HERE, "npm")
LOCK_FILE = os.path.join(NPM_DIR, "package-lock.json")
MANIFEST = os.path.join(NPM_DIR, "package.json")
LOOPBACK_PRELOAD = os.path.join(NPM_DIR, "loopback_only.cjs")
# Environment for the gateway: production mode skips its interactive start-up extras.
GATEWAY_ENV = {"NODE_ENV": "production"}
# A cold install downloads about 300 MB; past this the tests skip rather than run into CTest's time-out.
INSTALL_TIMEOUT_SECONDS = float(os.environ.get("QUILLMERE_TEST_NPM_TIMEOUT", "100"))
# Short network patience, so that an unreachable registry fails fast instead of retrying for minutes.
NPM_NETWORK_OPTIONS = ("--fetch-retries=1", "--fetch-timeout=30000", "--fetch-retry-mintimeout=1000",
                       "--fetch-retry-maxtimeout=5000")
STAMP = ".quillmere-installed"
PACKAGES = ("@anthropic-ai/claude-code", "@openai/codex", "openai", "@anthropic-ai/sdk", "@portkey-ai/gateway")


class PeersUnavailable(Exception):
    """The pinned packages could not be installed; the message names what and why."""


class NpmPeers:
    """Where the installed peers are."""

    def __init__(self, root):
        self.root = root
        self.node_modules = os.path.join(root, "node_modules")
        bin_dir = os.path.join(self.node_modules, ".bin")
        self.claude = os.path.join(bin_dir, "claude")
        self.codex = os.path.join(bin_dir, "codex")
        self.gateway = os.path.join(self.node_modules, "@portkey-ai", "gateway", "build", "start-server.js")

    def gateway_command(self, port):
        """The command that starts the Portkey gateway on 127.0.0.1:`port`, headless, without its log page.

        The gateway itself listens on every interface and has no host option; the preloaded
        loopback_only.cjs pins its listening socket to 127.0.0.1.
        """
        return ["node", "--require", LOOPBACK_PRELOAD, self.gateway, f"--port={port}", "--headless"]

    def version(self, package):
        """The installed version of `package`, as its package.json says."""
        with open(os.path.join(self.node_modules, package, "package.json"), encoding="utf-8") as handle:
            return json.load(handle)["version"]

    def as_dict(self):
        return {"root": self.root, "node_modules": self.node_modules, "claude": self.claude,
                "codex": self.codex, "gateway": self.gateway}


def lock_hash():
    digest = hashlib.sha256()
    for path in (MANIFEST, LOCK_FILE):
        with open(path, "rb") as handle:
            digest.update(handle.read())
    return digest.hexdigest()[:16]


def install_root(environ=os.environ):
    explicit = environ.get("QUILLMERE_TEST_NPM_DIR")
    if explicit:
        return explicit
    cache = environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    return os.path.join(cache, "quillmere-test-npm", lock_hash())


def _installed(root, expected):
    try:
        with open(os.path.join(root, STAMP), encoding="utf-8") as handle:
            return handle.read().strip() == expected
    except OSError:
        return False


def ensure_installed(timeout=INSTALL_TIMEOUT_SECONDS):
    """Installs the pinned packages unless already there; returns NpmPeers or raises PeersUnavailable."""
    expected = lock_hash()
    root = install_root()
    if _installed(root, expected):
        return NpmPeers(root)
    if shutil.which("npm") is None:
        raise PeersUnavailable("npm is not installed, so the pinned packages cannot be: " + ", ".join(PACKAGES))
    os.makedirs(root, exist_ok=True)
    with open(root + ".lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not _installed(root, expected):
            _npm_ci(root, timeout)
            with open(os.path.join(root, STAMP), "w", encoding="utf-8") as handle:
                handle.write(expected + "\n")
            _remove_older_installs(root)
    return NpmPeers(root)


def _remove_older_installs(root):
    """Removes installs for earlier lock files beside `root`: each is most of a gigabyte."""
    if "QUILLMERE_TEST_NPM_DIR" in os.environ:
        return  # an explicit folder has no siblings of ours
    parent = os.path.dirname(root)
    for name in os.listdir(parent):
        path = os.path.join(parent, name)
        if path != root and re.fullmatch(r"[0-9a-f]{16}", name) and os.path.isdir(path):
            shutil.rmtree(path, ignore_errors=True)


def _npm_ci(root, timeout):
    for path in (MANIFEST, LOCK_FILE):
        shutil.copyfile(path, os.path.join(root, os.path.basename(path)))
    # --prefer-offline lets a machine that installed these versions once reinstall them from npm's cache.
    command = ["npm", "ci", "--prefer-offline", "--no-audit", "--no-fund", "--loglevel=error", *NPM_NETWORK_OPTIONS]
    names = ", ".join(PACKAGES)
    try:
        result = subprocess.run(command, cwd=root, capture_output=True, text=True, timeout=timeout,
                                stdin=subprocess.DEVNULL)
    except subprocess.TimeoutExpired:
        raise PeersUnavailable(f"npm ci did not finish in {timeout:.0f} s; not installed: {names}") from None
    if result.returncode != 0:
        lines = (result.stderr or result.stdout).strip().splitlines()
        telling = [line for line in lines if re.match(r"npm (error|ERR!) (code|errno|request to|network|404)", line)]
        detail = "\n".join(telling[:4] or lines[-4:])
        raise PeersUnavailable(f"npm ci failed (registry unreachable?); not installed: {names}\n{detail}")


_cached = None


def require(test_case=None):
    """The installed peers; skips the calling test (or raises unittest.SkipTest) when they cannot be had."""
    global _cached
    if isinstance(_cached, NpmPeers):
        return _cached
    if _cached is None:
        try:
            _cached = ensure_installed()
        except PeersUnavailable as error:
            _cached = str(error)
    if isinstance(_cached, str):
        if test_case is not None:
            test_case.skipTest(_cached)
        raise unittest.SkipTest(_cached)
    return _cached


def main():
    try:
        peers = ensure_installed()
    except PeersUnavailable as error:
        print(error, file=sys.stderr)
        return 1
    print(json.dumps(peers.as_dict(), indent=2))
    return 0


if __name__ == "__main__":
    sys.exit(main())
