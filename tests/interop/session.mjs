// Sessions of the official client with the server.
//
//     node session.mjs SCENARIO < SERVER
//
// SERVER is JSON: command, args and env of the server, and what the scenario needs beside them. The
// scenario's findings are printed as one JSON document, which the tests check.
import { readFileSync } from 'node:fs';
import { setTimeout as pause } from 'node:timers/promises';

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';

import { untilBusy } from './busy.mjs';

const REQUEST_LIMIT = 20_000;

/** A connected client that records the messages on the wire and the client's errors. */
class Session {
  received = [];
  errors = [];
  stderr = '';

  static async open(server) {
    const session = new Session();
    session.client = new Client({ name: 'interop-tests', version: '1.0.0' });
    session.client.onerror = (error) => session.errors.push(error.message);
    session.transport = new StdioClientTransport({ ...server, stderr: 'pipe' });
    session.transport.stderr.on('data', (data) => {
      session.stderr += data;
    });
    await session.client.connect(session.transport);
    // Only the transport has the process, whose exit code is needed later.
    session.process = session.transport._process;
    const deliver = session.transport.onmessage;
    session.transport.onmessage = (message, extra) => {
      session.received.push(message);
      deliver(message, extra);
    };
    return session;
  }

  call(name, args, options) {
    return this.client.callTool({ name, arguments: args }, undefined, {
      timeout: REQUEST_LIMIT,
      ...options,
    });
  }

  /** The outcome of a call: its result, or the client's error. */
  async outcome(promise) {
    const started = performance.now();
    try {
      return { result: await promise, ms: performance.now() - started };
    } catch (error) {
      const { name, message, code } = error;
      return { error: { name, message, code }, ms: performance.now() - started };
    }
  }

  async receivedReply(id) {
    for (let tries = 0; tries < REQUEST_LIMIT / 20; tries += 1) {
      const found = this.received.find((message) => message.id === id);
      if (found) return found;
      await pause(20);
    }
    throw new Error(`no reply with id ${id}`);
  }

  async close() {
    const started = performance.now();
    await this.client.close();
    const { exitCode, signalCode } = this.process;
    return { exitCode, signalCode, ms: performance.now() - started };
  }
}

const scenarios = {
  async connect(session) {
    return {
      version: session.client.getServerVersion(),
      capabilities: session.client.getServerCapabilities(),
      ping: await session.client.ping(),
    };
  },

  async list(session) {
    return session.client.listTools();
  },

  /** The calls of SERVER, one after the other. */
  async calls(session, { calls }) {
    const outcomes = [];
    for (const { name, args } of calls) {
      outcomes.push(await session.outcome(session.call(name, args)));
    }
    return outcomes;
  },

  /** A second call and a ping beside a call that runs. */
  async parallel(session, { slow }) {
    const abort = new AbortController();
    const running = session.outcome(session.call(slow.name, slow.args, { signal: abort.signal }));
    await untilBusy(slow);
    const second = await session.outcome(session.call('kova_list_tables', {}));
    const ping = await session.outcome(session.client.ping());
    abort.abort();
    return { second, ping, first: await running };
  },

  /** Cancels a slow call, then makes another call in the same session. */
  async cancel(session, { slow, quick }) {
    const abort = new AbortController();
    const sent = [];
    const send = session.transport.send.bind(session.transport);
    session.transport.send = (message, options) => {
      sent.push(message);
      return send(message, options);
    };
    const running = session.outcome(session.call(slow.name, slow.args, { signal: abort.signal }));
    const busyAfter = await untilBusy(slow);
    const aborted = performance.now();
    abort.abort('the user gave up');
    const first = await running;
    const request = sent.find((message) => message.method === 'tools/call');
    const reply = await session.receivedReply(request.id);
    const repliedAfter = performance.now() - aborted;
    const next = await session.outcome(session.call(quick.name, quick.args));
    const notification = sent.find((message) => message.method === 'notifications/cancelled');
    return { busyAfter, first, request, notification, reply, repliedAfter, next };
  },

  /** The client closes while a call runs. */
  async closeBusy(session, { slow }) {
    const running = session.outcome(session.call(slow.name, slow.args));
    await untilBusy(slow);
    const closed = await session.close();
    return { running: await running, closed };
  },
};

const [name] = process.argv.slice(2);
const { server, ...wishes } = JSON.parse(readFileSync(0, 'utf8'));
const session = await Session.open(server);
const findings = await scenarios[name](session, wishes);
const closed = await session.close();
process.stdout.write(
  JSON.stringify({ findings, closed, errors: session.errors, stderr: session.stderr }) + '\n',
);
