#!/usr/bin/env python3
"""Installs (or removes) the Quillmere hooks in the user's Claude Code or Codex settings.

    python3 install.py claude [--relay URL] [--wait SECONDS]   adds them to ~/.claude/settings.json
    python3 install.py codex  [--relay URL] [--wait SECONDS]   adds them to ~/.codex/hooks.json
    python3 install.py claude --uninstall

Claude Code gets three: the permission hook (PermissionRequest), the notification
hook (Notification: prompts the permission hook never sees) and the after-tool
hook (on PostToolUse, PostToolUseFailure, Stop and UserPromptSubmit: it withdraws
what the terminal answered first). Codex gets the permission hook.

The relay's address and the wait are written into each hook's command as
arguments: a hook cannot rely on its environment (Codex runs hooks from a
background process started with the first session's). The relay defaults to
MERE_RELAY_URL at install time, else the local relay. Other hooks and settings
in the file are kept; running it again replaces the earlier Quillmere entries
instead of adding more. The file is written atomically. No token or other secret
is written: the hooks sign in by themselves.
"""

import argparse
import json
import os
import shlex
import sys
import tempfile

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import permission_hook  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
# The CLI stops waiting for the permission hook a little after the hook itself gives up.
TIMEOUT_MARGIN_SECONDS = 30
# The notification and after-tool hooks return at once; this only bounds a stuck one.
QUICK_HOOK_TIMEOUT_SECONDS = 10
# Isolated from PYTHON* variables and site packages: the hooks need the standard library
# only, and skipping site saves start-up time on every call.
PYTHON_FLAGS = ("-I", "-S")
OURS = ("claude_permission.py", "claude_notification.py", "claude_after_tool.py", "codex_permission.py")

# For each CLI: (event, script, matcher or None, takes the relay settings, waits for the person).
HOOKS = {
    "claude": [
        ("PermissionRequest", "claude_permission.py", "*", True, True),
        ("Notification", "claude_notification.py", None, True, False),
        ("PostToolUse", "claude_after_tool.py", "*", False, False),
        ("PostToolUseFailure", "claude_after_tool.py", "*", False, False),
        ("Stop", "claude_after_tool.py", None, False, False),
        ("UserPromptSubmit", "claude_after_tool.py", None, False, False),
    ],
    "codex": [
        ("PermissionRequest", "codex_permission.py", None, True, True),
    ],
}
CODEX_REVIEW_NOTE = ("Codex runs a new or changed hook only after you review it once: start codex and "
                     "trust the Quillmere hook when it asks (or run /hooks). Installing again with other "
                     "--relay or --wait values changes the command, and Codex asks again.")


def default_settings_path(cli, environ):
    home = environ.get("HOME") or os.path.expanduser("~")
    if cli == "claude":
        return os.path.join(environ.get("CLAUDE_CONFIG_DIR") or os.path.join(home, ".claude"), "settings.json")
    return os.path.join(environ.get("CODEX_HOME") or os.path.join(home, ".codex"), "hooks.json")


def hook_command(script, relay=None, wait_seconds=None, python=None):
    words = [python or sys.executable, *PYTHON_FLAGS, os.path.join(HERE, script)]
    if relay is not None:
        words += ["--relay", relay, "--wait", f"{wait_seconds:g}"]
    return " ".join(shlex.quote(word) for word in words)


def is_ours(group):
    hooks = group.get("hooks") if isinstance(group, dict) else None
    return isinstance(hooks, list) and any(
        isinstance(hook, dict) and any(script in str(hook.get("command", "")) for script in OURS)
        for hook in hooks)


def updated_settings(settings, cli, install, relay=permission_hook.DEFAULT_RELAY_URL,
                     wait_seconds=permission_hook.WAIT_SECONDS, python=None):
    """The settings with the Quillmere entries added (or removed), everything else as it was."""
    settings = dict(settings)
    hooks = dict(settings.get("hooks") or {})
    for event in list(hooks):
        kept = [group for group in hooks[event] or [] if not is_ours(group)]
        if kept:
            hooks[event] = kept
        elif hooks[event] and len(kept) != len(hooks[event]):
            del hooks[event]
    if install:
        for event, script, matcher, takes_settings, waits in HOOKS[cli]:
            command = hook_command(script, relay if takes_settings else None, wait_seconds, python)
            timeout = int(wait_seconds) + TIMEOUT_MARGIN_SECONDS if waits else QUICK_HOOK_TIMEOUT_SECONDS
            group = {"hooks": [{"type": "command", "command": command, "timeout": timeout}]}
            if matcher is not None:
                group = {"matcher": matcher, **group}
            hooks.setdefault(event, []).append(group)
    settings["hooks"] = hooks
    return settings


def read_settings(path):
    try:
        with open(path, encoding="utf-8") as handle:
            text = handle.read()
    except FileNotFoundError:
        return {}
    value = json.loads(text) if text.strip() else {}
    if not isinstance(value, dict):
        raise ValueError(f"{path} does not hold a JSON object")
    return value


def write_atomically(path, value):
    folder = os.path.dirname(os.path.abspath(path))
    os.makedirs(folder, exist_ok=True)
    descriptor, temporary = tempfile.mkstemp(dir=folder, prefix=".quillmere-")
    try:
        with os.fdopen(descriptor, "w", encoding="utf-8") as handle:
            json.dump(value, handle, indent=2)
            handle.write("\n")
        if os.path.exists(path):
            os.chmod(temporary, os.stat(path).st_mode & 0o777)
        os.replace(temporary, path)
    except BaseException:
        os.unlink(temporary)
        raise


def main(argv=None, environ=None):
    environ = os.environ if environ is None else environ
    parser = argparse.ArgumentParser(description="Install the Quillmere hooks for an agent CLI.")
    parser.add_argument("cli", choices=sorted(HOOKS))
    parser.add_argument("--uninstall", action="store_true", help="remove the hooks instead")
    parser.add_argument("--settings", help="the settings file to change (default: the CLI's own)")
    parser.add_argument("--relay", default=environ.get("MERE_RELAY_URL") or permission_hook.DEFAULT_RELAY_URL,
                        help="the relay's address (default: MERE_RELAY_URL, else %(default)s)")
    parser.add_argument("--wait", type=float, default=permission_hook.WAIT_SECONDS,
                        help="seconds the queue has to answer before the CLI asks itself (default: %(default)g)")
    args = parser.parse_args(argv)
    if not args.relay.startswith(("http://", "https://")):
        parser.error("--relay must be an http:// or https:// address")
    if not args.wait > 0:
        parser.error("--wait must be a positive number of seconds")
    path = args.settings or default_settings_path(args.cli, environ)
    try:
        settings = read_settings(path)
    except (OSError, ValueError) as error:
        print(f"install.py: cannot read {path}: {error}", file=sys.stderr)
        return 1
    write_atomically(path, updated_settings(settings, args.cli, not args.uninstall, args.relay, args.wait))
    done = "removed from" if args.uninstall else "installed in"
    print(f"Quillmere hooks {done} {path}")
    if args.cli == "codex" and not args.uninstall:
        print(CODEX_REVIEW_NOTE)
    return 0


if __name__ == "__main__":
    sys.exit(main())
