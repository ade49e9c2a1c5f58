// A session of the official client's second line, which knows protocol revisions that the server does
// not serve.
//
//     [NODE_EXTRA_CA_CERTS=CERTIFICATE] node second_line.mjs < WISHES
//
// WISHES is JSON: mode ("legacy", "auto" or {"pin": REVISION}), either server (command, args, env) or
// url and token, the calls to make, a slow call to cancel and a quick one to make after it. With
// "inPlace" the client asks for the revision on the session's own process, as clients with a transport
// of their own do; without it the client starts a second process for that. "supported" lists the
// revisions that the client speaks, where they are not its own. What was found is printed as one JSON
// document.
import { readFileSync } from 'node:fs';
import { setTimeout as pause } from 'node:timers/promises';

import { Client, StreamableHTTPClientTransport } from '@modelcontextprotocol/client';
import { StdioClientTransport } from '@modelcontextprotocol/client/stdio';

import { untilBusy } from './busy.mjs';

const REQUEST_LIMIT = 30_000;

const { mode, server, inPlace, supported, url, token, calls, slow, quick } = JSON.parse(
  readFileSync(0, 'utf8'),
);

const sent = [];
const received = [];
const statuses = [];
const errors = [];
let stderr = '';

/** The client looks at the class: with one of its own it does not start a second process. */
class OwnTransport extends StdioClientTransport {}

/** Records each request's method and the status of its response. */
async function notingFetch(address, init) {
  const response = await fetch(address, init);
  statuses.push([init.method, response.status]);
  return response;
}

function makeTransport() {
  if (url) {
    const headers = { Authorization: `Bearer ${token}` };
    return new StreamableHTTPClientTransport(new URL(url), {
      requestInit: { headers },
      fetch: notingFetch,
    });
  }
  const made = new (inPlace ? OwnTransport : StdioClientTransport)({ ...server, stderr: 'pipe' });
  made.stderr.on('data', (data) => {
    stderr += data;
  });
  return made;
}

/** Records the messages of the transport in both directions. */
function record(transport) {
  const send = transport.send.bind(transport);
  transport.send = (message, options) => {
    sent.push(message);
    return send(message, options);
  };
  let deliver;
  Object.defineProperty(transport, 'onmessage', {
    get: () => deliver && ((message, extra) => {
      received.push(message);
      deliver(message, extra);
    }),
    set: (handler) => {
      deliver = handler;
    },
  });
}

/** The outcome of a request: its result, or the client's error. */
async function outcome(promise) {
  try {
    return { result: await promise };
  } catch ({ name, message, code }) {
    return { error: { name, message, code } };
  }
}

const client = new Client(
  { name: 'interop-tests', version: '1.0.0' },
  { versionNegotiation: { mode }, ...(supported && { supportedProtocolVersions: supported }) },
);
client.onerror = (error) => errors.push(error.message);
const transport = makeTransport();
record(transport);

function call({ name, args }, options) {
  return client.callTool({ name, arguments: args }, { timeout: REQUEST_LIMIT, ...options });
}

async function receivedReply(id) {
  for (let tries = 0; tries < REQUEST_LIMIT / 20; tries += 1) {
    if (received.some((message) => message.id === id)) return;
    await pause(20);
  }
  throw new Error(`no reply with id ${id}`);
}

async function cancelled() {
  const abort = new AbortController();
  const running = outcome(call(slow, { signal: abort.signal }));
  await untilBusy(slow);
  abort.abort('the user gave up');
  const first = await running;
  // Until its process has ended, the server of a process refuses the next call; over HTTP that waits.
  if (!url) await receivedReply(sent.findLast((message) => message.method === 'tools/call').id);
  return { first, next: await outcome(call(quick)) };
}

const findings = { connected: await outcome(client.connect(transport)) };
if (!findings.connected.error) {
  const process_ = transport._process;
  findings.revision = client.getNegotiatedProtocolVersion();
  findings.version = client.getServerVersion();
  findings.tools = (await client.listTools()).tools.map((tool) => tool.name);
  findings.calls = [];
  for (const one of calls) findings.calls.push(await outcome(call(one)));
  findings.errorsBeforeCancel = [...errors];
  findings.cancelled = await cancelled();
  if (url) await transport.terminateSession();
  await client.close();
  findings.exitCode = process_ ? process_.exitCode : null;
} else {
  await client.close();
}
process.stdout.write(JSON.stringify({ ...findings, sent, received, statuses, stderr }) + '\n');
