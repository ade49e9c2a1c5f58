"""What the measured programs run against: the sample engine, a policy and an environment."""

from __future__ import annotations

import json
import secrets
import shutil
import sqlite3
import subprocess
from contextlib import closing
from pathlib import Path

ROWS_OF_ITEMS = 100
ROWS_OF_ORDERS, COLUMNS_OF_ORDERS = 256, 64
"""The limits of a result."""
POLICY = {
    "version": 1, "name": "bench_reads", "client_id": "bench", "database": "bench",
    "database_user": "bench", "reads_enabled": True, "provider_reads_enabled": False,
    "writes_enabled": False, "approval_required": False,
    "allowed_tables": ["ITEMS", "ORDERS", "CUSTOMERS"], "denied_columns": [],
    "allowed_collections": [], "write_tables": [], "write_types": [], "approval_ttl_seconds": 300,
    "approval_state_directory": ""}


def make_database(path: Path) -> None:
    columns = [f"C{number}" for number in range(1, COLUMNS_OF_ORDERS + 1)]
    with closing(sqlite3.connect(path)) as database, database:
        database.execute("CREATE TABLE ITEMS (ID INTEGER PRIMARY KEY, NAME TEXT)")
        database.executemany("INSERT INTO ITEMS (NAME) VALUES (?)",
                             [(f"item {number}",) for number in range(ROWS_OF_ITEMS)])
        database.execute("CREATE TABLE ORDERS (ID INTEGER PRIMARY KEY, "
                         f"{' TEXT, '.join(columns)} TEXT)")
        database.executemany(
            f"INSERT INTO ORDERS ({', '.join(columns)}) VALUES ({','.join('?' * len(columns))})",
            [[f"cell {number}" for number in range(len(columns))] for _ in range(ROWS_OF_ORDERS)])


class Stage:
    """A running sample engine; `close` ends it. The folder is empty and goes away with the run."""

    def __init__(self, build: Path, folder: Path) -> None:
        self._build, self.folder = build, folder
        (folder / "data").mkdir()
        self.database = folder / "data" / "bench.db"
        make_database(self.database)
        self.policy = folder / "policy.json"
        self.policy.write_text(json.dumps(POLICY, indent=2) + "\n", encoding="utf-8")
        (folder / "users").write_text("bench:bench\n", encoding="ascii")
        self.engine = subprocess.Popen(
            [str(build / "linux" / "sample" / "kova-sample-engine"), "--data",
             str(folder / "data"), "--users", str(folder / "users")],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        assert self.engine.stdout is not None
        self._port = self.engine.stdout.readline().strip().rpartition(":")[2]
        if not self._port:
            raise OSError("the sample engine does not start")

    def profile(self) -> "dict[str, str]":
        """The variables of a server, without its policy: paths are the target's own."""
        return {"KOVA_MCP_SERVER": "127.0.0.1", "KOVA_MCP_PORT": self._port,
                "KOVA_MCP_DATABASE": "bench", "KOVA_MCP_USER": "bench",
                "KOVA_MCP_PASSWORD": "bench", "KOVA_MCP_CLIENT_ID": "bench"}

    def environment(self) -> "dict[str, str]":
        """Of a Linux server."""
        return {**self.profile(), "KOVA_MCP_POLICY": str(self.policy)}

    def listener_environment(self) -> "dict[str, str]":
        """The limit of requests and the need of a TLS proxy are not measured."""
        return {**self.environment(), "KOVA_MCP_HTTP_RATE_PER_MINUTE": "4294967295",
                "KOVA_MCP_HTTP_ALLOW_PLAINTEXT_LOOPBACK": "1",
                "KOVA_MCP_HTTP_BEARER_TOKEN": secrets.token_hex(32)}

    def installed(self, name: str, *floors: str) -> Path:
        """The Linux server in a folder of this name, with its client library and what it is
        compared with: the kernel loads a copied file a little faster than one that the linker has
        written."""
        return self._copied(name, "linux", "kova-mcp", "sample/libkovadll.so",
                            *(f"bench/{floor}" for floor in floors))

    def installed_for_windows(self) -> Path:
        return self._copied("windows", "windows", "kova-mcp.exe", "sample/kovadll.dll",
                            "bench/empty-program.exe", "bench/relay.exe")

    def _copied(self, name: str, preset: str, *files: str) -> Path:
        """The first of the files."""
        folder = self.folder / name
        folder.mkdir()
        return [Path(shutil.copy2(self._build / preset / file, folder)) for file in files][0]

    def close(self) -> None:
        assert self.engine.stdout is not None
        self.engine.terminate()
        self.engine.wait()
        self.engine.stdout.close()
