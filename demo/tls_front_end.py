"""The TLS front ends of deploy/, adapted to a folder and ports of this machine."""

from __future__ import annotations

import contextlib
import getpass
import grp
import os
import random
import socket
import subprocess
from pathlib import Path
from typing import Mapping, Sequence

DEPLOY = Path(__file__).resolve().parents[1] / "deploy"
LOOPBACK = "127.0.0.1"
NAMES = f"localhost {LOOPBACK}"
"""The host names by which a client on this machine may reach the front end."""
FIRST_PORT = 10000
"""Below are the ports of many services."""
PORTS_OF_ANY = Path("/proc/sys/net/ipv4/ip_local_port_range")


def free_port() -> int:
    """A loopback port that is free now, and that the system gives to nobody who asks for any: a
    connection made meanwhile would take it."""
    first_of_any = int(PORTS_OF_ANY.read_text(encoding="ascii").split()[0])
    while True:
        port = random.randrange(FIRST_PORT, first_of_any) if first_of_any > 2 * FIRST_PORT else 0
        with socket.socket() as holder, contextlib.suppress(OSError):
            holder.bind((LOOPBACK, port))
            return int(holder.getsockname()[1])


def make_certificate(folder: Path) -> Path:
    """Makes a self-signed certificate for the names above, with its key in a file beside it."""
    certificate = folder / "server.pem"
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
         "-nodes", "-days", "2", "-subj", "/CN=kova-mcp on this machine only",
         "-addext", f"subjectAltName=DNS:localhost,IP:{LOOPBACK}",
         "-keyout", f"{certificate}.key", "-out", str(certificate)],
        check=True, stdin=subprocess.DEVNULL, capture_output=True, umask=0o077)
    return certificate


def filled(text: str, values: Mapping[str, str]) -> str:
    """The text with every key of `values` replaced. A key that the text lacks is an error, so that
    a change of the configuration is noticed."""
    for old, new in values.items():
        if old not in text:
            raise ValueError(f"the configuration has no {old!r}")
        text = text.replace(old, new)
    return text


def nginx_configuration(folder: Path, certificate: Path, port: int, listener_port: int) -> str:
    """deploy/nginx.conf for this user, with everything that nginx writes in the folder."""
    folders = "".join(f"    {kind}_temp_path {folder}/nginx-temp;\n"
                      for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
    return filled((DEPLOY / "nginx.conf").read_text("utf-8"), {
        "user www-data;": f"user {getpass.getuser()};",
        "worker_processes auto;": "worker_processes 1;",
        "/run/nginx.pid": f"{folder}/nginx.pid",
        "/var/log/nginx/": f"{folder}/nginx-",
        "http {\n": "http {\n" + folders,
        "/etc/kova-mcp/tls/server.pem": str(certificate),
        "listen 443 ssl": f"listen {LOOPBACK}:{port} ssl",
        "127.0.0.1:8080": f"{LOOPBACK}:{listener_port}",
        "mcp.example.com;": f"{NAMES};"})


def nginx_command(configuration: Path) -> list[str]:
    """Runs nginx as a single process, so that no worker is left however it ends."""
    return ["/usr/sbin/nginx", "-e", "stderr", "-c", str(configuration),
            "-g", "daemon off; master_process off;"]


def haproxy_configuration(certificate: Path, port: int, listener_ports: Sequence[int]) -> str:
    """deploy/haproxy.cfg for this user, logging to standard output."""
    first = "    server listener1 127.0.0.1:8080  # SET one line a listener\n"
    second = "    server listener2 127.0.0.1:8081  # SET\n"
    servers = "".join(f"    server listener{number} {LOOPBACK}:{listener_port}\n"
                      for number, listener_port in enumerate(listener_ports, 1))
    return filled((DEPLOY / "haproxy.cfg").read_text("utf-8"), {
        "log /dev/log local0": "log stdout format raw local0",
        "user haproxy": f"user {getpass.getuser()}",
        "group haproxy": f"group {grp.getgrgid(os.getgid()).gr_name}",
        "127.0.0.1:8079": f"{LOOPBACK}:{free_port()}",
        "/etc/kova-mcp/tls/server.pem": str(certificate),
        "bind :443": f"bind {LOOPBACK}:{port}",
        "abns@kova-mcp-chosen": f"abns@kova-mcp-chosen-{port}",
        "retries 1 ": f"retries {max(1, len(listener_ports) - 1)} ",
        "listener 1-2 ": f"listener 1-{len(listener_ports)} ",
        "-i mcp.example.com }": f"-i {NAMES} }}",
        first + second: servers})


def haproxy_command(configuration: Path) -> list[str]:
    return ["/usr/sbin/haproxy", "-W", "-f", str(configuration)]
