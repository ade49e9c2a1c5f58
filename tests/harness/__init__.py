"""What every Python test ring uses: the server under test as a client sees it, on both targets.

| Module | What it offers |
|---|---|
| targets | the executable of a target, how it is run, folders with a client library beside it |
| servers | starts servers; speaks MCP with them over standard input and output |
| messages | the messages that a client sends and the replies, byte for byte |
| http_client | starts HTTP listeners; requests and responses as exact bytes |
| front_ends | nginx and HAProxy before a listener, and an HTTPS client |
| machines | machines with networks of their own, in namespaces of this one |
| several_hosts | the service of deploy/several-hosts/ on such machines, and its clients |
| scripted_library | the client library that follows a script and logs what it is asked |
| sample_engine | the sample engine as a process, its wire format, its client program |
| sales_engine | a small database for the sample engine |
| newcomer, debian_root, containers | the commands of docs/install.md; what to run them in |
| privileges | what the system allows: skips a test that needs more |
| policy_files | policy files and the environment that goes with them |
| audit_files, audit_calls | reads audit files; calls that leave a record |
| tool_calls, write_calls, ai_calls | one tool call with its reply, its statements, its records |
| approval_tokens, write_generator | tokens that are signed here; random writes |
| listeners, sessions | ports for the server's reachability probe; whether a session is made |
| processes | finds the processes of a test |
| sockets | the kernel's view of connections |
| waiting | waits for a condition |

How a test is written
---------------------
* `--target linux|windows` picks the executable; the same test runs for both. A path that the server
  is given is a `pathlib.Path`: in an environment or in a policy it is turned into the target's own
  form (`target.path(p)`), under Wine `Z:\\tmp\\...`.
* `run(*args, stdin=b"", env={})` runs the executable to its end and returns a `Result` (`stdout`,
  `stderr`, `code`, `lines`).
* `start(*args, env={})` starts it and returns a `Server`: `send(message)` (bytes are sent as they
  are, a dictionary becomes one line), `read_line()`, `read_reply()` (parsed), `expect_silence()`,
  `close_input()`, `wait()`. At the end of the test every server has ended, and no process that it
  started is left.
* Neither sees a `KOVA_*` variable but those in `env`. `library=` picks what lies beside the
  executable: "scripted" (default), "sample", "incomplete" (one operation is missing), "broken" (a
  text file of the library's name) or None.
* `engine` is a scripted client library with a listener for the reachability probe: `engine.env` is
  the profile to pass on, `engine.script(Script()...)` says what the library returns from the next
  process on, `engine.calls()`, `engine.statements()` and `engine.wait_for_statement(text)` say what
  it was asked.
* `policy(**overrides)` writes a policy file and returns the environment that goes with it.
"""
