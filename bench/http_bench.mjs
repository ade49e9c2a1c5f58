// Requests per second, latency and memory of the HTTP listener and of http_peer.mjs, side by side.
//
//     node http_bench.mjs ROUNDS SERVER
//
// SERVER is the executable, whose environment has the policy and the token. The subjects are
// measured in turn, round by round, forwards and backwards, so that other load meets both.
import { spawn } from 'node:child_process';
import { readdirSync, readFileSync } from 'node:fs';
import net from 'node:net';
import { setTimeout as pause } from 'node:timers/promises';

import { HttpClient } from './http_client.mjs';

const CLIENTS = [1, 8];
const SESSIONS = 16;
// A session of the listener takes 256 requests that are no tool calls.
const WORKLOADS = [
  { name: 'ping', requests: 200, ask: (client) => client.ask('ping') },
  {
    name: 'tool call',
    requests: 50,
    ask: (client) => client.ask('tools/call', { name: 'kova_list_tables', arguments: {} }),
  },
];

const [rounds, executable] = [Number(process.argv[2]), process.argv[3]];
const token = process.env.KOVA_MCP_HTTP_BEARER_TOKEN;
const started = [];

function start(command, args, stdio) {
  const child = spawn(command, args, { stdio });
  started.push(child);
  return child;
}

function freePort() {
  return new Promise((resolve) => {
    const holder = net.createServer().listen(0, '127.0.0.1', () => {
      const { port } = holder.address();
      holder.close(() => resolve(port));
    });
  });
}

/** The first data that comes; an error when the process ends before. */
function firstOutput(child, stream) {
  return new Promise((resolve, reject) => {
    stream.once('data', (data) => resolve(String(data)));
    child.once('exit', (code) => reject(new Error(`ended with ${code}`)));
  });
}

async function startListener() {
  const port = await freePort();
  const child = start(executable, ['--http', String(port)], ['ignore', 'ignore', 'pipe']);
  await firstOutput(child, child.stderr);
  return { name: 'listener', port, pid: child.pid };
}

async function startPeer() {
  const peer = new URL('http_peer.mjs', import.meta.url).pathname;
  const child = start(process.execPath, [peer], ['ignore', 'pipe', 'inherit']);
  const port = Number(await firstOutput(child, child.stdout));
  return { name: 'SDK server', port, pid: child.pid };
}

async function openClients(subject, count) {
  const clients = Array.from({ length: count }, () => new HttpClient(subject.port, token));
  for (const client of clients) await client.open();
  return clients;
}

/** One batch: every client sends its requests one after the other. */
async function measure(subject, workload, count) {
  const clients = await openClients(subject, count);
  for (const client of clients) await workload.ask(client);
  const latencies = [];
  const began = performance.now();
  await Promise.all(
    clients.map(async (client) => {
      for (let number = 0; number < workload.requests; number += 1) {
        const sent = performance.now();
        await workload.ask(client);
        latencies.push(performance.now() - sent);
      }
    }),
  );
  const perSecond = (1000 * latencies.length) / (performance.now() - began);
  for (const client of clients) await client.close();
  return { latencies, perSecond };
}

function quantile(values, share) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.floor(share * (sorted.length - 1))];
}

const median = (values) => quantile(values, 0.5);

async function compare(subjects, workload, count) {
  const results = subjects.map(() => []);
  for (let round = -1; round < rounds; round += 1) {
    const order = subjects.map((_, index) => index);
    if (round % 2 !== 0) order.reverse();
    for (const index of order) {
      const result = await measure(subjects[index], workload, count);
      if (round >= 0) results[index].push(result); // the first round warms up
    }
  }
  const ratios = results[0].map((result, round) => result.perSecond / results[1][round].perSecond);
  results.forEach((batches, index) => {
    const latencies = batches.flatMap((batch) => batch.latencies);
    row(
      workload.name,
      count,
      subjects[index].name,
      Math.round(median(batches.map((batch) => batch.perSecond))),
      median(latencies).toFixed(2),
      quantile(latencies, 0.9).toFixed(2),
      quantile(latencies, 0.99).toFixed(2),
      index === 0 ? median(ratios).toFixed(2) : '',
    );
  });
}

function row(...cells) {
  console.log(`| ${cells.join(' | ')} |`);
}

/** The process and everything that it has started. */
function family(pid) {
  const children = new Map();
  for (const name of readdirSync('/proc').filter((entry) => /^\d+$/.test(entry))) {
    try {
      const stat = readFileSync(`/proc/${name}/stat`, 'latin1');
      const [, parent] = /.*\) \S (\d+) /s.exec(stat);
      children.set(parent, [...(children.get(parent) ?? []), name]);
    } catch {
      // It has ended.
    }
  }
  const members = [String(pid)];
  for (const member of members) members.push(...(children.get(member) ?? []));
  return members;
}

function mebibytes(pids, field) {
  const line = new RegExp(`^${field}: +(\\d+) kB$`, 'm');
  const sum = pids.reduce(
    (kibibytes, pid) => kibibytes + Number(line.exec(readFileSync(`/proc/${pid}/smaps_rollup`))[1]),
    0,
  );
  return (sum / 1024).toFixed(1);
}

async function memory(subject) {
  const idle = family(subject.pid);
  const before = mebibytes(idle, 'Pss');
  const clients = await openClients(subject, SESSIONS);
  for (const client of clients) {
    for (let calls = 0; calls < 10; calls += 1) await WORKLOADS[1].ask(client);
  }
  await pause(500);
  const members = family(subject.pid);
  row(
    subject.name,
    members.length,
    before,
    mebibytes(members, 'Pss'),
    mebibytes(members, 'Private_Dirty'),
  );
  for (const client of clients) await client.close();
}

try {
  const subjects = [await startListener(), await startPeer()];
  console.log(`memory, MiB, at ${SESSIONS} sessions\n`);
  row('', 'processes', 'before the sessions', 'proportional set', 'of it private and written');
  row('---', '---:', '---:', '---:', '---:');
  for (const subject of subjects) await memory(subject);
  console.log('\nlatencies in ms; ratio: requests per second, listener divided by SDK server\n');
  row('', 'clients', '', 'requests/s', 'median', '90 %', '99 %', 'ratio');
  row('---', '---:', '---', '---:', '---:', '---:', '---:', '---:');
  for (const workload of WORKLOADS) {
    for (const count of CLIENTS) await compare(subjects, workload, count);
  }
} finally {
  for (const child of started) child.kill();
}
