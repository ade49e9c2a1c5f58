/* A tool call of the stdio server, its child process and its cancel.
 *
 * Mirrors, one step per access to what the threads share:
 *   src/app/stdio_server.cpp   handle, collect_worker, cancel, terminate_worker_process,
 *                              refuse_as_busy, start_tool, and the join at the end of run
 *   src/app/tool_worker.cpp    publish, withdraw, read_reply, run_child, pass_on, run_tool_job
 *   src/platform/process.h     what ChildProcess promises about terminate, wait and collect
 *   src/json/output_lock.h     one line at a time on standard output
 *
 * Calls and threads have the same numbers, 1 to CALLS; 0 is none. A child replies and ends, fails,
 * or hangs until it is terminated.
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

/* What the system keeps: threads and children. */
bool thread_ended[CALLS + 1];
mtype child[CALLS + 1] = NotStarted;
bool hangs[CALLS + 1], succeeds[CALLS + 1], terminated[CALLS + 1];

/* What the properties speak of. */
bool cancel_matched[CALLS + 1], job_allocated[CALLS + 1];
byte replies[CALLS + 1];
bool writing_line;

inline spin_lock(lock) { atomic { !lock -> lock = true } }
inline spin_unlock(lock) { lock = false }

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

/* run_tool_job. */
proctype worker_thread(byte call) {
  bool succeeded = false;
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
  ToolActive = false;
  thread_ended[call] = true
}

/* collect_worker(0) and the join_within of collect_worker(50), which may come back too early. */
inline collect_worker(may_give_up) {
  if
  :: joinable == 0
  :: joinable != 0 ->
    if
    :: thread_ended[joinable] -> joinable = 0; ToolActive = false
    :: !thread_ended[joinable] && may_give_up
    fi
  fi
}

inline join() {
  if
  :: joinable == 0
  :: joinable != 0 -> thread_ended[joinable]; joinable = 0
  fi
}

inline start_tool(call) {
  job_allocated[call] = true;
#ifndef NO_JOIN_BEFORE_START
  join();
#endif
  ActiveRequestId = call;
#ifndef NO_RESET_OF_THE_CANCEL
  CancelRequested = false;
#endif
  ToolActive = true;
  assert(joinable == 0); /* Thread::start needs an object whose last thread was joined */
  if
  :: run worker_thread(call); joinable = call
  :: ToolActive = false; job_allocated[call] = false; write_line(call) /* no thread to be had */
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
  byte received = 0, calls = 0, joinable = 0, target = 0, cancelled = 0, i = 0;
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
    collect_worker(true);
    if
    :: ToolActive -> collect_worker(true)
    :: else
    fi;
    if
    :: ToolActive -> write_line(calls) /* refuse_as_busy */
    :: else -> start_tool(calls)
    fi
  :: received < MESSAGES && calls > 0 -> /* notifications/cancelled, no reply */
    received++;
    select(cancelled : 1 .. calls);
    collect_worker(true);
    if
    :: ToolActive ->
      if
      :: ActiveRequestId == cancelled -> cancel()
      :: else -> collect_worker(true)
      fi
    :: else
    fi;
    cancelled = 0
  :: break /* end of input, at any time */
  od;
  join();
  for (i : 1 .. calls) {
    assert(replies[i] == 1); /* exactly one reply per call */
    assert(!job_allocated[i]);
    assert(child[i] == NotStarted || child[i] == Collected)
  }
}
