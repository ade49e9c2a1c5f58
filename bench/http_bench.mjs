// Requests per second, latency and memory of HTTP servers, side by side.
//
//     node http_bench.mjs PLAN DATA
//
// PLAN is a JSON file:
//   rounds     batches of each subject, workload and number of clients
//   clients    numbers of clients; each sends its next request when the reply is there
//   sessions   open sessions when memory is measured; 0 leaves that out
//   subjects   {name, command, environment}: the argument "PORT" becomes a free port
//   workloads  {name, requests, calls: {SUBJECT: {method, params}}}; requests are those of one client
// DATA gets a JSON object, which `http` of bench/figures/raw.py reads. The subjects are measured
// round by round, so that other load meets all, and each round begins with the next one; ratios are
// to the last subject.
import { readFileSync, writeFileSync } from 'node:fs';

import { HttpClient } from './http_client.mjs';
import { Subject } from './http_subject.mjs';

const WARM_UP_ROUNDS = 1;
const CALLS_BEFORE_MEMORY = 10;

const [planFile, dataFile] = process.argv.slice(2);
const plan = JSON.parse(readFileSync(planFile, 'utf8'));
const token = process.env.KOVA_MCP_HTTP_BEARER_TOKEN;

async function openClients(subject, count) {
  const clients = Array.from({ length: count }, () => new HttpClient(subject.port, token));
  for (const client of clients) await client.open();
  return clients;
}

/** One batch: every client sends its requests one after the other. Microseconds. */
async function measure(subject, workload, count) {
  const { method, params } = workload.calls[subject.name];
  const clients = await openClients(subject, count);
  for (const client of clients) await client.ask(method, params);
  const latencies = [];
  const began = performance.now();
  await Promise.all(
    clients.map(async (client) => {
      for (let number = 0; number < workload.requests; number += 1) {
        const sent = performance.now();
        await client.ask(method, params);
        latencies.push(Math.round(1000 * (performance.now() - sent)));
      }
    }),
  );
  const perSecond = (1000 * latencies.length) / (performance.now() - began);
  const busy = clients.reduce((sum, client) => sum + client.busyReplies, 0);
  for (const client of clients) await client.close();
  return { latencies, perSecond, busy };
}

/** Of every subject: requests a second by round, and all latencies. */
async function compare(subjects, workload, count) {
  const found = subjects.map(() => ({ perSecond: [], latencies: [], busy: 0 }));
  for (let round = -WARM_UP_ROUNDS; round < plan.rounds; round += 1) {
    for (let turn = 0; turn < subjects.length; turn += 1) {
      const index = (turn + round + WARM_UP_ROUNDS) % subjects.length;
      const batch = await measure(subjects[index], workload, count);
      if (round < 0) continue;
      found[index].perSecond.push(Number(batch.perSecond.toFixed(1)));
      found[index].latencies.push(...batch.latencies);
      found[index].busy += batch.busy;
    }
  }
  return found.map(({ perSecond, latencies, busy }, index) => ({
    workload: workload.name,
    clients: count,
    subject: subjects[index].name,
    a_second: perSecond,
    busy_replies: busy,
    microseconds: latencies,
  }));
}

async function memory(subject) {
  const before = subject.memory();
  const { method, params } = plan.workloads.at(-1).calls[subject.name];
  const clients = await openClients(subject, plan.sessions);
  for (const client of clients) {
    for (let calls = 0; calls < CALLS_BEFORE_MEMORY; calls += 1) await client.ask(method, params);
  }
  await subject.settle();
  const after = subject.memory();
  for (const client of clients) await client.close();
  return { subject: subject.name, sessions: plan.sessions, before, after };
}

const subjects = [];
try {
  for (const wanted of plan.subjects) subjects.push(await Subject.start(wanted));
  const found = { memory: [], throughput: [] };
  if (plan.sessions > 0) {
    for (const subject of subjects) found.memory.push(await memory(subject));
  }
  for (const workload of plan.workloads) {
    for (const count of plan.clients) {
      found.throughput.push(...(await compare(subjects, workload, count)));
    }
  }
  writeFileSync(dataFile, JSON.stringify(found));
} finally {
  for (const subject of subjects) subject.stop();
}
