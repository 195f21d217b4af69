"""What the Quillmere hooks share: raise an interrupt on the relay, hold it, answer or withdraw.

A permission hook runs when an agent CLI would otherwise ask the person at the
terminal. It raises an `approval` interrupt on the relay, waits for the person's
verdict in the Quillmere queue and prints the CLI's allow or deny answer. On a
timeout, an unreachable relay, a malformed input or any other failure it prints
nothing and exits 0: the CLI then shows its own prompt, so nothing is ever
approved by accident. Only a verdict of "approve" on this very interrupt prints an
allow.

An interrupt never outlives the wait it stands for. The hook withdraws it when it
is stopped (SIGTERM or SIGINT: the person pressed Esc, the CLI gave up on the hook
or was stopped itself), when the CLI it serves is gone, and as "answered
elsewhere" on SIGUSR1, which the after-tool hook sends when the CLI went ahead
without the queue (the person answered the CLI's own prompt). A hook killed
without a chance to say so stops polling, and the relay withdraws the interrupt
itself a few seconds later.

Settings come on the command line, written there by `install.py`: `--relay URL`
and `--wait SECONDS`. Environment variables do not do: Codex runs hooks from a
long-lived background process whose environment is that of the session that
started it. Only a token (MERE_RELAY_TOKEN) comes from the environment, since a
secret has no place in a settings file; without one the hook asks the loopback
relay for a session of its own and gives it back afterwards.

Start-up time is most of a hook's cost to the person, and a hook's exchange with
a local relay takes about 3 ms, less than importing urllib or http.client. So this
module speaks HTTP/1.1 over a plain socket and uses the interpreter's built-in
modules for JSON, sockets and signals (`_json`, `_socket`, `_signal`): their
friendly wrappers import `re` and `enum`, which cost more than everything else the
hook loads together.
"""

import _json
import _signal
import _socket
import os
import sys
import time

try:
    # The standard library's own SHA-256: hashlib loads OpenSSL first, which takes longer than a hook's
    # whole exchange with a local relay.
    from _sha256 import sha256
except ImportError:
    from hashlib import sha256

DEFAULT_RELAY_URL = "http://127.0.0.1:8787/"
# How long the person has to answer in the queue before the CLI's own prompt shows.
WAIT_SECONDS = 300.0
# The hook holds one poll on the relay at most this long, then looks whether the CLI is
# still there and polls again until its deadline.
POLL_SECONDS = 10.0
CONNECT_TIMEOUT_SECONDS = 5.0
# A withdrawal on the way out must not keep a stopping CLI waiting.
WITHDRAW_TIMEOUT_SECONDS = 1.0
DENIED_MESSAGE = "Denied from the Quillmere queue."
OPTIONS = ["Approve", "Reject"]
SUMMARY_KEYS = ("command", "file_path", "notebook_path", "path", "url", "pattern", "query", "prompt")
SUMMARY_LENGTH = 120
# Shells a CLI may run a hook's command through; the CLI itself is the first ancestor that is not one.
SHELLS = {"sh", "dash", "bash", "zsh"}
# Where a waiting hook leaves a marker (its process id, nothing secret) for the after-tool hook.
MARKER_FOLDER_NAME = "quillmere-hooks"
KEY_LENGTH = 24


class _Decoding:
    """What the built-in JSON scanner asks of its decoder: plain Python values, strictly."""

    strict = True
    object_hook = None
    object_pairs_hook = None
    parse_float = float
    parse_int = int
    parse_constant = float
    memo = {}


_scan = _json.make_scanner(_Decoding())
_WHITESPACE = " \t\n\r"


def loads(text):
    """A JSON text's value; ValueError for anything else."""
    if isinstance(text, (bytes, bytearray)):
        text = text.decode("utf-8")
    text = text.strip(_WHITESPACE)
    try:
        value, end = _scan(text, 0)
    except StopIteration:
        raise ValueError("not JSON") from None
    if end != len(text):
        raise ValueError("more than one JSON value")
    return value


def _refuse(value):
    raise TypeError(f"{type(value).__name__} is not JSON")


# By (ASCII only, keys sorted): one-line JSON, as the standard library writes it with those options.
_ENCODERS = {
    (True, False): _json.make_encoder({}, _refuse, _json.encode_basestring_ascii, None, ": ", ", ", False, False,
                                      True),
    (False, True): _json.make_encoder({}, _refuse, _json.encode_basestring, None, ": ", ", ", True, False, True),
    (False, False): _json.make_encoder({}, _refuse, _json.encode_basestring, None, ": ", ", ", False, False, True),
}


def dumps(value, ascii=True, sort_keys=False):
    return "".join(_ENCODERS[(ascii and not sort_keys, sort_keys)](value, 0))


def pretty(value, level=0):
    """`value` indented by two spaces a level, non-ASCII text as it is (the standard library's indent=2)."""
    inner = "  " * (level + 1)
    if isinstance(value, dict) and value:
        items = [f"{inner}{dumps(str(key), ascii=False)}: {pretty(item, level + 1)}" for key, item in value.items()]
        return "{\n" + ",\n".join(items) + "\n" + "  " * level + "}"
    if isinstance(value, (list, tuple)) and value:
        return "[\n" + ",\n".join(inner + pretty(item, level + 1) for item in value) + "\n" + "  " * level + "]"
    return dumps(value, ascii=False)


class Stopped(Exception):
    """The hook was asked to stop waiting; `reason` is how its interrupt leaves the queue."""

    def __init__(self, reason):
        super().__init__(reason)
        self.reason = reason


# ---------------------------------------------------------------------------
# Command line

class Settings:
    """What the command line says: `--relay URL --wait SECONDS` (and `--poll SECONDS`, for tests)."""

    def __init__(self, argv):
        self.relay, self.wait, self.poll = DEFAULT_RELAY_URL, WAIT_SECONDS, POLL_SECONDS
        args = list(argv)
        while args:
            name = args.pop(0)
            value = args.pop(0) if args else ""
            if name == "--relay" and value.startswith(("http://", "https://")):
                self.relay = value
            elif name in ("--wait", "--poll"):
                seconds = _positive(value)
                if seconds is not None:
                    setattr(self, name[2:], seconds)


def _positive(text):
    try:
        value = float(text)
    except ValueError:
        return None
    return value if value > 0 else None


# ---------------------------------------------------------------------------
# The relay

class RelayError(Exception):
    def __init__(self, status, message):
        super().__init__(f"{status} {message}")
        self.status = status


class RelayClient:
    def __init__(self, base_url, token=None):
        self.base_url = base_url if base_url.endswith("/") else base_url + "/"
        scheme, _, rest = self.base_url.partition("://")
        authority, _, prefix = rest.partition("/")
        self.secure = scheme == "https"
        if authority.startswith("["):
            host, _, port = authority[1:].partition("]")
            port = port.lstrip(":")
        else:
            host, _, port = authority.partition(":")
        self.host = host
        self.port = int(port) if port.isdigit() else (443 if self.secure else 80)
        self.authority = authority
        self.prefix = "/" + prefix
        self.token = token
        self._owns_session = False

    def call(self, method, path, body=None, timeout=CONNECT_TIMEOUT_SECONDS, auth=True):
        """The answer's JSON; RelayError for any status but 200."""
        data = b"" if body is None else dumps(body).encode("utf-8")
        head = [f"{method} {self.prefix}{path} HTTP/1.1", f"Host: {self.authority}", "Connection: close",
                f"Content-Length: {len(data)}"]
        if body is not None:
            head.append("Content-Type: application/json")
        if auth and self.token:
            head.append("Authorization: Bearer " + self.token)
        request = ("\r\n".join(head) + "\r\n\r\n").encode("latin-1") + data
        status, answer = self._exchange(request, timeout)
        value = loads(answer or b"null")
        if status != 200:
            message = value.get("error", {}).get("message", "") if isinstance(value, dict) else ""
            raise RelayError(status, message)
        return value

    def _exchange(self, request, timeout):
        if self.secure:
            import socket  # only a hosted relay pays for these
            import ssl
            raw = socket.create_connection((self.host, self.port), timeout=CONNECT_TIMEOUT_SECONDS)
            connection = ssl.create_default_context().wrap_socket(raw, server_hostname=self.host)
        else:
            connection = connect(self.host, self.port)
        try:
            connection.settimeout(timeout)
            connection.sendall(request)
            received = []
            while True:
                part = connection.recv(65536)
                if not part:
                    break
                received.append(part)
        finally:
            connection.close()
        return parse_answer(b"".join(received))

    def sign_in(self):
        """Uses the given token, or asks the loopback relay for a session of its own."""
        if self.token:
            return
        answer = self.call("POST", "v1/auth/local", {}, auth=False)
        self.token = answer["token"]
        self._owns_session = True

    def sign_out(self):
        if self._owns_session:
            try:
                self.call("POST", "v1/auth/logout", timeout=WITHDRAW_TIMEOUT_SECONDS)
            except Exception:
                pass

    def withdraw(self, interrupt_id, reason):
        try:
            self.call("POST", f"v1/interrupts/{interrupt_id}/withdraw", {"reason": reason},
                      timeout=WITHDRAW_TIMEOUT_SECONDS)
        except Exception:
            # The relay withdraws an interrupt nobody polls by itself.
            pass


def connect(host, port):
    """A connected TCP socket to the first address of `host` that answers."""
    failure = OSError(f"cannot resolve {host}")
    for family, kind, proto, _, address in _socket.getaddrinfo(host, port, 0, _socket.SOCK_STREAM):
        connection = _socket.socket(family, kind, proto)
        connection.settimeout(CONNECT_TIMEOUT_SECONDS)
        try:
            connection.connect(address)
            return connection
        except OSError as error:
            connection.close()
            failure = error
    raise failure


def parse_answer(raw):
    """(status, body bytes) of one HTTP/1.1 answer read to the end of its connection."""
    head, _, body = raw.partition(b"\r\n\r\n")
    lines = head.split(b"\r\n")
    parts = lines[0].split(b" ", 2)
    if len(parts) < 2 or not parts[1].isdigit():
        raise RelayError(0, "no HTTP answer")
    headers = {}
    for line in lines[1:]:
        name, _, value = line.partition(b":")
        headers[name.strip().lower()] = value.strip()
    if headers.get(b"transfer-encoding", b"").lower() == b"chunked":
        body = dechunk(body)
    elif headers.get(b"content-length", b"").isdigit():
        body = body[:int(headers[b"content-length"])]
    return int(parts[1]), body


def dechunk(data):
    out = []
    while data:
        size_line, _, data = data.partition(b"\r\n")
        size = int(size_line.split(b";")[0] or b"0", 16)
        if size == 0:
            break
        out.append(data[:size])
        data = data[size + 2:]
    return b"".join(out)


# ---------------------------------------------------------------------------
# The interrupt

def iso_in(seconds):
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(int(time.time() + seconds)))


def summary(tool_input):
    """One short line naming what the tool would touch: its command, file, address or pattern."""
    if not isinstance(tool_input, dict):
        return ""
    for key in SUMMARY_KEYS:
        value = tool_input.get(key)
        if isinstance(value, str) and value.strip():
            line = value.strip().splitlines()[0]
            return line if len(line) <= SUMMARY_LENGTH else line[:SUMMARY_LENGTH - 1] + "…"
    return ""


def event_strings(event):
    """The event's tool name, tool input, working folder, session id and the folder's short name."""
    tool = event.get("tool_name") if isinstance(event.get("tool_name"), str) else ""
    tool_input = event.get("tool_input") if isinstance(event.get("tool_input"), dict) else {}
    cwd = event.get("cwd") if isinstance(event.get("cwd"), str) else ""
    session = event.get("session_id") if isinstance(event.get("session_id"), str) else ""
    folder = os.path.basename(cwd.rstrip("/")) or cwd
    return tool, tool_input, cwd, session, folder


def approval_interrupt(event, wait_seconds, agent, reason, timeout_behavior):
    """The approval interrupt both hooks raise for one request, before each adds its own.

    `agent` is how the CLI is named: its toolkit slug (also the run id without a
    session), the lower-case run name and the requester. Returns the interrupt and
    the request's tool input, or None when the event names no tool.
    """
    toolkit, run_name, requester = agent
    tool, tool_input, cwd, session, folder = event_strings(event)
    if not tool:
        return None
    about = summary(tool_input)
    interrupt = {
        "run_id": session or toolkit,
        "run_name": f"{run_name} · {folder}" if folder else run_name,
        "kind": "approval",
        "prompt": f"Allow {tool}: {about}?" if about else f"Allow {tool}?",
        "options": list(OPTIONS),
        "detail": pretty(tool_input),
        "action_toolkit": toolkit,
        "action_slug": tool,
        "target": cwd,
        "requester": requester,
        "reason": reason(tool),
        "expires_at": iso_in(wait_seconds),
        "timeout_behavior": timeout_behavior,
    }
    description = tool_input.get("description")
    if isinstance(description, str) and description.strip():
        interrupt["proposed_action"] = description.strip()
    return interrupt, tool_input


def decision(verdict):
    """The CLI's decision object for a verdict, or None to leave the choice to the CLI."""
    if not isinstance(verdict, dict):
        return None
    kind = verdict.get("verdict")
    reply = verdict.get("reply") if isinstance(verdict.get("reply"), str) else ""
    if kind == "approve":
        return {"behavior": "allow"}
    if kind == "reject":
        # The queue's "Reject" button sends its own label as the reply; that says nothing to the agent.
        meaningful = reply.strip() and reply.strip().lower() != "reject"
        return {"behavior": "deny", "message": reply.strip() if meaningful else DENIED_MESSAGE}
    if kind == "reply" and reply.strip():
        return {"behavior": "deny", "message": reply.strip()}
    return None


def hook_output(decided):
    return {"hookSpecificOutput": {"hookEventName": "PermissionRequest", "decision": decided}}


# ---------------------------------------------------------------------------
# Markers: how the after-tool hook finds the hook that waits for a call

def marker_folder(environ=os.environ):
    runtime = environ.get("XDG_RUNTIME_DIR")
    if runtime and os.path.isdir(runtime):
        return os.path.join(runtime, MARKER_FOLDER_NAME)
    return os.path.join("/tmp", f"{MARKER_FOLDER_NAME}-{os.getuid()}")


def _key(*parts):
    return sha256("\0".join(parts).encode("utf-8", "replace")).hexdigest()[:KEY_LENGTH]


def call_keys(event):
    """(session key, call key) naming the event's session and its tool call, or None without a session."""
    tool, tool_input, _, session, _ = event_strings(event)
    if not session:
        return None
    canonical = dumps(tool_input, ascii=False, sort_keys=True)
    return _key(session), _key(session, tool, canonical)


def own_folder(path):
    """Makes `path` a folder only this user can enter; False if it is someone else's."""
    try:
        os.mkdir(path, 0o700)
    except FileExistsError:
        pass
    info = os.lstat(path)
    return (info.st_uid == os.getuid() and (info.st_mode & 0o077) == 0
            and os.path.isdir(path) and not os.path.islink(path))


def leave_marker(keys, environ=os.environ):
    """Leaves `<session>-<call>-<pid>` for the after-tool hook; returns its path, or None."""
    if keys is None:
        return None
    folder = marker_folder(environ)
    try:
        if not own_folder(folder):
            return None
        path = os.path.join(folder, f"{keys[0]}-{keys[1]}-{os.getpid()}")
        os.close(os.open(path, os.O_CREAT | os.O_WRONLY | os.O_NOFOLLOW, 0o600))
        return path
    except OSError:
        return None


def remove_marker(path):
    if path:
        try:
            os.unlink(path)
        except OSError:
            pass


def waiting_hooks(session_key, call_key=None, environ=os.environ):
    """Process ids of the hooks waiting for this session (and this call, if given).

    A marker whose process is no hook any more (one killed outright leaves its marker
    behind) is removed on the way."""
    folder = marker_folder(environ)
    prefix = f"{session_key}-{call_key}-" if call_key else f"{session_key}-"
    try:
        names = [name for name in os.listdir(folder) if name.startswith(prefix)]
    except OSError:
        return []
    pids = []
    for name in names:
        pid = name.rsplit("-", 1)[-1]
        if pid.isdigit() and is_hook_process(int(pid)):
            pids.append(int(pid))
        else:
            remove_marker(os.path.join(folder, name))
    return pids


def is_hook_process(pid):
    """Whether `pid` runs one of these hooks: the id in a stale marker may since have gone to
    another program, which must never get a hook's signal."""
    try:
        with open(f"/proc/{pid}/cmdline", "rb") as handle:
            command = handle.read()
    except FileNotFoundError:
        if os.path.isdir("/proc/self"):
            return False
        command = _command_without_proc(pid)
    except OSError:
        return False
    here = os.path.dirname(os.path.abspath(__file__)).encode()
    return here in command


def _command_without_proc(pid):
    """A process's command line where there is no /proc (macOS), from ps; empty if it is gone."""
    import subprocess  # only here: the after-tool hook's rare path on such a system
    try:
        return subprocess.run(["ps", "-p", str(pid), "-o", "command="], capture_output=True,
                              timeout=CONNECT_TIMEOUT_SECONDS).stdout
    except (OSError, subprocess.SubprocessError):
        return b""


# ---------------------------------------------------------------------------
# Staying with the CLI

def cli_process():
    """The process id of the CLI that runs this hook: the nearest ancestor that is not a shell."""
    pid = os.getppid()
    for _ in range(4):
        try:
            with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as handle:
                stat = handle.read()
        except OSError:
            return pid
        name = stat[stat.find("(") + 1:stat.rfind(")")]
        if name not in SHELLS:
            return pid
        parent = int(stat[stat.rfind(")") + 2:].split()[1])
        if parent <= 1:
            return pid
        pid = parent
    return pid


def is_alive(pid):
    """Whether the process runs; one that ended and waits to be reaped (a zombie) does not."""
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as handle:
            stat = handle.read()
        return stat[stat.rfind(")") + 2:][:1] not in ("Z", "X")
    except FileNotFoundError:
        return False
    except OSError:
        pass
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        return True
    return True


def on_signals():
    """Sets handlers raising Stopped: SIGTERM, SIGINT withdraw; SIGUSR1 means answered elsewhere."""
    def raiser(reason):
        def handler(signum, frame):
            raise Stopped(reason)
        return handler
    try:
        _signal.signal(_signal.SIGTERM, raiser("withdrawn"))
        _signal.signal(_signal.SIGINT, raiser("withdrawn"))
        _signal.signal(_signal.SIGUSR1, raiser("answered_elsewhere"))
    except ValueError:
        # Not the main thread (a test calling in): there is no signal to catch there.
        pass


STOP_SIGNALS = {_signal.SIGTERM, _signal.SIGINT, _signal.SIGUSR1}
# What the after-tool hook sends a hook whose call went ahead.
ANSWERED_ELSEWHERE_SIGNAL = _signal.SIGUSR1


def hold(client, interrupt, wait_seconds, keys=None, cli_pid=None, quit_unwatched=False, environ=os.environ,
         poll_seconds=POLL_SECONDS, went_on=None):
    """Raises `interrupt` and waits for its verdict; returns the verdict, or None.

    Every way out but a verdict withdraws the interrupt: stopped by a signal, the CLI
    gone, `went_on()` true between two polls (answered elsewhere), or (with
    `quit_unwatched`) nobody watching the queue. The deadline is left to
    the relay, which times the interrupt out at its `expires_at`.
    """
    body = dict(interrupt, withdraw_when_unpolled=True)
    # A stop signal that arrives while the interrupt is being raised waits until its id is known.
    _signal.pthread_sigmask(_signal.SIG_BLOCK, STOP_SIGNALS)
    on_signals()
    interrupt_id = None
    marker = None
    try:
        # The marker goes first: a call answered in the terminal while the interrupt is being
        # raised must still find this hook (its signal waits for the id, as above).
        marker = leave_marker(keys, environ)
        try:
            raised = client.call("POST", "v1/interrupts", body)
            interrupt_id = raised["id"]
        finally:
            _signal.pthread_sigmask(_signal.SIG_UNBLOCK, STOP_SIGNALS)
        if quit_unwatched and raised.get("watchers") == 0:
            client.withdraw(interrupt_id, "withdrawn")
            return None
        return wait_for_verdict(client, interrupt_id, wait_seconds, cli_pid, poll_seconds, went_on)
    except Stopped as stopped:
        # A second signal must not cut the withdrawal short.
        _signal.pthread_sigmask(_signal.SIG_BLOCK, STOP_SIGNALS)
        if interrupt_id is not None:
            client.withdraw(interrupt_id, stopped.reason)
        return None
    finally:
        _signal.pthread_sigmask(_signal.SIG_BLOCK, STOP_SIGNALS)
        remove_marker(marker)


def wait_for_verdict(client, interrupt_id, wait_seconds, cli_pid=None, poll_seconds=POLL_SECONDS, went_on=None):
    """The verdict once decided; None when the time is up, the interrupt left the queue or the CLI is gone."""
    deadline = time.monotonic() + wait_seconds
    while True:
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            return None
        if cli_pid is not None and not is_alive(cli_pid):
            raise Stopped("withdrawn")
        if went_on is not None and went_on():
            raise Stopped("answered_elsewhere")
        held = min(remaining, poll_seconds)
        state = client.call("GET", f"v1/interrupts/{interrupt_id}?wait={held:.1f}",
                            timeout=held + CONNECT_TIMEOUT_SECONDS)
        if state.get("id") != interrupt_id:
            return None
        if state.get("status") == "decided":
            return state.get("verdict")
        if state.get("status") != "open":
            return None


def read_event(stdin, name):
    """The hook input as a dict when it is the event `name`, else None."""
    event = loads(stdin.read())
    if not isinstance(event, dict) or event.get("hook_event_name") != name:
        return None
    return event


def main(build_interrupt, argv=None, stdin=None, stdout=None, environ=None, quit_unwatched=False):
    """Reads the event, prints an answer only for a clear verdict, and always exits 0."""
    stdin = stdin or sys.stdin
    stdout = stdout or sys.stdout
    environ = os.environ if environ is None else environ
    given = Settings(sys.argv[1:] if argv is None else argv)
    try:
        event = read_event(stdin, "PermissionRequest")
        interrupt = None if event is None else build_interrupt(event, given.wait)
        if interrupt is None:
            return 0
        client = RelayClient(given.relay, environ.get("MERE_RELAY_TOKEN"))
        client.sign_in()
        try:
            verdict = hold(client, interrupt, given.wait, call_keys(event), cli_process(), quit_unwatched, environ,
                           given.poll)
        finally:
            client.sign_out()
        decided = decision(verdict)
    except Exception:
        # Whatever went wrong, the person still gets the CLI's own prompt.
        return 0
    if decided is not None:
        stdout.write(dumps(hook_output(decided)) + "\n")
        stdout.flush()
    return 0
