"""kova_ai_status: the two or three statements that it sends, and the object that it composes."""

from __future__ import annotations

import json

import pytest

from harness.ai_calls import (AI_STATUS, COLLECTION, FAILURES, FAILURE_NAMES, NO_SESSION,
                              READS_OFF, STATUS_ARGUMENTS, STATUS_OFF,
                              STATUS_PROVIDER, ask)
from harness.messages import PARSE_ERROR, tool_success_reply
from harness.scripted_library import Repeat, Script
from harness.tool_calls import ABSENT, Outcome, ToolCalls, arguments, result_json

STATUS = "SHOW AI STATUS MANUALS;"
JOBS = "SHOW AI JOBS FOR MANUALS;"
PROVIDER = "SHOW AI PROVIDER LOCAL;"
ALL = [STATUS, JOBS, PROVIDER]
NOTHING = result_json()


def status(tools: ToolCalls, **changes) -> Outcome:
    return ask(tools, AI_STATUS, **changes)


def status_raw(tools: ToolCalls, members: str) -> Outcome:
    return tools.raw(arguments(AI_STATUS, members), tool=AI_STATUS)


def answered(outcome: Outcome, sent: list[str], *, collection: str = NOTHING,
             provider: str = "null", jobs: str = NOTHING, objects: str = "MANUALS,LOCAL") -> None:
    """The object of the three texts; the rows that are recorded are the jobs'."""
    text = f'{{"collection":{collection},"provider":{provider},"jobs":{jobs}}}'
    assert outcome.reply == tool_success_reply(outcome.raw_id, text)
    assert outcome.statements == [statement.encode() for statement in sent]
    outcome.has_record(policy_decision="allow", objects=objects, rows=json.loads(jobs)["rowCount"],
                       bytes=len(text.encode()), status="ok", error_class="none")


SCRIPT = (Script()
          .on_exec(STATUS, status="ready", columns=["ROWS", "STATE"], rows=[["42", 'say "é"']])
          .on_exec(JOBS, status="2 jobs", columns=["JOB"], rows=[["a"], ["b\\\n"]])
          .on_exec(PROVIDER, status="up", columns=["KIND"], rows=[[None]]))


def test_the_object_byte_for_byte(tools):
    tools.script(SCRIPT)
    outcome = tools(AI_STATUS, {"collection": "MANUALS", "provider": "LOCAL"}, raw_id="7")
    object_text = (
        r'{"collection":{"status":"ready","columns":["ROWS","STATE"],"rows":[["42","say \"é\""]],'
        r'"rowCount":1,"truncated":true},"provider":{"status":"up","columns":["KIND"],"rows":'
        r'[[""]],"rowCount":1,"truncated":true},"jobs":{"status":"2 jobs","columns":["JOB"],'
        r'"rows":[["a"],["b\\\n"]],"rowCount":2,"truncated":false}}')
    escaped = object_text.replace("\\", "\\\\").replace('"', '\\"')
    assert outcome.reply.decode() == (
        '{"jsonrpc":"2.0","id":7,"result":{"content":[{"type":"text","text":"' + escaped +
        '"}],"structuredContent":' + object_text + ',"isError":false}}\n')
    assert outcome.statements == [text.encode() for text in ALL]
    outcome.has_record(policy_decision="allow", objects="MANUALS,LOCAL", rows=2,
                       bytes=len(object_text.encode()), status="ok", error_class="none")


def test_without_a_provider_its_part_is_null(tools):
    tools.script(SCRIPT)
    answered(status(tools, provider=ABSENT), [STATUS, JOBS], objects="MANUALS",
             collection=result_json(["ROWS", "STATE"], [["42", 'say "é"']], status="ready",
                                    truncated=True),
             jobs=result_json(["JOB"], [["a"], ["b\\\n"]], status="2 jobs"))


def test_results_without_rows(tools):
    answered(status(tools), ALL, provider=NOTHING)
    answered(status(tools, provider=ABSENT), [STATUS, JOBS], objects="MANUALS")


@pytest.mark.parametrize("rows, listed", [(0, 0), (1, 1), (2, 1)])
def test_one_row_of_the_status_and_of_the_provider(tools, rows, listed):
    answer = {"columns": ["A"], "repeat": [(rows, ["x"])]}
    tools.script(Script().on_exec(STATUS, **answer).on_exec(PROVIDER, **answer))
    expected = result_json(["A"], [["x"]] * listed, truncated=listed == 1)
    answered(status(tools), ALL, collection=expected, provider=expected)


@pytest.mark.parametrize("rows, listed, truncated", [(255, 255, False), (256, 256, True),
                                                     (300, 256, True)])
def test_256_jobs(tools, rows, listed, truncated):
    tools.script(Script().on_exec(JOBS, columns=["A"], repeat=[(rows, ["x"])]))
    answered(status(tools), ALL, provider=NOTHING,
             jobs=result_json(["A"], [["x"]] * listed, truncated=truncated))


def test_large_results_are_whole(tools):
    """400,000 bytes, which the reply contains twice."""
    tools.script(Script()
                 .on_exec(STATUS, columns=["A", "B"], rows=[[Repeat(16384, "s")] * 2])
                 .on_exec(JOBS, columns=["A"], repeat=[(20, [Repeat(16384, "j")])])
                 .on_exec(PROVIDER, columns=["A"], rows=[[Repeat(16384, "p")]]))
    answered(status(tools), ALL,
             collection=result_json(["A", "B"], [["s" * 16384] * 2], truncated=True),
             provider=result_json(["A"], [["p" * 16384]], truncated=True),
             jobs=result_json(["A"], [["j" * 16384]] * 20))


# --- failures of the statements -------------------------------------------------------------------

@pytest.mark.parametrize("failing", range(3))
@pytest.mark.parametrize("answer, words", FAILURES, ids=FAILURE_NAMES)
def test_a_statement_that_fails_ends_the_call(tools, failing, answer, words):
    tools.script(Script().on_exec(ALL[failing], **answer))
    status(tools).is_error(words, objects="MANUALS,LOCAL", statements=ALL[:failing + 1])


def test_the_first_failure_speaks(tools):
    tools.script(Script().on_exec(STATUS, result=0, status="no status")
                 .on_exec(JOBS, result=0, status="no jobs")
                 .on_exec(PROVIDER, result=0, status="no provider"))
    status(tools).is_error("no status", objects="MANUALS,LOCAL", statements=[STATUS])
    status(tools, provider=ABSENT).is_error("no status", objects="MANUALS", statements=[STATUS])


def test_without_a_provider_its_failure_is_not_met(tools):
    tools.script(Script().on_exec(PROVIDER, result=0, status="no provider"))
    answered(status(tools, provider=ABSENT), [STATUS, JOBS], objects="MANUALS")


def test_without_an_engine(module_servers, engine, tmp_path):
    tools = ToolCalls(module_servers, engine, tmp_path, env={"KOVA_MCP_PASSWORD": None})
    status(tools).is_error(NO_SESSION, objects="MANUALS,LOCAL")
    status(tools, x=1).is_error(STATUS_ARGUMENTS)
    assert engine.calls() == []


# --- arguments ------------------------------------------------------------------------------------

@pytest.mark.parametrize("changes", [
    {"x": 1}, {"": 1}, {"top": 5}, {"text": "x"}, {"Provider": "LOCAL"}, {"k" * 64: 1},
    {"provider": ABSENT, "x": 1}], ids=lambda changes: str(changes)[:30])
def test_arguments_that_are_refused(tools, changes):
    status(tools, **changes).is_error(STATUS_ARGUMENTS)


@pytest.mark.parametrize("provider", [
    "null", "7", "true", "[]", '["LOCAL"]', "{}", '""', '"A-B"', '"A B"', '"A.B"', '"LOCAL;"',
    '"LOCAL\\n"', '"É"', '"\\u0000LOCAL"', '"\\ud800"', '"' + "P" * 64 + '"',
    '"' + "P" * 100000 + '"'], ids=lambda provider: provider[:20])
def test_providers_that_are_refused(tools, provider):
    status_raw(tools, '{"collection":"MANUALS","provider":%s}' % provider).is_error(STATUS_PROVIDER)


def test_unknown_members_come_before_the_provider(tools):
    status(tools, provider=7, x=1).is_error(STATUS_ARGUMENTS)
    status(tools, provider=7).is_error(STATUS_PROVIDER)


def test_names_are_sent_as_the_client_writes_them(tools):
    outcome = status_raw(tools, '{"provider":"9_lo\\u0063al","_meta":[],"collection":"manuals"}')
    answered(outcome, ["SHOW AI STATUS manuals;", "SHOW AI JOBS FOR manuals;",
                       "SHOW AI PROVIDER 9_local;"], provider=NOTHING, objects="manuals,9_local")


def test_the_longest_names(tools):
    collection, provider = "C" * 63, "P" * 63
    tools.policy(allowed_collections=[collection])
    answered(status(tools, collection=collection, provider=provider),
             [f"SHOW AI STATUS {collection};", f"SHOW AI JOBS FOR {collection};",
              f"SHOW AI PROVIDER {provider};"], provider=NOTHING,
             objects=f"{collection},{provider}")


def test_an_escaped_provider_is_none(tools, switched_off):
    """It is an allowed member that neither the tool nor its policy check finds."""
    members = '{"collection":"MANUALS","pr\\u006fvider":"LOCAL"}'
    for calls in (tools, switched_off):
        answered(status_raw(calls, members), [STATUS, JOBS], objects="MANUALS")


def test_members_that_stand_twice(tools):
    outcome = status_raw(tools, '{"collection":"MANUALS","provider":"A","pr\\u006fvider":"B"}')
    assert outcome.reply == PARSE_ERROR
    assert (outcome.statements, outcome.records) == ([], [])


# --- the policy -----------------------------------------------------------------------------------

def test_the_gates_refuse_good_arguments(tools):
    tools.policy(reads_enabled=False)
    status(tools).is_error(READS_OFF, decision="deny")
    tools.policy(allowed_collections=["OTHER"])
    status(tools).is_error(COLLECTION, decision="deny")
    tools.policy(provider_reads_enabled=False)
    status(tools).is_error(STATUS_OFF, decision="kill_switch")
    answered(status(tools, provider=ABSENT), [STATUS, JOBS], objects="MANUALS")


@pytest.mark.parametrize("provider", ["LOCAL", "", None, 7, [], {}, "A-B", "P" * 64], ids=str)
def test_the_kill_switch_stops_a_provider_of_any_type(switched_off, provider):
    """After the check of the collection and before the tool's own checks."""
    for changes in ({}, {"x": 1}):
        status(switched_off, provider=provider, **changes).is_error(STATUS_OFF,
                                                                    decision="kill_switch")
    status(switched_off, provider=provider, collection="OTHER").is_error(COLLECTION,
                                                                         decision="deny")


def test_the_kill_switch_leaves_a_status_without_provider(switched_off):
    answered(status(switched_off, provider=ABSENT), [STATUS, JOBS], objects="MANUALS")
    status(switched_off, provider=ABSENT, x=1).is_error(STATUS_ARGUMENTS)


def test_without_a_policy(module_servers, engine, tmp_path):
    tools = ToolCalls(module_servers, engine, tmp_path, configured=False)
    answered(status(tools, collection="Any", provider="P"),
             ["SHOW AI STATUS Any;", "SHOW AI JOBS FOR Any;", "SHOW AI PROVIDER P;"],
             provider=NOTHING, objects="Any,P")
