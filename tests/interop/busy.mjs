// Waits until the engine works at a slow statement.

import { readFileSync } from 'node:fs';
import { setTimeout as pause } from 'node:timers/promises';

const BUSY_TICKS = 10; // 0.1 s of the processor
const LIMIT = 20000;

function ticks(pid) {
  const fields = readFileSync(`/proc/${pid}/stat`, 'latin1').split(') ').at(-1).split(' ');
  return Number(fields[11]) + Number(fields[12]);
}

/** Call it when the statement is sent; returns the milliseconds that it took. */
export async function untilBusy({ engine }) {
  const started = performance.now();
  const before = ticks(engine);
  while (ticks(engine) < before + BUSY_TICKS) {
    if (performance.now() - started > LIMIT) throw new Error('the engine does not work');
    await pause(20);
  }
  return performance.now() - started;
}
