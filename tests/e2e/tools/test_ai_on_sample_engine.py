"""The four AI tools on the sample engine: what they find, and what they leave behind."""

from __future__ import annotations

import json
import re
import threading
from typing import Any, Callable, Iterator

import pytest

from harness.ai_calls import AI_STATUS, HYBRID_SEARCH, TEXT_SEARCH, VECTOR_SEARCH
from harness.messages import call, cancel, cancelled_reply, tool_error_reply
from harness.sample_engine import ARTICLES, USER, Engine, Session, make_database
from harness.servers import Server, Servers
from harness.waiting import wait_until

HITS = ["RANK", "SCORE", "VECTOR_ID", "SOURCE_KEY"]
CALLS_OF_EACH = 8

Start = Callable[..., Server]


@pytest.fixture
def engine(start_sample_engine: Callable[..., Engine]) -> Engine:
    return start_sample_engine()


@pytest.fixture
def watcher(engine: Engine) -> Iterator[Session]:
    """A session beside the servers', on a database whose collections are built."""
    make_database(engine.data / "docs.db", ARTICLES)
    with engine.session("docs") as session:
        wait_until(lambda: status(session)["STATE"] == "READY")
        yield session


def status(session: Session) -> dict[str, "str | None"]:
    reply = session.run("SHOW AI STATUS DOCS;")
    assert reply.success, reply.status
    return dict(zip(reply.names, reply.rows[0]))


@pytest.fixture
def start_server(policy, engine: Engine, watcher: Session, servers: Servers) -> Start:
    granted = policy(database="docs", database_user=USER, denied_columns=["PRICE"],
                     allowed_tables=["ARTICLES", "DOCS_VECTORS", "SLOW", "ABSENT"],
                     allowed_collections=["DOCS", "BARE", "LOST", "NOTHING"])

    def start(**env: str) -> Server:
        server = servers.start(env={**granted, **engine.profile("docs"), **env}, library="sample")
        server.initialize()
        return server

    return start


@pytest.fixture
def server(start_server: Start) -> Server:
    return start_server()


def result_of(server: Server, tool: str, **arguments: Any) -> dict[str, Any]:
    result = json.loads(server.ask(call(1, tool, arguments)))["result"]
    assert result["isError"] is False, result
    assert json.loads(result["content"][0]["text"]) == result["structuredContent"]
    return result["structuredContent"]


def fails(server: Server, tool: str, message: str, **arguments: Any) -> None:
    assert server.ask(call(1, tool, arguments)) == tool_error_reply("1", message)


def hybrid(text: str, **changes: Any) -> dict[str, Any]:
    return {"collection": "DOCS", "text": text, "top": 3, "source_table": "ARTICLES",
            "key_field": "ID", "columns": ["TITLE", "BODY"], **changes}


def no_table_is_left(watcher: Session) -> bool:
    return status(watcher)["TEMPORARY_TABLES"] == "0"


def test_a_text_search_finds_what_is_near(server: Server) -> None:
    found = result_of(server, TEXT_SEARCH, collection="DOCS", text="O'Brien's planes", top=2)
    assert found["columns"] == HITS and found["truncated"] is True
    assert [row[0] for row in found["rows"]] == ["1", "2"]
    assert found["rows"][0][3] == "5"
    assert float(found["rows"][0][1]) > float(found["rows"][1][1])


def test_fewer_rows_than_asked_for_are_not_truncated(server: Server) -> None:
    found = result_of(server, TEXT_SEARCH, collection="docs", text="a car\non\tthe road", top=256)
    assert (found["rowCount"], found["truncated"], found["rows"][0][3]) == (5, False, "1")


def test_a_vector_search_finds_the_row_of_the_vector(server: Server) -> None:
    offered = result_of(server, "kova_query", sql="SELECT SOURCE_KEY, VECTOR FROM DOCS_VECTORS")
    assert offered["rowCount"] == 5
    for key, text in offered["rows"]:
        found = result_of(server, VECTOR_SEARCH, collection="DOCS", vector=json.loads(text), top=1)
        assert found["columns"] == HITS
        assert (found["rows"][0][1], found["rows"][0][3]) == ("1.0", key)


def test_a_hybrid_search_joins_the_source_rows(server: Server, watcher: Session) -> None:
    found = result_of(server, HYBRID_SEARCH, **hybrid("trains on rails"))
    assert found["columns"] == [*HITS, "TITLE", "BODY"]
    assert [row[0] for row in found["rows"]] == ["1", "2", "3"]
    assert found["rows"][0][3:] == ["4", "grey train", "a train on rails"]
    assert [row[:4] for row in found["rows"]] == result_of(
        server, TEXT_SEARCH, collection="DOCS", text="trains on rails", top=3)["rows"]
    assert no_table_is_left(watcher)


def test_the_status_of_collection_jobs_and_provider(server: Server) -> None:
    shown = json.loads(json.loads(server.ask(call(1, AI_STATUS, {
        "collection": "DOCS", "provider": "LOCAL"})))["result"]["content"][0]["text"])
    collection = dict(zip(shown["collection"]["columns"], shown["collection"]["rows"][0]))
    assert (collection["STATE"], collection["VECTORS"]) == ("READY", "5")
    provider = dict(zip(shown["provider"]["columns"], shown["provider"]["rows"][0]))
    assert (provider["PROVIDER"], provider["DIMENSION"]) == ("LOCAL", "256")
    assert [row[1:4] for row in shown["jobs"]["rows"]] == [["BUILD", "", "DONE"]]
    alone = result_of(server, AI_STATUS, collection="DOCS")
    assert alone["provider"] is None and alone["collection"]["rows"] == shown["collection"]["rows"]


@pytest.mark.parametrize("tool, arguments, message", [
    (TEXT_SEARCH, {"collection": "NOTHING", "text": "x", "top": 1}, "no such collection: NOTHING"),
    (TEXT_SEARCH, {"collection": "BARE", "text": "x", "top": 1}, "collection BARE is empty"),
    (TEXT_SEARCH, {"collection": "LOST", "text": "x", "top": 1},
     "collection LOST cannot be built: no such table: main.NOWHERE"),
    (VECTOR_SEARCH, {"collection": "DOCS", "vector": [1, 2.5, -3], "top": 1},
     "the query has 3 elements, collection DOCS has 256"),
    (VECTOR_SEARCH, {"collection": "DOCS", "vector": [1e-46] * 256, "top": 1},
     "the query is zero and has no direction"),
    (HYBRID_SEARCH, hybrid("x", collection="NOTHING"), "no such collection: NOTHING"),
    (HYBRID_SEARCH, hybrid("x", source_table="ABSENT"), "no such table: ABSENT"),
    (HYBRID_SEARCH, hybrid("x", columns=["ABSENT"]), "no such column: ARTICLES.ABSENT"),
    (AI_STATUS, {"collection": "NOTHING"}, "no such collection: NOTHING"),
    (AI_STATUS, {"collection": "DOCS", "provider": "NOBODY"}, "no such provider: NOBODY"),
])
def test_the_engines_words_reach_the_client(server: Server, watcher: Session, tool: str,
                                            arguments: dict[str, Any], message: str) -> None:
    fails(server, tool, message, **arguments)
    wait_until(lambda: no_table_is_left(watcher))


def test_with_the_kill_switch_only_vectors_are_searched(start_server: Start) -> None:
    server = start_server(KOVA_MCP_DISABLE_PROVIDERS="1")
    message = "provider-backed MCP reads are disabled by policy or kill switch"
    fails(server, TEXT_SEARCH, message, collection="DOCS", text="x", top=1)
    fails(server, HYBRID_SEARCH, message, **hybrid("x"))
    fails(server, AI_STATUS, "provider status is disabled by policy or kill switch",
          collection="DOCS", provider="LOCAL")
    assert result_of(server, AI_STATUS, collection="DOCS")["provider"] is None
    found = result_of(server, VECTOR_SEARCH, collection="DOCS", vector=[1] * 256, top=5)
    assert found["rowCount"] == 5


def test_servers_beside_each_other_share_no_temporary_table(start_server: Start, engine: Engine,
                                                            watcher: Session) -> None:
    wanted = [("fast red car", "1"), ("boat that sails on the sea", "2")]
    servers = [start_server() for _ in wanted]
    found: list[list[str]] = [[] for _ in wanted]

    def search(number: int) -> None:
        for _ in range(CALLS_OF_EACH):
            rows = result_of(servers[number], HYBRID_SEARCH, **hybrid(wanted[number][0]))["rows"]
            found[number].append(rows[0][3])

    threads = [threading.Thread(target=search, args=(number,)) for number in range(len(wanted))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert found == [[key] * CALLS_OF_EACH for _, key in wanted]
    made = [re.search(r"session (\d+): SEARCH .* INTO TEMP (mcp_hits_\d+_1); -> OK ", line)
            for line in engine.log()]
    tables = {(match[1], match[2]) for match in made if match}
    assert len(tables) == len({session for session, _ in tables}) == 2 * CALLS_OF_EACH
    for session, table in tables:
        assert engine.logged(f"session {session}: DROP TABLE {table}; -> OK")
    assert no_table_is_left(watcher) and not engine.logged("its temporary tables with it")


def begin_slow_search(server: Server, watcher: Session) -> None:
    """Starts a hybrid search whose join never ends, and waits for the join."""
    server.send(call(7, HYBRID_SEARCH, hybrid("red car", source_table="SLOW", columns=["TITLE"])))
    wait_until(lambda: status(watcher)["TEMPORARY_TABLES"] == "1")
    server.expect_silence(0.3)


def everything_ended(engine: Engine, watcher: Session) -> None:
    wait_until(lambda: no_table_is_left(watcher))
    wait_until(lambda: engine.logged("FROM mcp_hits_", "-> interrupted"))
    wait_until(lambda: engine.logged("ended, and its temporary tables with it: 1"))
    assert not engine.logged("DROP TABLE")


def test_a_cancelled_hybrid_search_leaves_no_temporary_table(server: Server, engine: Engine,
                                                             watcher: Session) -> None:
    begin_slow_search(server, watcher)
    assert server.ask(cancel(7)) == cancelled_reply("7")
    everything_ended(engine, watcher)
    assert result_of(server, HYBRID_SEARCH, **hybrid("red car"))["rows"][0][4] == "red car"
    assert no_table_is_left(watcher)


def test_a_killed_server_leaves_no_temporary_table(server: Server, engine: Engine,
                                                   watcher: Session) -> None:
    begin_slow_search(server, watcher)
    server.kill()
    everything_ended(engine, watcher)
