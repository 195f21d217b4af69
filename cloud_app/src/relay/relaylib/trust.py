"""Who may talk to the relay at all: the Host it is asked for and the web page a browser speaks for.

A web page can make a browser send requests to 127.0.0.1, and a page whose own name
is made to point at 127.0.0.1 (DNS rebinding) can even read the answers. Both carry
a name that is not the relay's: the page's origin in `Origin`, the page's host name
in `Host`. So a request is answered only when its `Host` names the relay itself (a
loopback name with the relay's port, the address it is bound to, or a public name
it was configured with), and a browser's `Origin`, when one is sent, names the same.
Programs (the application, the hooks, later API clients of the gateway) send no
`Origin`, so they are unaffected. `Sec-Fetch-Site`, which browsers send on every
request, refuses what a page on another site asks for even where `Origin` is left
out (a plain GET).
"""

import ipaddress
import urllib.parse

LOOPBACK_NAMES = ("127.0.0.1", "localhost", "[::1]")
# What browsers say in Sec-Fetch-Site for a request of the relay's own page, or one the
# person typed; "same-site" and "cross-site" come from other pages.
OWN_FETCH_SITES = ("same-origin", "none")
HOST_REFUSED = "the Host header does not name this relay"
ORIGIN_REFUSED = "requests from a web page of another origin are refused"


def _bracketed(host):
    return f"[{host}]" if ":" in host and not host.startswith("[") else host


def _is_wildcard(host):
    try:
        return ipaddress.ip_address(host.strip("[]")).is_unspecified
    except ValueError:
        return False


class HostRules:
    """The `Host` values (and so the origins) this relay answers to."""

    def __init__(self, bound_host, port, public_hosts=()):
        names = set()
        for name in LOOPBACK_NAMES:
            names.add(f"{name}:{port}")
            if port == 80:
                names.add(name)
        bound = _bracketed(bound_host.lower())
        if bound and not _is_wildcard(bound):
            names.add(f"{bound}:{port}")
        for public in public_hosts:
            public = public.lower()
            names.add(public)
            # A public name without a port is reached on the default port (behind a
            # proxy) or directly on the relay's own port.
            if not public.endswith("]") and ":" not in public.rsplit("]", 1)[-1]:
                names.add(f"{public}:{port}")
        self.names = frozenset(names)

    def host_allowed(self, value):
        return value is not None and value.isascii() and value.strip().lower() in self.names

    def origin_allowed(self, value):
        """An absent Origin (a program, or a browser's own navigation) is fine; "null" is not."""
        if value is None:
            return True
        if not value.isascii():
            return False
        try:
            parts = urllib.parse.urlsplit(value.strip())
        except ValueError:
            return False
        if parts.scheme not in ("http", "https") or parts.path or parts.query or parts.fragment:
            return False
        return parts.netloc.lower() in self.names

    @staticmethod
    def fetch_site_allowed(value):
        return value is None or value.strip().lower() in OWN_FETCH_SITES
