"""The one error type that handlers raise, and the envelope every failure answers with."""


# How much of a client's text (a path, a method) an error message or a log line repeats.
SHOWN_LENGTH = 200


def shown(text):
    """Text from a client as an error message or the log repeats it: printable ASCII, cut short."""
    text = text[:SHOWN_LENGTH]
    if text.isascii() and text.isprintable():
        return text
    return "".join(c if " " <= c <= "~" else "?" for c in text)


class ApiError(Exception):
    """A failure the client should see: an HTTP status and one readable message."""

    def __init__(self, status, message, headers=None, close=False):
        super().__init__(message)
        self.status = status
        self.message = message
        self.headers = dict(headers or {})
        # Whether the connection must close after the answer (the request's framing is suspect).
        self.close = close


def envelope(message, request_id):
    return {"error": {"message": message}, "request_id": request_id}


def bad_request(message):
    return ApiError(400, message)


def not_found(message):
    return ApiError(404, message)


def conflict(message):
    return ApiError(409, message)


def unauthorized(message):
    return ApiError(401, message, {"WWW-Authenticate": 'Bearer realm="quillmere"'})


def forbidden(message):
    return ApiError(403, message)
