/* The sessions of the HTTP listener, used by connection threads.
 *
 * Mirrors, where what is done under the table's mutex is one step up to a wait (whatever else
 * touches it is under the mutex too), and each call of a session's process is one:
 *   src/http/session_table.cpp   every function
 *   src/http/session_process.cpp start, write, read_line, has_ended, terminate, finish
 *   src/http/connection.cpp      close_session, forward, exchange: the order of a thread's calls
 *
 * Each of the THREADS threads handles one request: initialize, a message with or without an answer,
 * or DELETE, for any session that was ever created; one more thread ends the table (close_all). A
 * child replies to one asker after the other; it may fail, hang until it is ended, or write a line
 * that is too long, of which the reader takes a piece and fails. An idle session and one whose
 * child has ended are the same to the table, and any session may be so at any time.
 *
 * Shown for every interleaving: a reader gets its own answer; a session is neither written to, read
 * from, released nor closed by a hold on an earlier user of its slot; nobody is in write or
 * read_line while finish runs; a slot is freed once per session; nobody waits for ever.
 *
 * Each name after #ifdef is a mutation that ./run expects to fail. */

#ifndef THREADS
#define THREADS 3
#endif
#ifndef SLOTS
#define SLOTS 1
#endif
#define SESSIONS THREADS

mtype = { Free, Starting, Active, Ending };

/* SessionTable. */
bool waits[THREADS + 1]; /* inside changed_.wait */
mtype state[SLOTS] = Free;
byte holds[SLOTS], next_turn[SLOTS], served_turn[SLOTS];

/* SessionProcess: the session whose child it has, 0 for none; the lock around write. */
byte session_of[SLOTS];
bool writing[SLOTS];

/* Its child: whether it was ended, who asked and has no answer yet, and whose answer was read in
 * part, 0 for nobody's. */
bool terminated[SLOTS];
chan asked[SLOTS] = [THREADS] of { byte };
byte rest_of[SLOTS];

/* What the properties speak of. */
byte sessions, inside[SLOTS], freed[SESSIONS + 1], ended_threads;

inline notify_all() {
  d_step {
    i = 0;
    do
    :: i <= THREADS -> waits[i] = false; i++
    :: else -> break
    od;
    i = 0
  }
}
/* Condition::wait; it never returns without a notification here, which would hide a missing one. */
inline wait() {
  waits[me] = true;
  !waits[me]
}

/* SessionProcess::start. A session that is started has a fresh id. */
inline start(s) {
  atomic {
    assert(session_of[s] == 0);
    sessions++;
    session = sessions;
    session_of[s] = session
  }
}

inline terminate(s) {
  atomic {
    assert(session_of[s] == session && session != 0);
#ifndef NO_TERMINATE
    terminated[s] = true
#endif
  }
}

inline finish(s) {
  atomic {
    assert(session_of[s] == session && session != 0);
    assert(inside[s] == 0); /* nobody reads or writes */
    session_of[s] = 0;
    terminated[s] = false;
    rest_of[s] = 0;
    do
    :: asked[s]?answer
    :: empty(asked[s]) -> break
    od;
    answer = 0
  }
}

/* A child that hangs until it is ended, or by itself once nothing else can move; nobody may wait for
 * its end then. */
inline wait_for_child(s) {
  if
  :: terminated[s]
  :: timeout -> assert(state[s] == Active)
  fi
}

/* Two steps, so that another thread sees this one inside. */
inline write(s) {
  atomic {
    !writing[s];
    writing[s] = true;
    assert(session_of[s] == session);
    inside[s]++
  }
  atomic {
    if
    :: !terminated[s] -> succeeded = true
    :: succeeded = false /* the child has failed */
    :: skip; wait_for_child(s); succeeded = false /* it does not read */
    fi;
    if
    :: succeeded && asks -> asked[s]!me
    :: else
    fi;
    writing[s] = false;
    inside[s]--
  }
}

/* The child replies to one asker after the other. */
inline read_line(s) {
  atomic { assert(session_of[s] == session); inside[s]++ }
  atomic {
    if
    :: rest_of[s] != 0 -> answer = rest_of[s]; rest_of[s] = 0; succeeded = true
    :: rest_of[s] == 0 -> asked[s]?answer; succeeded = true
    :: rest_of[s] == 0 -> /* a line that is too long */
      asked[s]?answer;
      rest_of[s] = answer;
      succeeded = false
    :: answer = me; succeeded = false /* the child has failed */
    :: skip; wait_for_child(s); answer = me; succeeded = false /* it does not reply */
    fi;
    assert(answer == me); /* no answer reaches another client */
    answer = 0;
    inside[s]--
  }
}

/* SessionTable. */
inline release(s) {
  atomic {
    assert(session_of[s] == session && holds[s] > 0);
    holds[s]--;
#ifndef SILENT_RELEASE
    if
    :: state[s] == Ending -> notify_all()
    :: else
    fi;
#endif
  }
}

inline touch(s) { succeeded = (state[s] == Active) }

inline begin_exchange(s) {
  atomic {
    touch(s)
  }
}

inline wait_for_turn(s) {
  atomic {
    turn = next_turn[s];
    next_turn[s]++;
    touch(s);
    if
    :: succeeded ->
      do
#ifndef NO_TURNS
      :: state[s] == Active && served_turn[s] != turn -> wait()
#endif
      :: else -> break
      od;
      touch(s)
    :: else
    fi;
    turn = 0
  }
}

inline end_turn(s) {
  atomic {
    served_turn[s]++;
    notify_all()
  }
}

inline begin_ending(s) {
#ifdef NO_LOCK_AROUND_ENDING
  succeeded = (state[s] == Active);
  if
  :: succeeded -> state[s] = Ending
  :: else
  fi
#else
  atomic {
    succeeded = (state[s] == Active);
    if
    :: succeeded -> state[s] = Ending
    :: else
    fi
  }
#endif
}

/* end, for a session that is the thread's own by now. */
inline end(s, own_holds) {
  terminate(s);
  atomic {
#ifndef SILENT_END
    notify_all();
#endif
    do
#ifndef END_WITHOUT_WAITING
    :: holds[s] > own_holds -> wait()
#endif
    :: else -> break
    od
  };
  finish(s);
  atomic {
    assert(state[s] == Ending);
    state[s] = Free;
    freed[session]++;
    assert(freed[session] == 1); /* freed once */
    holds[s] = 0;
    next_turn[s] = 0;
    served_turn[s] = 0;
#ifndef SILENT_FREE
    notify_all();
#endif
  }
}

/* With the thread's hold; it has none afterwards when it was the one that ended the session. */
inline close(s) {
  begin_ending(s);
  if
  :: succeeded -> end(s, 1); held = false
  :: else
  fi
}

inline ask(s) {
  asks = true;
  wait_for_turn(s);
  if
  :: succeeded ->
    write(s);
    if
    :: succeeded -> read_line(s)
    :: else
    fi;
#ifdef TURN_AFTER_FAILURE
    if
    :: succeeded -> end_turn(s)
    :: else -> end_turn(s); close(s)
    fi
#else
    if
    :: succeeded -> end_turn(s)
    :: else -> close(s)
    fi
#endif
  :: else
  fi
}

inline tell(s) {
  begin_exchange(s);
  if
  :: succeeded ->
    write(s);
    if
    :: succeeded
    :: else -> close(s)
    fi
  :: else
  fi
}

inline end_unused() {
  for (n : 0 .. SLOTS - 1) {
    atomic {
      session = 0;
      if
      :: state[n] == Active -> state[n] = Ending; session = session_of[n]
      :: skip
      fi
    };
    if
    :: session != 0 -> end(n, 0)
    :: else
    fi
  }
  n = 0;
  session = 0
}

inline find_free() {
  atomic {
    slot = 0;
    changing = false;
    do
    :: slot < SLOTS && state[slot] == Free -> break
    :: slot < SLOTS && state[slot] != Free ->
      changing = changing || state[slot] == Starting || state[slot] == Ending;
      slot++
    :: else -> break
    od
  }
}

/* reserve; slot is SLOTS when there is none. */
inline reserve() {
  atomic {
    do
    :: find_free();
      if
      :: slot < SLOTS -> state[slot] = Starting; break
      :: slot == SLOTS && !changing -> break
      :: slot == SLOTS && changing -> wait()
      fi
    od;
    changing = false
  }
}

inline create() {
  end_unused();
  reserve();
  if
  :: slot < SLOTS ->
    if
    :: start(slot)
    :: session = 0 /* the child does not start */
    fi;
    atomic {
      assert(state[slot] == Starting);
      if
      :: session != 0 -> state[slot] = Active
      :: else -> state[slot] = Free
      fi;
#ifndef SILENT_START
      notify_all();
#endif
      if
      :: session != 0 -> holds[slot] = 1; held = true
      :: else
      fi
    }
  :: else
  fi
}

/* find, for a client that knows one of the sessions. */
inline find() {
  atomic {
    if
    :: sessions > 0 -> select(session : 1 .. sessions)
    :: else -> session = 0
    fi;
    atomic {
      slot = 0;
      do
      :: slot < SLOTS && !(state[slot] == Active && session_of[slot] == session) -> slot++
      :: else -> break
      od
  }
  if
  :: session != 0 && slot < SLOTS ->
#ifndef NO_HOLD
    holds[slot]++;
#endif
    held = true
  :: else
  fi
  }
}

/* One request of a client. */
proctype connection_thread(byte me) {
  byte i = 0, n = 0, slot = 0, session = 0, turn = 0, answer = 0;
  bool held = false, succeeded = false, changing = false, asks = false;
  if
  :: skip; create(); if :: held -> ask(slot) :: else fi /* initialize */
  :: skip; find(); if :: held -> ask(slot) :: else fi
  :: skip; find(); if :: held -> tell(slot) :: else fi /* a notification */
  :: skip; find(); if :: held -> close(slot) :: else fi /* DELETE */
  fi;
  /* ~Hold */
  if
  :: held -> release(slot)
  :: else
  fi;
  ended_threads++
}

/* The end of the accept loop. */
inline close_all() {
  for (n : 0 .. SLOTS - 1) {
    begin_ending(n);
    session = session_of[n];
    if
    :: succeeded -> end(n, 0)
    :: else
    fi
  }
}

init {
  byte me = 0, i = 0, n = 0, session = 0, answer = 0;
  bool succeeded = false;
  atomic {
    for (n : 1 .. THREADS) {
      run connection_thread(n)
    }
  }
  close_all();
  /* Once every thread is done, what is not closed is active and held by nobody. */
  ended_threads == THREADS;
  for (n : 0 .. SLOTS - 1) {
    assert(state[n] == Free || state[n] == Active);
    assert(holds[n] == 0 && inside[n] == 0);
    session = session_of[n];
    assert((state[n] == Active) == (session != 0));
    assert(session == 0 || freed[session] == 0)
  }
}
