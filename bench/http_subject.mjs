// A server process that listens on a port of its own, and what it holds.
import { spawn } from 'node:child_process';
import { readdirSync, readFileSync } from 'node:fs';
import net from 'node:net';
import { setTimeout as pause } from 'node:timers/promises';

const START_LIMIT_MS = 60000;
const POLL_MS = 20;
const SETTLE_MS = 500;

function freePort() {
  return new Promise((resolve) => {
    const holder = net.createServer().listen(0, '127.0.0.1', () => {
      const { port } = holder.address();
      holder.close(() => resolve(port));
    });
  });
}

function accepts(port) {
  return new Promise((resolve) => {
    const socket = net.connect({ port, host: '127.0.0.1' });
    socket.on('connect', () => resolve(true)).on('error', () => resolve(false));
    socket.on('connect', () => socket.destroy());
  });
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
  const kibibytes = pids.map((pid) =>
    Number(line.exec(readFileSync(`/proc/${pid}/smaps_rollup`))[1]),
  );
  return Number((kibibytes.reduce((sum, size) => sum + size, 0) / 1024).toFixed(2));
}

export class Subject {
  #child;

  constructor(name, port, child) {
    this.name = name;
    this.port = port;
    this.#child = child;
  }

  /** Resolves when the port accepts; an error when the process ends or is silent for a minute. */
  static async start({ name, command, environment = {} }) {
    const port = await freePort();
    const [program, ...args] = command.map((part) => part.replace(/^PORT$/, port));
    const child = spawn(program, args, {
      stdio: 'ignore',
      env: { ...process.env, ...environment },
    });
    const subject = new Subject(name, port, child);
    const limit = performance.now() + START_LIMIT_MS;
    while (!(await accepts(port))) {
      if (child.exitCode !== null || child.signalCode !== null || performance.now() > limit) {
        subject.stop();
        throw new Error(`${name} does not listen`);
      }
      await pause(POLL_MS);
    }
    return subject;
  }

  /** Of the process and its children, in MiB. */
  memory() {
    const members = family(this.#child.pid);
    return {
      processes: members.length,
      proportional_set_mib: mebibytes(members, 'Pss'),
      private_written_mib: mebibytes(members, 'Private_Dirty'),
    };
  }

  /** Until what the last requests have started is over. */
  settle() {
    return pause(SETTLE_MS);
  }

  stop() {
    this.#child.kill();
  }
}
