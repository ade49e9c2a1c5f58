/* A tool call of the stdio server, its child process and its cancel.
 *
 * Mirrors, one step per access to what the threads share:
 *   src/app/stdio_server.cpp   handle, cancel, terminate_worker_process, refuse_as_busy, start_tool
 *   src/app/tool_thread.cpp    all of it: the calls' thread, started by the first one and kept
 *   src/app/tool_worker.cpp    publish, withdraw, read_reply, run_child, pass_on, run_tool_job
 *   src/platform/thread.h      Mutex and Condition: a notification reaches those who wait already
 *   src/platform/process.h     what ChildProcess promises about terminate, wait and collect
 *   src/json/output_lock.h     one line at a time on standard output
 *
 * Calls have the numbers 1 to CALLS; 0 is none. A child replies and ends, fails, or hangs until it
 * is terminated.
 *
 * Shown for every interleaving: each call has exactly one reply; only a running or ended child is
 * signalled, never a collected one; a cancel that matched ends a child that would never end, and
 * touches no other call; a job is freed once; lines do not mix; nobody waits for ever.
 *
 * Each name after #ifdef is a mutation that ./run expects to fail. */

#ifndef CALLS
#define CALLS 2
#endif
#ifndef MESSAGES
#define MESSAGES 5
#endif

mtype = { NotStarted, Running, Ended, Collected };

/* ToolState, and the lock of standard output. */
bool ToolActive, CancelRequested;
bool worker_process_lock, OutputLock;
byte WorkerProcess, ActiveRequestId;

/* ToolThread, and who waits for a notification. */
bool mutex, ending, thread_runs, thread_ended;
bool reader_waits, thread_waits;
byte job;

/* What the system keeps: children. */
mtype child[CALLS + 1] = NotStarted;
bool hangs[CALLS + 1], succeeds[CALLS + 1], terminated[CALLS + 1];

/* What the properties speak of. */
bool cancel_matched[CALLS + 1], job_allocated[CALLS + 1];
byte replies[CALLS + 1];
bool writing_line;

inline spin_lock(lock) { atomic { !lock -> lock = true } }
inline spin_unlock(lock) { lock = false }

inline lock_mutex() { atomic { !mutex -> mutex = true } }
inline unlock_mutex() { mutex = false }
inline notify_all() { atomic { reader_waits = false; thread_waits = false } }

/* Condition::wait: lets the mutex go and sleeps in one step. */
inline wait(waits) {
  atomic { mutex = false; waits = true };
  atomic { !waits && !mutex -> mutex = true }
}

inline write_line(call) {
#ifndef NO_OUTPUT_LOCK
  spin_lock(OutputLock);
#endif
  assert(!writing_line); /* lines never mix */
  writing_line = true;
  replies[call]++;
  writing_line = false;
#ifndef NO_OUTPUT_LOCK
  spin_unlock(OutputLock)
#endif
}

/* ChildProcess::terminate. */
inline terminate(call) {
  atomic {
    assert(child[call] != NotStarted && child[call] != Collected); /* the number may be another's */
    assert(cancel_matched[call]); /* no other call is hit */
    terminated[call] = true
  }
}

/* The system and the child. */
proctype child_process(byte call) {
  if
  :: terminated[call]
  :: !hangs[call]
  :: timeout -> /* nothing else can move, so whoever could terminate it has not */
    assert(!cancel_matched[call]) /* a cancel that matched is not lost */
  fi;
  child[call] = Ended
}

inline run_tool_job(call) {
  succeeded = false;
  if
  :: child[call] = Running; run child_process(call)
  :: goto reply /* the child does not start */
  fi;
  /* publish */
  spin_lock(worker_process_lock);
  WorkerProcess = call;
#ifndef NO_LOOK_AFTER_PUBLISHING
  if
  :: CancelRequested -> terminate(call)
  :: else
  fi;
#endif
  spin_unlock(worker_process_lock);
  /* write_input and read_reply come back once the child has ended, wait only then. */
  child[call] == Ended;
#ifdef COLLECT_BEFORE_WITHDRAWING
  child[call] = Collected;
#endif
  /* withdraw */
  spin_lock(worker_process_lock);
  WorkerProcess = 0;
  spin_unlock(worker_process_lock);
  /* collect */
  child[call] = Collected;
  succeeded = succeeds[call] && !terminated[call];
reply:
  if
  :: CancelRequested ->
    assert(cancel_matched[call]); /* no other call is hit */
    write_line(call)
  :: else ->
    assert(!terminated[call]); /* what a cancel has ended is reported as cancelled */
    if
    :: succeeded -> write_line(call) /* pass_on */
    :: else -> write_line(call) /* isolated MCP tool worker failed */
    fi
  fi;
  assert(job_allocated[call]); /* freed once */
  job_allocated[call] = false;
  ToolActive = false
}

/* ToolThread::serve and next_job. */
proctype tool_thread() {
  byte call = 0;
  bool succeeded = false;
  do
  :: lock_mutex();
#ifndef NO_NOTICE_OF_THE_END
    notify_all();
#endif
    do
    :: job == 0 && !ending -> wait(thread_waits)
    :: else -> break
    od;
    call = job;
    job = 0;
    unlock_mutex();
    if
    :: call == 0 -> break
    :: else
    fi;
    run_tool_job(call)
  od;
  thread_ended = true
}

/* ToolThread::idle_within, which may give up. */
inline idle_within(idle) {
  lock_mutex();
  idle = false;
  do
  :: !ToolActive -> idle = true; break
  :: ToolActive -> break /* the time is over */
  :: ToolActive -> wait(reader_waits)
  od;
  unlock_mutex()
}

/* The destruction of ToolThread. */
inline end_thread() {
  lock_mutex();
  ending = true;
  unlock_mutex();
#ifndef NO_NOTICE_OF_THE_ENDING
  notify_all();
#endif
  if
  :: thread_runs -> thread_ended
  :: else
  fi
}

inline start_tool(call) {
  job_allocated[call] = true;
  ActiveRequestId = call;
#ifndef NO_RESET_OF_THE_CANCEL
  CancelRequested = false;
#endif
  ToolActive = true;
  if
  :: !thread_runs -> thread_runs = true; run tool_thread()
  :: !thread_runs /* no thread to be had */
  :: thread_runs
  fi;
  if
  :: thread_runs ->
#ifndef JOB_WITHOUT_MUTEX
    lock_mutex();
#endif
    assert(job == 0);
    job = call;
#ifndef JOB_WITHOUT_MUTEX
    unlock_mutex();
#endif
#ifndef NO_NOTICE_OF_A_JOB
    notify_all()
#endif
  :: else -> ToolActive = false; job_allocated[call] = false; write_line(call)
  fi
}

inline cancel() {
  cancel_matched[ActiveRequestId] = true;
#ifndef FLAG_AFTER_TERMINATE
  CancelRequested = true;
#endif
  /* terminate_worker_process */
#ifndef NO_LOCK_AROUND_TERMINATE
  spin_lock(worker_process_lock);
#endif
  target = WorkerProcess;
  if
  :: target == 0
  :: target != 0 -> terminate(target)
  fi;
#ifndef NO_LOCK_AROUND_TERMINATE
  spin_unlock(worker_process_lock);
#endif
#ifdef FLAG_AFTER_TERMINATE
  CancelRequested = true;
#endif
  target = 0
}

/* The reading thread: up to MESSAGES messages, each a call with a fresh id, a cancel of any call
 * so far, or a ping, which is replied to like a call that is refused. */
active proctype reading_thread() {
  byte received = 0, calls = 0, target = 0, cancelled = 0, i = 0;
  bool idle = false;
  do
  :: received < MESSAGES && calls < CALLS -> /* tools/call */
    received++;
    calls++;
    /* What its child will do. */
    if
    :: hangs[calls] = true
    :: succeeds[calls] = true
    :: skip
    fi;
    idle = true;
    if
    :: ToolActive -> idle_within(idle)
    :: else
    fi;
    if
    :: !idle -> write_line(calls) /* refuse_as_busy */
    :: idle -> start_tool(calls)
    fi
  :: received < MESSAGES && calls > 0 -> /* notifications/cancelled, no reply */
    received++;
    select(cancelled : 1 .. calls);
    if
    :: ToolActive ->
      if
      :: ActiveRequestId == cancelled -> cancel()
      :: else -> idle_within(idle)
      fi
    :: else
    fi;
    cancelled = 0
  :: break /* end of input, at any time */
  od;
  end_thread();
  for (i : 1 .. calls) {
    assert(replies[i] == 1); /* exactly one reply per call */
    assert(!job_allocated[i]);
    assert(child[i] == NotStarted || child[i] == Collected)
  }
}
