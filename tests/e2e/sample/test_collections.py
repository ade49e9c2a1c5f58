"""The sample engine's AI collections: statements, errors, jobs, temporary tables, relevance."""

from __future__ import annotations

import glob
import json
import math
import sqlite3
import subprocess
from contextlib import closing
from pathlib import Path
from typing import Iterator

import pytest

from harness.sample_engine import (ARTICLES, ENDLESS, Client, Engine, Session, embed,
                                   make_database, read_database)
from harness.targets import ROOT
from harness.waiting import TIMEOUT, wait_until

pytestmark = pytest.mark.sample_engine

HITS = ["RANK", "SCORE", "VECTOR_ID", "SOURCE_KEY"]
DIMENSION = 256


@pytest.fixture
def docs(engine: Engine) -> Iterator[Session]:
    make_database(engine.data / "docs.db", ARTICLES)
    with engine.session("docs") as session:
        wait_until(lambda: status(session, "DOCS")["STATE"] == "READY")
        yield session


def one_row(session: Session, statement: str) -> dict[str, "str | None"]:
    reply = session.run(statement)
    assert reply.success and len(reply.rows) == 1, reply.status
    return dict(zip(reply.names, reply.rows[0]))


def status(session: Session, name: str) -> dict[str, "str | None"]:
    return one_row(session, f"SHOW AI STATUS {name};")


def keys(session: Session, text: str, top: int = 3, name: str = "DOCS") -> list[str]:
    reply = session.run(f"SEARCH AI {name} TEXT '{text}' TOP {top};")
    assert reply.success and reply.names == HITS, reply.status
    return [row[3] for row in reply.rows]


def jobs(session: Session, name: str = "DOCS") -> list[list["str | None"]]:
    """Kind, source key and state, the newest first."""
    return [row[1:4] for row in session.all_rows(f"SHOW AI JOBS FOR {name};")]


# searching


def test_a_text_search_returns_ranked_hits(docs: Session) -> None:
    reply = docs.run("SEARCH AI DOCS TEXT 'fast cars' TOP 3;")
    assert (reply.success, reply.status, reply.names) == (True, "OK", HITS)
    assert [row[0] for row in reply.rows] == ["1", "2", "3"]
    assert reply.rows[0][3] == "1"
    scores = [float(row[1]) for row in reply.rows]
    assert scores == sorted(scores, reverse=True) and 0.3 < scores[0] <= 1
    assert len({row[2] for row in reply.rows}) == 3


@pytest.mark.parametrize("statement", [
    "search ai docs text 'sailing boats' top 1", " Search\tAI\nDOCS  Text'sailing boats'Top 1 ; "])
def test_statements_are_read_in_any_spelling(docs: Session, statement: str) -> None:
    reply = docs.run(statement)
    assert reply.success and reply.rows[0][3] == "2", reply.status


def test_a_quote_in_the_text_is_written_twice(docs: Session) -> None:
    assert keys(docs, "O''Brien''s", 1) == ["5"]
    assert keys(docs, "''", 1) == []


def test_a_search_returns_at_most_what_there_is(docs: Session) -> None:
    assert len(keys(docs, "car", 1000)) == 5
    assert len(keys(docs, "car", 2)) == 2


def test_a_row_is_nearest_to_its_own_vector(docs: Session) -> None:
    for key, text in docs.all_rows("SELECT SOURCE_KEY, VECTOR FROM DOCS_VECTORS"):
        elements = json.loads(text)
        assert len(elements) == DIMENSION
        assert math.isclose(sum(x * x for x in elements), 1, rel_tol=1e-5)
        [hit] = docs.all_rows(f"SEARCH AI DOCS QUERY {text} TOP 1;")
        assert (hit[0], hit[1], hit[3]) == ("1", "1.0", key)


def test_the_length_of_a_query_does_not_matter(docs: Session) -> None:
    elements = json.loads(docs.all_rows(
        "SELECT VECTOR FROM DOCS_VECTORS WHERE SOURCE_KEY = 2")[0][0])
    expected = docs.all_rows(f"SEARCH AI DOCS QUERY {json.dumps(elements)} TOP 5;")
    for factor in (1e-20, 0.5, 1e30):
        scaled = json.dumps([x * factor for x in elements])
        assert [row[3] for row in docs.all_rows(f"SEARCH AI DOCS QUERY {scaled} TOP 5;")] == [
            row[3] for row in expected]


def test_searches_go_through_the_client_library(docs: Session, engine: Engine,
                                                client: Client) -> None:
    result = client.run(engine.port, "SEARCH AI DOCS TEXT 'two wheels' TOP 1 INTO TEMP H;",
                        "SELECT H.RANK,H.SOURCE_KEY,ARTICLES.TITLE FROM H,ARTICLES"
                        " WHERE H.SOURCE_KEY=ARTICLES.ID;", "DROP TABLE H;", database="docs")
    assert result.lines == ["status: OK", "status: OK", "RANK\tSOURCE_KEY\tTITLE",
                            "1\t3\tgreen bicycle", "status: OK"]


SEARCH_FORM = ("expected: search ai NAME text '...' top N; or search ai NAME query [...] top N;"
               " and into temp NAME at its end, or not")
SHOW_FORM = "expected: show ai status NAME; show ai jobs for NAME; or show ai provider NAME;"
ZEROS = ",".join(["0"] * DIMENSION)


@pytest.mark.parametrize("statement, message", [
    ("SEARCH", SEARCH_FORM),
    ("SEARCH DOCS TEXT 'x' TOP 1", SEARCH_FORM),
    ("SEARCH AI DOCS TEXT x TOP 1", SEARCH_FORM),
    ("SEARCH AI DOCS TEXT 'x TOP 1", SEARCH_FORM),
    ("SEARCH AI DOCS TEXT 'x'", SEARCH_FORM),
    ("SEARCH AI DOCS TEXT 'x' TOP", SEARCH_FORM),
    ("SEARCH AI DOCS TEXT 'x' TOP 1 INTO H", SEARCH_FORM),
    ("SEARCH AI DOCS TEXT 'x' TOP 1 INTO TEMP", SEARCH_FORM),
    ("SEARCH AI DOCS TEXT 'x' TOP 1 INTO TEMP H I", SEARCH_FORM),
    ("SEARCH AI DOCS TEXT 'x' TOP 1; DELETE FROM ARTICLES", SEARCH_FORM),
    ("SEARCH AI DOCS QUERY 1,2 TOP 1", SEARCH_FORM),
    ("SEARCH AI DOCS QUERY [1,2 TOP 1", SEARCH_FORM),
    ("SEARCH AI DOCS TEXT 'x' TOP 0", "top must be 1 to 1000"),
    ("SEARCH AI DOCS TEXT 'x' TOP 1001", "top must be 1 to 1000"),
    ("SEARCH AI DOCS TEXT 'x' TOP 1e2", "top must be 1 to 1000"),
    ("SEARCH AI DOCS TEXT 'x' TOP 99999999999999999999", "top must be 1 to 1000"),
    ("SEARCH AI NOTHING TEXT 'x' TOP 1", "no such collection: NOTHING"),
    ("SEARCH AI ALIEN TEXT 'x' TOP 1", "no such provider: ELSEWHERE"),
    ("SEARCH AI BARE TEXT 'x' TOP 1", "collection BARE is empty"),
    (f"SEARCH AI BARE QUERY [1{ZEROS[1:]}] TOP 1", "collection BARE is empty"),
    ("SEARCH AI LOST TEXT 'x' TOP 1",
     "collection LOST cannot be built: no such table: main.NOWHERE"),
    ("SEARCH AI DOCS QUERY [] TOP 1", "the query has 0 elements, collection DOCS has 256"),
    ("SEARCH AI DOCS QUERY [1,2.5,-3] TOP 1", "the query has 3 elements, collection DOCS has 256"),
    (f"SEARCH AI DOCS QUERY [1,{ZEROS}] TOP 1",
     "the query has 257 elements, collection DOCS has 256"),
    ("SEARCH AI DOCS QUERY [1,x] TOP 1", "element 2 of the query is no number"),
    ("SEARCH AI DOCS QUERY [1,,2] TOP 1", "element 2 of the query is no number"),
    ("SEARCH AI DOCS QUERY [1e39] TOP 1", "element 1 of the query is no number"),
    ("SEARCH AI DOCS QUERY [nan] TOP 1", "element 1 of the query is no number"),
    (f"SEARCH AI DOCS QUERY [{ZEROS}] TOP 1", "the query is zero and has no direction"),
    ("SHOW AI", SHOW_FORM), ("SHOW AI STATUS", SHOW_FORM), ("SHOW AI JOBS DOCS", SHOW_FORM),
    ("SHOW AI STATUS A B", SHOW_FORM), ("SHOW TABLES", SHOW_FORM),
    ("SHOW AI STATUS NOTHING", "no such collection: NOTHING"),
    ("SHOW AI JOBS FOR NOTHING", "no such collection: NOTHING"),
    ("SHOW AI PROVIDER ELSEWHERE", "no such provider: ELSEWHERE"),
])
def test_what_is_refused_has_a_message(docs: Session, statement: str, message: str) -> None:
    reply = docs.run(statement + ";")
    assert (reply.success, reply.status) == (False, message)


def test_a_database_without_collections_has_none(engine: Engine) -> None:
    with engine.session() as session:
        for statement in ("SEARCH AI DOCS TEXT 'x' TOP 1;", "SHOW AI STATUS DOCS;",
                          "SHOW AI JOBS FOR DOCS;"):
            assert session.run(statement).status == "no such collection: DOCS"
    assert read_database(engine.data / "shop.db", "SELECT COUNT(*) FROM sqlite_schema"
                         " WHERE name LIKE 'AI%'") == [(0,)]


def test_nothing_is_searched_before_the_login(docs: Session, engine: Engine) -> None:
    with engine.connect() as connection:
        session = Session(connection).greet()
        assert session.run("use docs;").success
        assert session.run("SEARCH AI DOCS TEXT 'x' TOP 1;").status == "not logged in"
        assert session.run("SHOW AI PROVIDER LOCAL;").status == "not logged in"


# status and jobs


def test_the_status_of_a_collection(docs: Session) -> None:
    assert status(docs, "docs") == {
        "COLLECTION": "DOCS", "STATE": "READY", "VECTORS": "5", "DIMENSION": "256",
        "METRIC": "COSINE", "PROVIDER": "LOCAL", "SOURCE_TABLE": "ARTICLES", "KEY_COLUMN": "ID",
        "TEXT_COLUMNS": "TITLE 2, BODY", "QUEUED_JOBS": "0", "FAILED_JOBS": "0",
        "TEMPORARY_TABLES": "0"}
    assert status(docs, "BARE")["STATE"] == "EMPTY"
    assert (status(docs, "LOST")["STATE"], status(docs, "LOST")["FAILED_JOBS"]) == ("FAILED", "1")
    assert status(docs, "ALIEN")["STATE"] == "FAILED"


def test_the_status_of_the_provider(docs: Session) -> None:
    assert one_row(docs, "SHOW AI PROVIDER local;") == {
        "PROVIDER": "LOCAL", "STATE": "READY",
        "METHOD": "hashed words and pieces, TF-IDF, random indexing", "DIMENSION": "256",
        "REMOTE": "NO"}


def test_jobs_tell_what_failed(docs: Session) -> None:
    reply = docs.run("SHOW AI JOBS FOR LOST;")
    assert reply.names == ["JOB", "KIND", "SOURCE_KEY", "STATE", "QUEUED_AT", "FINISHED_AT",
                           "ERROR"]
    [row] = reply.rows
    assert row[1:4] == ["BUILD", None, "FAILED"] and row[6] == "no such table: main.NOWHERE"


def test_a_collection_is_kept_in_step(docs: Session) -> None:
    assert docs.run("INSERT INTO ARTICLES VALUES (6, 'yellow submarine', 'dives', 1);"
                    ).status == "1 row inserted"
    wait_until(lambda: jobs(docs)[0] == ["INSERT", "6", "DONE"])
    assert keys(docs, "submarine that dives", 1) == ["6"]
    assert docs.run("UPDATE ARTICLES SET TITLE = 'white balloon', BODY = 'floats' WHERE ID = 6;"
                    ).status == "1 row updated"
    wait_until(lambda: jobs(docs)[0] == ["UPDATE", "6", "DONE"])
    assert keys(docs, "floating balloons", 1) == ["6"]
    assert docs.run("DELETE FROM ARTICLES WHERE ID = 6;").status == "1 row deleted"
    wait_until(lambda: jobs(docs)[0] == ["DELETE", "6", "DONE"])
    assert "6" not in keys(docs, "floating balloons", 10)
    assert jobs(docs) == [["DELETE", "6", "DONE"], ["UPDATE", "6", "DONE"],
                          ["INSERT", "6", "DONE"], ["BUILD", None, "DONE"]]


def test_what_another_program_changes_is_seen_too(docs: Session, engine: Engine) -> None:
    with closing(sqlite3.connect(engine.data / "docs.db")) as other, other:
        other.execute("INSERT INTO ARTICLES VALUES (7, 'silver rocket', 'flies to the moon', 9)")
    wait_until(lambda: jobs(docs)[0] == ["INSERT", "7", "DONE"])
    assert keys(docs, "moon rocket", 1) == ["7"]


def test_jobs_outlive_the_engine(start_engine, tmp_path: Path) -> None:
    first = start_engine()
    make_database(first.data / "docs.db", ARTICLES)
    with first.session("docs") as session:
        wait_until(lambda: status(session, "DOCS")["STATE"] == "READY")
    assert first.stop() == 0
    with closing(sqlite3.connect(first.data / "docs.db")) as other, other:
        other.execute("UPDATE ARTICLES SET TITLE = 'silver rocket' WHERE ID = 3")
    assert read_database(first.data / "docs.db", "SELECT KIND, SOURCE_KEY, STATE FROM AI_JOBS"
                         " WHERE COLLECTION = 'DOCS' ORDER BY ID DESC LIMIT 1") == [
        ("UPDATE", 3, "QUEUED")]
    second = start_engine()
    with second.session("docs") as session:
        wait_until(lambda: jobs(session)[0] == ["UPDATE", "3", "DONE"])
        assert keys(session, "rockets", 1) == ["3"]


def test_the_engines_own_tables_are_neither_listed_nor_changed(docs: Session) -> None:
    assert [row[0] for row in docs.all_rows("list table;")] == [
        "ARTICLES", "BARE_VECTORS", "DOCS_VECTORS", "DRAFTS", "SLOW"]
    for statement in ("DELETE FROM AI_JOBS;", "UPDATE AI_VECTORS SET VECTOR = NULL;",
                      "INSERT INTO ai_collections VALUES ('A', 'B', 'C', 'D', 'E');"):
        assert docs.run(statement).status == "not authorized"


def test_embedding_ahead(executable: Path, tmp_path: Path) -> None:
    data = tmp_path / "data"
    data.mkdir()
    make_database(data / "docs.db", ARTICLES)
    make_database(data / "plain.db", "CREATE TABLE T (A);")
    done = embed(executable, data)
    assert done.returncode == 1
    assert done.stdout.splitlines() == [
        "docs.ALIEN: collection ALIEN cannot be built: no such provider: ELSEWHERE",
        "docs.BARE: 0 vectors", "docs.DOCS: 5 vectors",
        "docs.LOST: collection LOST cannot be built: no such table: main.NOWHERE"]
    assert "embedding docs.DOCS: 100%" in done.stderr.splitlines() and "\r" not in done.stderr
    vectors = "SELECT SOURCE_KEY, VECTOR FROM AI_VECTORS ORDER BY ID"
    before = read_database(data / "docs.db", vectors)
    make_database(data / "docs.db", "DELETE FROM AI_COLLECTIONS WHERE NAME IN ('LOST', 'ALIEN');")
    again = embed(executable, data)
    assert (again.returncode, again.stderr) == (0, "")
    assert read_database(data / "docs.db", vectors) == before


def test_the_same_rows_make_the_same_vectors_on_every_machine(executable: Path,
                                                              tmp_path: Path) -> None:
    found = []
    for name in ("one", "two"):
        data = tmp_path / name
        data.mkdir()
        make_database(data / "docs.db", ARTICLES)
        embed(executable, data)
        found.append(read_database(data / "docs.db",
                                   "SELECT SOURCE_KEY, hex(VECTOR) FROM AI_VECTORS ORDER BY 1"))
    assert found[0] == found[1] and len(found[0]) == 5


# temporary tables


def search_into(session: Session, text: str, table: str) -> None:
    reply = session.run(f"SEARCH AI DOCS TEXT '{text}' TOP 2 INTO TEMP {table};")
    assert (reply.success, reply.status, reply.names, reply.rows) == (True, "OK", [], [])


def test_hits_are_kept_in_a_temporary_table(docs: Session) -> None:
    expected = docs.all_rows("SEARCH AI DOCS TEXT 'grey trains' TOP 2;")
    search_into(docs, "grey trains", "HITS")
    assert docs.all_rows("SELECT RANK, SCORE, VECTOR_ID, SOURCE_KEY FROM HITS ORDER BY RANK"
                         ) == expected
    assert docs.all_rows("SELECT HITS.RANK, ARTICLES.TITLE FROM HITS,ARTICLES WHERE"
                         " HITS.SOURCE_KEY=ARTICLES.ID ORDER BY HITS.RANK;")[0] == [
        "1", "grey train"]
    again = docs.run("SEARCH AI DOCS TEXT 'x' TOP 1 INTO TEMP hits;")
    assert (again.success, again.status) == (False, "table \"hits\" already exists")
    assert docs.run("DROP TABLE HITS;").status == "OK"
    assert docs.run("SELECT * FROM HITS;").status == "no such table: HITS"
    search_into(docs, "grey trains", "HITS")


def test_a_failed_search_makes_no_table(docs: Session) -> None:
    for statement in ("SEARCH AI BARE TEXT 'x' TOP 1 INTO TEMP H;",
                      "SEARCH AI DOCS TEXT 'x' TOP 0 INTO TEMP H;"):
        assert not docs.run(statement).success
    assert docs.run("DROP TABLE H;").status == "no such temporary table: H"


def test_temporary_tables_belong_to_their_connection(docs: Session, engine: Engine) -> None:
    with engine.session("docs") as other:
        search_into(docs, "red car", "HITS")
        assert other.run("SELECT * FROM HITS;").status == "no such table: HITS"
        search_into(other, "blue boat", "HITS")
        assert status(docs, "DOCS")["TEMPORARY_TABLES"] == "2"
        assert docs.all_rows("SELECT SOURCE_KEY FROM HITS WHERE RANK=1;") == [["1"]]
        assert other.all_rows("SELECT SOURCE_KEY FROM HITS WHERE RANK=1;") == [["2"]]
        assert docs.run("DROP TABLE HITS;").success
        assert status(docs, "DOCS")["TEMPORARY_TABLES"] == "1"
        assert other.all_rows("SELECT SOURCE_KEY FROM HITS WHERE RANK=1;") == [["2"]]


def test_temporary_tables_end_with_their_connection(docs: Session, engine: Engine) -> None:
    with engine.session("docs") as other:
        search_into(other, "red car", "A")
        search_into(other, "red car", "B")
        assert status(docs, "DOCS")["TEMPORARY_TABLES"] == "2"
    wait_until(lambda: status(docs, "DOCS")["TEMPORARY_TABLES"] == "0")
    wait_until(lambda: engine.logged("ended, and its temporary tables with it: 2"))


def test_temporary_tables_end_with_the_choice_of_another_database(docs: Session) -> None:
    search_into(docs, "red car", "A")
    assert docs.run("use shop;").success and docs.run("list table;").success
    assert docs.run("use docs;").success
    assert docs.run("SELECT * FROM A;").status == "no such table: A"
    assert status(docs, "DOCS")["TEMPORARY_TABLES"] == "0"


def test_temporary_tables_end_with_a_client_that_is_killed(docs: Session, engine: Engine,
                                                           client: Client) -> None:
    process = client.start(engine.port, "SEARCH AI DOCS TEXT 'red car' TOP 2 INTO TEMP HITS;",
                           f"SELECT COUNT(*) FROM HITS, {ENDLESS};", database="docs")
    wait_until(lambda: status(docs, "DOCS")["TEMPORARY_TABLES"] == "1")
    engine.wait_until_busy(engine.cpu_seconds())
    assert process.poll() is None
    process.kill()
    process.communicate(timeout=TIMEOUT)
    wait_until(lambda: status(docs, "DOCS")["TEMPORARY_TABLES"] == "0")
    wait_until(lambda: engine.logged("ended, and its temporary tables with it: 1"))


def test_temporary_tables_need_no_other_to_stop_writing(docs: Session, engine: Engine) -> None:
    with closing(sqlite3.connect(engine.data / "docs.db", isolation_level=None)) as other:
        other.execute("BEGIN IMMEDIATE")
        search_into(docs, "red car", "HITS")
        assert docs.run("DROP TABLE HITS;").success
        other.execute("ROLLBACK")


# relevance

SHIPPED = Path(__file__).with_name("data") / "package_index.txt"

RELEVANCE = {
    "tool to edit photos": "fotoxx shotwell digikam rawtherapee",
    "image editor": "gimp krita showfoto lazpaint-gtk2",
    "web browser": "chromium links netsurf-gtk",
    "browse the internet with a graphical program": "epiphany-browser konqueror netsurf-gtk",
    "play music files": "mpd juk clementine",
    "video player": "dragonplayer totem mpv xine-ui",
    "chess game against the computer": "gnuchess stockfish xboard",
    "relational database server": "postgresql default-mysql-server",
    "scan a network for open ports": "masscan doscan nmap",
    "spell checker": "aspell hunspell nuspell",
    "drawing vector graphics": "inkscape",
    "compiler for the C programming language": "gcc",
    "record sound": "gnome-sound-recorder jack-capture",
    "backup to a remote machine": "rdiff-backup rsnapshot",
    "download videos from youtube": "youtube-dl yt-dlp minitube",
    "astronomy planetarium": "kstars stellarium",
    "view pdf documents": "evince okular zathura",
    "weather forecast": "gnome-weather weather-util",
    "password manager": "keepass2 pass password-gorilla",
    "monitor cpu temperature": "psensor lm-sensors",
}
"""Searches, and packages of which at least one must be among the first ten hits."""


@pytest.fixture(scope="module", params=[
    pytest.param("shipped", marks=pytest.mark.xdist_group("shipped index")),
    pytest.param("machine", marks=[pytest.mark.slow, pytest.mark.xdist_group("machine index")])])
def packages(request: pytest.FixtureRequest, executable: Path,
             tmp_path_factory: pytest.TempPathFactory) -> Iterator[Session]:
    """The collection of the part of Debian's package index in data/, or of this machine's index."""
    if request.param == "machine" and not glob.glob("/var/lib/apt/lists/*_Packages*"):
        pytest.skip("the machine has no package index")
    folder = tmp_path_factory.mktemp(request.param)
    source = ["--input", str(SHIPPED)] if request.param == "shipped" else []
    loaded = subprocess.run(
        ["/usr/bin/python3", str(ROOT / "sample" / "data" / "load_packages.py"), "--data",
         str(folder / "data"), *source], capture_output=True, text=True, timeout=TIMEOUT * 6,
        check=False)
    assert loaded.returncode == 0, loaded.stderr
    done = embed(executable, folder / "data")
    assert done.returncode == 0, done.stdout
    running = Engine(executable, folder)
    with running.session("sample") as session:
        yield session
    assert running.stop() == 0
    for path in (folder / "data").iterdir():
        path.unlink()


@pytest.mark.parametrize("text, expected", RELEVANCE.items(), ids=list(RELEVANCE))
def test_what_is_looked_for_is_among_the_first_ten(packages: Session, text: str,
                                                   expected: str) -> None:
    found = keys(packages, text, 10, "PACKAGE_TEXTS")
    assert set(found) & set(expected.split()), found


def test_a_vector_fits_a_cell_and_a_statement(packages: Session) -> None:
    longest = packages.all_rows(
        "SELECT max(length(VECTOR)) FROM (SELECT VECTOR FROM PACKAGE_TEXTS_VECTORS LIMIT 2000)")
    assert int(longest[0][0]) <= 4096
