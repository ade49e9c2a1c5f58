"""The messages that a client sends and the replies that it expects, byte for byte."""

from __future__ import annotations

import json
from typing import Any


def line(message: Any) -> bytes:
    """One message as a line of JSON without spaces."""
    return json.dumps(message, separators=(",", ":"), ensure_ascii=False).encode() + b"\n"


def request(method: str, request_id: Any, params: Any = None) -> bytes:
    message = {"jsonrpc": "2.0", "id": request_id, "method": method}
    return line(message if params is None else {**message, "params": params})


def notification(method: str, params: Any = None) -> bytes:
    message = {"jsonrpc": "2.0", "method": method}
    return line(message if params is None else {**message, "params": params})


def call(request_id: Any, tool: str, arguments: Any = None) -> bytes:
    params = {"name": tool} if arguments is None else {"name": tool, "arguments": arguments}
    return request("tools/call", request_id, params)


def cancel(request_id: Any) -> bytes:
    return notification("notifications/cancelled", {"requestId": request_id})


def error_reply(raw_id: str, code: int, message: str) -> bytes:
    """`raw_id` is the id's JSON text."""
    return (f'{{"jsonrpc":"2.0","id":{raw_id},"error":{{"code":{code},"message":"{message}"}}}}\n'
            ).encode()


def result_reply(raw_id: str, result: str) -> bytes:
    return f'{{"jsonrpc":"2.0","id":{raw_id},"result":{result}}}\n'.encode()


def tool_error_reply(raw_id: str, message: str) -> bytes:
    content = f'{{"content":[{{"type":"text","text":"{message}"}}],"isError":true}}'
    return result_reply(raw_id, content)


def tool_success_reply(raw_id: str, result: str) -> bytes:
    """`result` is the result's JSON text, carried as text and as it is."""
    text = json.dumps(result, ensure_ascii=False)
    return result_reply(raw_id, f'{{"content":[{{"type":"text","text":{text}}}],'
                                f'"structuredContent":{result},"isError":false}}')


def cancelled_reply(raw_id: str) -> bytes:
    return result_reply(raw_id, '{"content":[{"type":"text","text":"request cancelled"}],'
                                '"structuredContent":{"cancelled":true},"isError":true}')


PARSE_ERROR = error_reply("null", -32700, "invalid, duplicate, deep, or oversized JSON message")
OVERSIZE_ERROR = error_reply("null", -32700, "MCP message exceeds 1048576 bytes")
WORKER_FAILED = error_reply("null", -32603, "isolated MCP tool worker failed")
BUSY = "another MCP database tool is still active"
NOT_INITIALIZED = "server is not initialized"


def ping(request_id: Any) -> bytes:
    return request("ping", request_id)


def pong(raw_id: Any) -> bytes:
    return result_reply(str(raw_id), "{}")


def not_initialized(raw_id: Any) -> bytes:
    return error_reply(str(raw_id), -32002, NOT_INITIALIZED)


def busy(raw_id: Any) -> bytes:
    return error_reply(str(raw_id), -32000, BUSY)
