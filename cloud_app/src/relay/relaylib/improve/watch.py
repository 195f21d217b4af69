"""Which conversation logs changed since a scan, told by the kernel instead of found by looking
at every log's size and time: with thousands of logs, those looks are most of a rescan.

Linux's inotify watches each folder under the two log folders (Claude Code's project folders,
Codex's year, month and day folders). Nothing reads the events as they come: they wait in the
kernel's queue and are drained at the next scan, so the relay's event loop never blocks on
them and an idle relay spends nothing. The drained paths are kept for each reader (a user)
until that reader asks. When the events cannot be trusted to be complete, the reader is told
to look at everything instead (`changed_since` answers None):

- inotify is unavailable (not Linux, no instances left) or a folder cannot be watched (the
  user's watch limit, or this relay's own cap on folders);
- the kernel's queue overflowed, or a folder was moved away or renamed (its logs are
  elsewhere now, and the watches under it would report the old paths);
- the reader has never looked at everything through this watch (its first scan).

A full look (`walk`) watches each folder before listing it, so that a change made while it
lists is in the queue for the next scan, never lost between the two. A folder that appears
later (a new project, a new day) is watched when its creation is drained, and the logs already
in it count as changed; a log folder that does not exist yet is looked for at each scan.
"""

import ctypes
import logging
import os
import struct
import threading

from . import logs

log = logging.getLogger("relay")

# This relay's own cap on watched folders: the kernel's limit is shared by every program the
# person runs (editors watch whole trees), so beyond this many folders the scan looks at
# every log instead of taking more.
MAX_WATCHED_FOLDERS = 4096
# One read of the queue; a read takes whole events only, and the queue is read until empty.
READ_BYTES = 64 * 1024

IN_MODIFY = 0x00000002
IN_CLOSE_WRITE = 0x00000008
IN_MOVED_FROM = 0x00000040
IN_MOVED_TO = 0x00000080
IN_CREATE = 0x00000100
IN_DELETE = 0x00000200
IN_DELETE_SELF = 0x00000400
IN_MOVE_SELF = 0x00000800
IN_Q_OVERFLOW = 0x00004000
IN_IGNORED = 0x00008000
IN_ONLYDIR = 0x01000000
IN_EXCL_UNLINK = 0x04000000
IN_ISDIR = 0x40000000
IN_NONBLOCK = os.O_NONBLOCK
IN_CLOEXEC = os.O_CLOEXEC
# Writes, and every way a name comes or goes. Attribute changes (touch) are left out: they
# change no text.
FOLDER_EVENTS = (IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE
                 | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK)
_EVENT = struct.Struct("iIII")


class Inotify:
    """The three calls of libc's inotify, through ctypes: a descriptor that never blocks."""

    def __init__(self):
        libc = ctypes.CDLL(None, use_errno=True)
        self._add = libc.inotify_add_watch
        self._add.argtypes = (ctypes.c_int, ctypes.c_char_p, ctypes.c_uint32)
        self._add.restype = ctypes.c_int
        self._remove = libc.inotify_rm_watch
        self._remove.argtypes = (ctypes.c_int, ctypes.c_int)
        self._remove.restype = ctypes.c_int
        self.fd = libc.inotify_init1(IN_NONBLOCK | IN_CLOEXEC)
        if self.fd < 0:
            number = ctypes.get_errno()
            raise OSError(number, os.strerror(number))

    def add(self, path, mask=FOLDER_EVENTS):
        """The watch descriptor of folder `path` (the same one again for a folder already watched)."""
        wd = self._add(self.fd, os.fsencode(path), mask)
        if wd < 0:
            number = ctypes.get_errno()
            raise OSError(number, os.strerror(number), path)
        return wd

    def remove(self, wd):
        self._remove(self.fd, wd)

    def events(self):
        """Every event waiting in the queue, as (wd, mask, name), without waiting for more."""
        found = []
        while True:
            try:
                data = os.read(self.fd, READ_BYTES)
            except BlockingIOError:
                return found
            except InterruptedError:
                continue
            at = 0
            while at + _EVENT.size <= len(data):
                wd, mask, _, length = _EVENT.unpack_from(data, at)
                name = data[at + _EVENT.size:at + _EVENT.size + length].rstrip(b"\0")
                found.append((wd, mask, os.fsdecode(name)))
                at += _EVENT.size + length

    def close(self):
        os.close(self.fd)


def open_inotify():
    """An inotify instance, or None where there is none (another system, no instances left)."""
    try:
        return Inotify()
    except (OSError, AttributeError) as error:
        log.info("improve: watching the log folders is not possible (%s); each scan looks at every log", error)
        return None


class LogWatch:
    """The logs under `roots` ((folder, agent) pairs) changed since each reader last asked."""

    def __init__(self, roots, max_folders=MAX_WATCHED_FOLDERS, opener=open_inotify):
        self.roots = tuple(roots)
        self.max_folders = max_folders
        self._opener = opener
        self._lock = threading.Lock()
        self._inotify = None
        self._opened = False
        # Watch descriptor to (folder, agent), and each root's descriptor.
        self._folders = {}
        self._root_wds = {}
        # False while some folder under the roots is not watched: then only a walk is sure.
        self._complete = False
        # Bumped whenever events may have been lost; a reader whose walk is older walks again.
        self._generation = 0
        # Each reader's changed logs, as (path, agent), since it last asked.
        self._changed = {}
        self._missing = set()

    def close(self):
        with self._lock:
            if self._inotify is not None:
                self._inotify.close()
                self._inotify = None
            self._folders, self._root_wds = {}, {}
            self._complete = False

    def changed_since(self, reader, generation):
        """The logs changed since `reader` last asked, or None when that is not known: then the
        reader must walk (its first time, lost events, a folder that could not be watched)."""
        with self._lock:
            self._drain()
            if not self._told(reader, generation):
                return None
            changed, self._changed[reader] = self._changed[reader], set()
            return changed

    def pending(self, reader, generation):
        """What `changed_since` would answer now, left for the reader's next scan."""
        with self._lock:
            self._drain()
            return frozenset(self._changed[reader]) if self._told(reader, generation) else None

    def _told(self, reader, generation):
        return self._complete and generation == self._generation and reader in self._changed

    def walk(self, reader):
        """Every log under the roots, as `logs.find_logs` lists them, watching each folder before
        listing it. Returns (listing, generation): the generation to hand to `changed_since`,
        None when not every folder could be watched."""
        with self._lock:
            if not self._opened:
                self._opened = True
                self._inotify = self._opener()
            self._drain()
            # From here on, every change reaches this reader's set or is in the listing.
            self._changed[reader] = set()
            self._complete = self._inotify is not None
            before = set(self._folders)
            self._folders, self._root_wds, self._missing = {}, {}, set()
            listing = logs.find_logs(*self._root_folders(), on_folder=self._watch)
            if self._inotify is not None:
                for wd in before - set(self._folders):
                    # A folder moved or removed since the last walk: its old watch reports nothing useful.
                    self._inotify.remove(wd)
            # A log folder not there to be watched is looked for at each drain (not by the listing's
            # own test, which a folder made just after it would pass unwatched).
            watched = set(self._root_wds.values())
            self._missing = {root for root, _ in self.roots if root and root not in watched}
            return listing, (self._generation if self._complete else None)

    def _root_folders(self):
        by_agent = dict((agent, root) for root, agent in self.roots)
        return by_agent.get(logs.CLAUDE), by_agent.get(logs.CODEX)

    def _watch(self, folder, agent):
        """Watches `folder` for the walk or for a folder that appeared; False when it cannot be."""
        if self._inotify is None:
            return False
        if len(self._folders) >= self.max_folders:
            self._give_up(folder, "more than %d folders" % self.max_folders)
            return False
        try:
            wd = self._inotify.add(folder)
        except OSError as error:
            self._give_up(folder, error.strerror or str(error))
            return False
        self._folders[wd] = (folder, agent)
        if any(folder == root for root, _ in self.roots):
            self._root_wds[wd] = folder
        return True

    def _give_up(self, folder, reason):
        if self._complete:
            log.info("improve: cannot watch %s (%s); each scan looks at every log", folder, reason)
        self._complete = False
        # Changes in the folder are not told: a reader that walked before must walk again, even
        # after a later walk has watched every folder.
        self._lost()

    def _drain(self):
        if self._inotify is None:
            return
        for wd, mask, name in self._inotify.events():
            self._event(wd, mask, name)
        if not self._complete:
            # Every reader walks next, and the walk watches whatever folders there are.
            return
        # A log folder that did not exist at the walk is looked for again: it is new when it appears.
        for root in list(self._missing):
            if os.path.isdir(root):
                self._missing.discard(root)
                self._appeared(root, dict((r, a) for r, a in self.roots)[root])

    def _event(self, wd, mask, name):
        if mask & IN_Q_OVERFLOW:
            self._lost()
            return
        if mask & IN_IGNORED:
            # The folder is gone (or its watch removed); a root gone is looked for again.
            gone = self._folders.pop(wd, None)
            root = self._root_wds.pop(wd, None)
            if root is not None and gone is not None:
                self._missing.add(root)
            return
        if mask & IN_MOVE_SELF and wd in self._root_wds:
            # A log folder moved away takes its logs with it without an event for each.
            self._lost()
            return
        held = self._folders.get(wd)
        if held is None or not name:
            return
        folder, agent = held
        path = os.path.join(folder, name)
        if mask & IN_ISDIR:
            if mask & IN_MOVED_FROM:
                # Its logs are elsewhere now, and the watches under it would report old paths.
                self._lost()
            elif mask & (IN_CREATE | IN_MOVED_TO):
                self._appeared(path, agent)
            return
        if logs.is_log_name(name, agent):
            self._mark(path, agent)

    def _appeared(self, folder, agent):
        """A folder new under the roots: watched before it is listed, its logs changed."""
        for path, agent, _, _ in logs.walk_folder(folder, agent, on_folder=self._watch):
            self._mark(path, agent)

    def _mark(self, path, agent):
        for changed in self._changed.values():
            changed.add((path, agent))

    def _lost(self):
        self._generation += 1
        for reader in self._changed:
            self._changed[reader] = set()
