"""A minimal SMTP server that keeps the messages it receives, for tests of mail delivery."""

import socket
import threading


class FakeSmtp:
    def __init__(self):
        self.messages = []
        self._listener = socket.socket()
        self._listener.bind(("127.0.0.1", 0))
        self._listener.listen(5)
        self.port = self._listener.getsockname()[1]
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def close(self):
        self._listener.close()

    def _serve(self):
        while True:
            try:
                conn, _ = self._listener.accept()
            except OSError:
                return
            threading.Thread(target=self._session, args=(conn,), daemon=True).start()

    def _session(self, conn):
        with conn, conn.makefile("rb") as reader:
            conn.sendall(b"220 fake ESMTP\r\n")
            recipients = []
            while True:
                line = reader.readline()
                if not line:
                    return
                verb = line[:4].upper()
                if verb in (b"EHLO", b"HELO"):
                    conn.sendall(b"250 fake\r\n")
                elif verb == b"MAIL":
                    recipients = []
                    conn.sendall(b"250 ok\r\n")
                elif verb == b"RCPT":
                    recipients.append(line.decode().split(":", 1)[1].strip().strip("<>"))
                    conn.sendall(b"250 ok\r\n")
                elif verb == b"DATA":
                    conn.sendall(b"354 go on\r\n")
                    self.messages.append((recipients, self._data(reader)))
                    conn.sendall(b"250 queued\r\n")
                elif verb == b"QUIT":
                    conn.sendall(b"221 bye\r\n")
                    return
                else:
                    conn.sendall(b"250 ok\r\n")

    @staticmethod
    def _data(reader):
        lines = []
        while True:
            line = reader.readline()
            if not line or line in (b".\r\n", b".\n"):
                return b"".join(lines).decode("utf-8", "replace")
            lines.append(line)
