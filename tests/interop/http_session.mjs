// A whole session of the official client over HTTPS.
//
//     NODE_EXTRA_CA_CERTS=CERTIFICATE node http_session.mjs < WISHES
//
// WISHES is JSON: url and token of the server, the calls to make at the same time, a slow call to
// cancel and a quick one to make after it. What was found is printed as one JSON document.
import { readFileSync } from 'node:fs';
import { setTimeout as pause } from 'node:timers/promises';

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StreamableHTTPClientTransport } from '@modelcontextprotocol/sdk/client/streamableHttp.js';

import { untilBusy } from './busy.mjs';

const REQUEST_LIMIT = 30_000;

const { url, token, calls, slow, quick } = JSON.parse(readFileSync(0, 'utf8'));

const errors = [];
const received = [];
const statuses = [];

/** Records each request's method and the status of its response. */
async function notingFetch(address, init) {
  const response = await fetch(address, init);
  statuses.push([init.method, response.status]);
  return response;
}

const client = new Client({ name: 'interop-tests', version: '1.0.0' });
client.onerror = (error) => errors.push(error.message);
const transport = new StreamableHTTPClientTransport(new URL(url), {
  requestInit: { headers: { Authorization: `Bearer ${token}` } },
  fetch: notingFetch,
});

/** The outcome of a request: its result, or the client's error. */
async function outcome(promise) {
  try {
    return { result: await promise };
  } catch ({ name, message, code }) {
    return { error: { name, message, code } };
  }
}

function call({ name, args }, options) {
  return client.callTool({ name, arguments: args }, undefined, {
    timeout: REQUEST_LIMIT,
    ...options,
  });
}

async function receivedReply(id) {
  for (let tries = 0; tries < REQUEST_LIMIT / 20; tries += 1) {
    const found = received.find((message) => message.id === id);
    if (found) return found;
    await pause(20);
  }
  throw new Error(`no reply with id ${id}`);
}

async function cancelled() {
  const abort = new AbortController();
  const sent = [];
  const send = transport.send.bind(transport);
  transport.send = (message, options) => {
    sent.push(message);
    return send(message, options);
  };
  const running = outcome(call(slow, { signal: abort.signal }));
  await untilBusy(slow);
  // It waits until the slow call is cancelled.
  const waiting = outcome(call(quick));
  abort.abort('the user gave up');
  const [request] = sent.filter((message) => message.method === 'tools/call');
  return {
    first: await running,
    waiting: await waiting,
    request,
    reply: await receivedReply(request.id),
  };
}

await client.connect(transport);
const deliver = transport.onmessage;
transport.onmessage = (message, extra) => {
  received.push(message);
  deliver(message, extra);
};
const { sessionId } = transport;
const findings = {
  version: client.getServerVersion(),
  sessionId,
  tools: (await client.listTools()).tools.map((tool) => tool.name),
  parallel: await Promise.all([...calls.map((one) => outcome(call(one))), client.ping()]),
  errorsBeforeCancel: [...errors],
  cancelled: await cancelled(),
  after: await outcome(call(quick)),
};
await transport.terminateSession();
findings.afterTermination = await outcome(client.ping());
await client.close();
process.stdout.write(JSON.stringify({ ...findings, statuses }) + '\n');
