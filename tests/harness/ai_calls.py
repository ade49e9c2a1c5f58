"""Calls of the AI tools: good arguments, the messages of the tools and of their policy checks."""

from __future__ import annotations

from typing import Any

from harness.scripted_library import Repeat
from harness.tool_calls import ABSENT, Outcome, ToolCalls

TEXT_SEARCH = "kova_text_search"
VECTOR_SEARCH = "kova_vector_search"
HYBRID_SEARCH = "kova_hybrid_search"
AI_STATUS = "kova_ai_status"

TEXT_ARGUMENTS = "invalid collection, text, top limit, or unknown argument"
VECTOR_ARGUMENTS = "invalid collection, top limit, or unknown argument"
VECTOR_SIZE = "vector must contain 1..4096 finite numbers"
VECTOR_NUMBER = "vector contains an invalid number"
HYBRID_ARGUMENTS = "invalid hybrid collection, source mapping, text, top, or unknown argument"
HYBRID_COUNT = "columns must contain 1..16 safe field names"
HYBRID_TEXT = "hybrid text exceeds SQL limit"
STATUS_ARGUMENTS = ("collection must be a safe Vantreo identifier and unknown fields are not "
                    "allowed")
STATUS_PROVIDER = "provider must be a safe Vantreo identifier"

READS_OFF = "read tools are disabled by policy"
PROVIDERS_OFF = "provider-backed MCP reads are disabled by policy or kill switch"
COLLECTION = "collection is invalid or not allowed by MCP policy"
STATUS_OFF = "provider status is disabled by policy or kill switch"
SOURCE = "hybrid source table or key is denied by MCP policy"
COLUMNS = "hybrid columns are invalid"
COLUMN = "hybrid column is denied by MCP policy"

BOUNDS = "invalid database execution bounds"
NO_SESSION = "authenticated Vantreo profile is unavailable"
PROVIDERS_SWITCH = {"KOVA_MCP_DISABLE_PROVIDERS": "1"}

GOOD: dict[str, dict[str, Any]] = {
    TEXT_SEARCH: {"collection": "MANUALS", "text": "red car", "top": 5},
    VECTOR_SEARCH: {"collection": "MANUALS", "vector": [1, 2.5, -3], "top": 5},
    HYBRID_SEARCH: {"collection": "MANUALS", "text": "red car", "top": 5, "source_table": "ITEMS",
                    "key_field": "ID", "columns": ["TITLE", "BODY"]},
    AI_STATUS: {"collection": "MANUALS", "provider": "LOCAL"},
}
"""Arguments that the default policy lets through."""

REFUSED_TOPS = ["0", "257", "-1", "-0", '"5"', "5.0", "5e0", "null", "true", "[]", "[5]", "{}",
                "4294967297", "18446744073709551617", "1" + "0" * 31]
"""JSON texts that are not accepted as a bound of 1 to 256."""

FAILURES = [
    ({"result": 0, "status": 'no "such" thing'}, 'no \\"such\\" thing'),
    ({"result": -1, "status": None}, "database statement failed"),
    ({"columns": ["A"] * 65}, "database result column limit exceeded"),
    ({"columns": ["A"], "rows": [[Repeat(16385)]]}, "database cell limit exceeded"),
    ({"columns": ["A"] * 64, "rows": [[Repeat(16384)] * 64]},
     "database result byte limit exceeded"),
]
"""Results of the library that make a statement fail, and the message as it stands in a reply."""
FAILURE_NAMES = ["refused", "without words", "columns", "cell", "bytes"]


def ask(tools: ToolCalls, tool: str, **changes: Any) -> Outcome:
    """Calls with good arguments but for the changes; ABSENT leaves a member out."""
    given = {**GOOD[tool], **changes}
    return tools(tool, {key: value for key, value in given.items() if value is not ABSENT})
