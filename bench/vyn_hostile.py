#!/usr/bin/env python3
"""Hostile local client: runs memory probes against a real tvd and reports
its resident memory (VmRSS) before, during (peak) and after each probe.

    bench/vyn_hostile.py path/to/tvd [--keep]

The daemon runs in a temporary directory with its own configuration. Probes:
  oneway   one connection floods one-way requests of 256 KiB of short strings
  claim    250 connections each announce a 4 MiB frame and send one byte
  amplify  8 connections each send 16 frames of 1 MiB of booleans, and one
           sends a 4 MiB frame of booleans
  after    all attack connections closed (kept open with --keep); 64
           ordinary clients, one request each
Figures are in MiB. Timing-dependent: a measurement, not a test.
"""
import os
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time


def u32(n):
    return struct.pack("<I", n)


def enc_str(s):
    b = s.encode()
    return b"\x06" + u32(len(b)) + b


def enc_dict(entries):
    out = b"\x0b" + u32(len(entries))
    for k, v in entries:
        out += u32(len(k)) + k.encode() + v
    return out


def frame(body, msg_id, reply=True):
    return struct.pack("<BBHIQQ", 1, 1 if reply else 0, 0, len(body), msg_id, 0) + body


def request(pad):
    return enc_dict([("pad", pad), ("request", enc_str("bulk")), ("version", b"\x04" + struct.pack("<Q", 3))])


def rss_mib(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024.0
    return 0.0


class Peak:
    def __init__(self, pid):
        self.pid, self.peak, self.stop = pid, 0.0, False
        self.t = threading.Thread(target=self.run, daemon=True)
        self.t.start()

    def run(self):
        while not self.stop:
            self.peak = max(self.peak, rss_mib(self.pid))
            time.sleep(0.02)

    def end(self):
        self.stop = True
        self.t.join()
        return self.peak


def connect(path):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.connect(path)
    return s


def send_for(sock, data, seconds):
    """Writes as much of `data` as the daemon takes within `seconds`."""
    sock.setblocking(False)
    view, end = memoryview(data), time.time() + seconds
    while view and time.time() < end:
        try:
            n = sock.send(view[: 1 << 20])
            view = view[n:]
        except BlockingIOError:
            time.sleep(0.01)
        except OSError:
            break
    return len(data) - len(view)


def probe(pid, name, fn):
    before = rss_mib(pid)
    peak = Peak(pid)
    keep = fn()
    time.sleep(3.0)
    high = peak.end()
    print(f"{name:8s} before {before:8.1f}  peak {high:8.1f}  end {rss_mib(pid):8.1f}", flush=True)
    return keep


def main():
    tvd = os.path.abspath(sys.argv[1])
    root = tempfile.mkdtemp(prefix="vyn-hostile-")
    conf = os.path.join(root, "tvd.conf")
    with open(conf, "w") as f:
        for key in ["socket_dir", "runtime_dir", "registry_database", "containers_root", "preferences_dir",
                    "privacy_grants", "entitlements_dir", "system_plugins_dir", "sdk_dir", "types_dir"]:
            f.write(f"{key} = {root}/{key}\n")
        f.write(f"application_roots = {root}/apps\n")
    sock_path = os.path.join(root, "tvd.sock")
    env = dict(os.environ, TVD_CONFIG=conf)
    daemon = subprocess.Popen([tvd, "-S", sock_path], env=env, stderr=subprocess.DEVNULL)
    for _ in range(200):
        if os.path.exists(sock_path):
            break
        time.sleep(0.05)
    time.sleep(0.3)
    pid = daemon.pid
    held = []
    try:
        print(f"start    {rss_mib(pid):8.1f}", flush=True)

        def oneway():
            s = connect(sock_path)
            pad = b"\x0a" + u32(43000) + b"\x06\x01\x00\x00\x00x" * 43000  # 256 KiB of one-letter strings
            data = b"".join(frame(request(pad), i + 1, reply=False) for i in range(400))
            send_for(s, data, 8)
            return [s]

        held += probe(pid, "oneway", oneway)

        def claim():
            socks = []
            for _ in range(250):
                s = connect(sock_path)
                s.sendall(struct.pack("<BBHIQQ", 1, 1, 0, (4 << 20) - 24, 1, 0) + b"\x0b")
                socks.append(s)
            return socks

        held += probe(pid, "claim", claim)

        def amplify():
            socks, threads = [], []
            pad = b"\x0a" + u32((1 << 20) - 64) + b"\x02" * ((1 << 20) - 64)
            data = b"".join(frame(request(pad), i + 1) for i in range(16))
            for _ in range(8):
                s = connect(sock_path)
                socks.append(s)
                t = threading.Thread(target=send_for, args=(s, data, 8))
                t.start()
                threads.append(t)
            big = connect(sock_path)
            socks.append(big)
            n = (4 << 20) - 128
            send_for(big, frame(request(b"\x0a" + u32(n) + b"\x02" * n), 1), 8)
            for t in threads:
                t.join()
            return socks

        held += probe(pid, "amplify", amplify)

        if "--keep" not in sys.argv:
            for s in held:
                s.close()
        time.sleep(3)

        def after():
            clients = [connect(sock_path) for _ in range(64)]
            for c in clients:
                c.sendall(frame(request(enc_str("x")), 1))
            for c in clients:
                c.settimeout(10)
                try:
                    c.recv(4096)
                except OSError:
                    pass
            time.sleep(1)
            return clients

        for c in probe(pid, "after", after):
            c.close()
    finally:
        daemon.terminate()
        daemon.wait()


if __name__ == "__main__":
    main()
