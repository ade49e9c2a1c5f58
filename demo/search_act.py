"""The session's third act: searches in an AI collection, and the searches that are refused."""

from __future__ import annotations

import json

from stage import Scene, Stage, audit, expect, handshake, listed_tools

COLLECTION = "PACKAGE_TEXTS"
PRIVATE_COLLECTION = "NOTE_TEXTS"
VECTORS = "PACKAGE_TEXTS_VECTORS"
PROVIDER = "LOCAL"
TEXT = "tool to edit photos"
PACKAGE = "gimp"

TEXT_SEARCH, HYBRID_SEARCH = "kova_text_search", "kova_hybrid_search"
VECTOR_SEARCH, STATUS = "kova_vector_search", "kova_ai_status"

OTHER_COLLECTION = "collection is invalid or not allowed by MCP policy"
DENIED_COLUMN = "hybrid column is denied by MCP policy"
SWITCHED_OFF = "provider-backed MCP reads are disabled by policy or kill switch"


class SearchAct:
    """The scenes in their order, with the vector that they share."""

    def __init__(self) -> None:
        self.vector: list[float] = []
        self.scenes = [
            Scene("A server whose policy lets one AI collection be searched", self.open),
            Scene("Text search", self.text),
            Scene("Hybrid search: the hits with columns of their rows", self.hybrid),
            Scene("Vector search: what is like a package", self.similar),
            Scene("The state of the collection", self.status),
            Scene("Searches that are refused", self.refusals),
            Scene("The provider's kill switch", self.kill_switch),
            Scene("The audit file of the third act", audit),
        ]

    def open(self, stage: Stage) -> None:
        handshake(stage)
        names = listed_tools(stage)
        expect({TEXT_SEARCH, HYBRID_SEARCH, VECTOR_SEARCH, STATUS} <= set(names),
               "the four AI tools are not listed")

    def text(self, stage: Stage) -> None:
        content = stage.rows_of(TEXT_SEARCH, {"collection": COLLECTION, "text": TEXT, "top": 5})
        expect(content["rowCount"] == 5, "five hits were asked for")

    def hybrid(self, stage: Stage) -> None:
        content = stage.rows_of(HYBRID_SEARCH, {
            "collection": COLLECTION, "text": TEXT, "top": 10, "source_table": "PACKAGES",
            "key_field": "NAME", "columns": ["SECTION", "INSTALLED_SIZE", "SUMMARY"]})
        expect([row[0] for row in content["rows"]] == [str(rank) for rank in range(1, 11)],
               "the hits are not joined to their packages in the order of their ranks")
        expect(any(word in row[-1].lower() for row in content["rows"] for word in
                   ("photo", "image")), "no package for photos is found")

    def similar(self, stage: Stage) -> None:
        stage.view.note("The sample database offers the collection's vectors as texts, in a table"
                        " that the policy allows.")
        content = stage.rows_of("kova_query", {
            "sql": f"SELECT SOURCE_KEY, VECTOR FROM {VECTORS} WHERE SOURCE_KEY = '{PACKAGE}'"})
        self.vector = json.loads(content["rows"][0][1])
        stage.view.note("No text is embedded for this search: it needs no provider.")
        nearest = stage.rows_of(VECTOR_SEARCH, {
            "collection": COLLECTION, "vector": self.vector, "top": 5})["rows"]
        expect(nearest[0][3] == PACKAGE, f"{PACKAGE} is not nearest to its own vector")

    def status(self, stage: Stage) -> None:
        shown = stage.call(STATUS, {"collection": COLLECTION, "provider": PROVIDER})
        content = shown["structuredContent"]
        state = dict(zip(content["collection"]["columns"], content["collection"]["rows"][0]))
        stage.view.table(["COLLECTION", COLLECTION],
                         [pair for pair in state.items() if pair[0] != "COLLECTION"])
        for part in ("provider", "jobs"):
            stage.view.line()
            stage.view.table(content[part]["columns"], content[part]["rows"])
        expect((state["STATE"], state["TEMPORARY_TABLES"]) == ("READY", "0"),
               "the collection is not ready, or a temporary table is left")

    def refusals(self, stage: Stage) -> None:
        stage.view.note("A collection that the policy does not name: users' notes.")
        stage.refused(TEXT_SEARCH, {"collection": PRIVATE_COLLECTION, "text": "backup", "top": 5},
                      OTHER_COLLECTION)
        stage.view.note("A column that the policy denies, as a column of the hits.")
        stage.refused(HYBRID_SEARCH, {
            "collection": COLLECTION, "text": TEXT, "top": 5, "source_table": "PACKAGES",
            "key_field": "NAME", "columns": ["SUMMARY", "MAINTAINER"]}, DENIED_COLUMN)

    def kill_switch(self, stage: Stage) -> None:
        stage.view.note("The same policy, and a server that is started with"
                        " KOVA_MCP_DISABLE_PROVIDERS=1.")
        off = Stage.open(stage.view, stage.target, stage.engine, stage.processes,
                         stage.environment | {"KOVA_MCP_DISABLE_PROVIDERS": "1"}, stage.tally)
        handshake(off)
        expect(not {TEXT_SEARCH, HYBRID_SEARCH} & set(listed_tools(off)),
               "searches that need a provider are listed")
        off.refused(TEXT_SEARCH, {"collection": COLLECTION, "text": TEXT, "top": 5}, SWITCHED_OFF)
        stage.view.note("A vector can still be searched.")
        off.rows_of(VECTOR_SEARCH, {"collection": COLLECTION, "vector": self.vector, "top": 1})
        off.close()
        stage.audited += off.audited
