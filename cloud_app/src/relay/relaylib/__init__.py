"""The Quillmere reference relay: an HTTP/JSON server over one SQLite database."""

VERSION = "0.1.0"
