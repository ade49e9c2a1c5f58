"""Chaos: many clients, a hand that breaks things under them, and what has to hold all the same.

    tests/chaos/run --seconds 3600 --seed 7 --target linux|windows

| Module | What it does |
|---|---|
| program | the command line, the rounds, the report |
| stage | what runs: engine, listener, HAProxy; folders that can be filled; the servers' files |
| clock, moved_clock.c | a clock that the run moves for the processes under test alone |
| acts | the calls that clients make, and what a right reply to each is |
| wine_server | the end of Wine's own server |
| stdio_client, http_client | clients that call, cancel, send garbage, vanish and come back |
| hand | the faults; two hands do them, one after the other each |
| ledger | every request with its replies; times in which a record may be lost; violations; counts |
| records | the audit files against the calls |
| checks | what else is looked at when a round is over |
| report | what a run has done, and what comes of it |

A run is a row of rounds. In each, clients work while the hands do what the round's random numbers
say; then every fault is lifted, the clients come to their end, and everything is checked:

* each request got exactly one reply, or its connection was closed;
* each reply carries the id and the mark of its own request, so none reached another client;
* standard output held nothing but messages;
* every call with a result has exactly one audit record, and no record is of a call that nobody
  made. Left out are calls under way on a server while a fault kept it from writing records;
* every record is whole. A piece is excused only where records could be written in part, and for
  a call whose worker was killed meanwhile: nobody was left to take the piece back;
* a write ran at most once, only with an approval, and never without its replay marker; a write that
  was reported as done is in the database;
* no process, descriptor, handle or thread is left, of the listener without its sessions and of a
  stdio server that is idle at the end of the round.

The random numbers of a client and of a hand depend on the seed and the round alone. `--seed S
--round N --rounds 1` repeats one round: the same clients do the same things under the same faults,
only the system schedules them anew.

On Windows under Wine the hands do the same but for three faults: descriptors, memory and the size
of files are limits of the native process, which is Wine's. A kill there is an end of the native
process, which is seen as TerminateProcess with the exit code 0 is; a stop suspends all of its
threads. So the reply of a worker that was killed before its record is passed on: calls under way on
a server of which a worker is killed need no record there. Wine's server now and then keeps a socket
open whose process has been killed, which Windows does not: such connections are counted, and are no
violation.

A round in which Wine's own server ends is played again, after everything was started anew.
"""
