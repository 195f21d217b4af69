"""Administrative commands of server.py, run by hand against the relay's database."""

import argparse

from . import auth, totp
from .config import load_settings
from .db import Database


def totp_enable(db, email_address, out):
    address, secret, codes = auth.enable_totp(db, email_address)
    out(f"Two-factor sign-in is on for {address}.")
    out(f"Secret (enter it in an authenticator app): {secret}")
    out(f"Or scan this address as a QR code: {totp.provisioning_uri(secret, address)}")
    out("Recovery codes, each usable once (keep them somewhere safe):")
    for code in codes:
        out("  " + code)
    return 0


def totp_disable(db, email_address, out):
    if auth.disable_totp(db, email_address):
        out(f"Two-factor sign-in is off for {auth.normalise_email(email_address)}.")
        return 0
    out(f"No user with the address {email_address}.")
    return 1


COMMANDS = {"totp-enable": totp_enable, "totp-disable": totp_disable}


def run(argv, out=print):
    parser = argparse.ArgumentParser(prog="server.py", description="Administer the Quillmere relay's database.")
    parser.add_argument("command", choices=sorted(COMMANDS))
    parser.add_argument("email", help="the user's e-mail address")
    parser.add_argument("--db", help="database path (default: MERE_RELAY_DB_PATH or the data folder)")
    args = parser.parse_args(argv)
    settings = load_settings()
    db = Database(args.db or settings.db_path)
    try:
        return COMMANDS[args.command](db, args.email, out)
    except ValueError as error:
        out(str(error))
        return 2
    finally:
        db.close()
