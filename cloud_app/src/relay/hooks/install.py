#!/usr/bin/env python3
"""Installs (or removes) a Quillmere permission hook in the user's Claude Code or Codex settings.

    python3 install.py claude      adds the hook to ~/.claude/settings.json
    python3 install.py codex       adds the hook to ~/.codex/hooks.json
    python3 install.py claude --uninstall

Other hooks and settings in the file are kept; running it again replaces the
earlier Quillmere entry instead of adding a second one. The file is written
atomically. No token or other secret is written: the hook signs in by itself.
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
# The CLI stops waiting for the hook a little after the hook itself gives up.
TIMEOUT_MARGIN_SECONDS = 30

TARGETS = {
    "claude": {"script": "claude_permission.py", "matcher": "*"},
    "codex": {"script": "codex_permission.py", "matcher": None},
}


def default_settings_path(cli, environ):
    home = environ.get("HOME") or os.path.expanduser("~")
    if cli == "claude":
        return os.path.join(environ.get("CLAUDE_CONFIG_DIR") or os.path.join(home, ".claude"), "settings.json")
    return os.path.join(environ.get("CODEX_HOME") or os.path.join(home, ".codex"), "hooks.json")


def hook_command(cli, python=None):
    script = os.path.join(HERE, TARGETS[cli]["script"])
    return f"{shlex.quote(python or sys.executable)} {shlex.quote(script)}"


def is_ours(group, cli):
    script = TARGETS[cli]["script"]
    hooks = group.get("hooks") if isinstance(group, dict) else None
    return isinstance(hooks, list) and any(
        isinstance(hook, dict) and script in str(hook.get("command", "")) for hook in hooks)


def updated_settings(settings, cli, install, wait_seconds=permission_hook.WAIT_SECONDS, python=None):
    """The settings with the Quillmere entry added (or removed), everything else as it was."""
    settings = dict(settings)
    hooks = dict(settings.get("hooks") or {})
    groups = [group for group in hooks.get("PermissionRequest") or [] if not is_ours(group, cli)]
    if install:
        entry = {"type": "command", "command": hook_command(cli, python),
                 "timeout": int(wait_seconds) + TIMEOUT_MARGIN_SECONDS}
        group = {"hooks": [entry]}
        if TARGETS[cli]["matcher"] is not None:
            group = {"matcher": TARGETS[cli]["matcher"], "hooks": [entry]}
        groups.append(group)
    if groups:
        hooks["PermissionRequest"] = groups
    else:
        hooks.pop("PermissionRequest", None)
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
    parser = argparse.ArgumentParser(description="Install the Quillmere permission hook for an agent CLI.")
    parser.add_argument("cli", choices=sorted(TARGETS))
    parser.add_argument("--uninstall", action="store_true", help="remove the hook instead")
    parser.add_argument("--settings", help="the settings file to change (default: the CLI's own)")
    args = parser.parse_args(argv)
    path = args.settings or default_settings_path(args.cli, environ)
    try:
        settings = read_settings(path)
    except (OSError, ValueError) as error:
        print(f"install.py: cannot read {path}: {error}", file=sys.stderr)
        return 1
    wait = permission_hook.wait_seconds_setting(environ)
    write_atomically(path, updated_settings(settings, args.cli, not args.uninstall, wait))
    done = "removed from" if args.uninstall else "installed in"
    print(f"Quillmere permission hook {done} {path}")
    if args.cli == "codex" and not args.uninstall:
        print("Codex asks you to review and trust a new hook once: run /hooks inside Codex.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
