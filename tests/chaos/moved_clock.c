// Moves the clocks of the processes that load this object (LD_PRELOAD) by what the file that
// CHAOS_CLOCK names says: two numbers of 64 bits, nanoseconds for the wall clock and for the
// monotonic clock. The file is mapped, so the clocks of running processes move too. The system's
// clock stays as it is.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

enum { kWall, kMonotonic, kClocks };

static const volatile int64_t* moves;

__attribute__((constructor)) static void map_moves(void) {
  const char* const path = getenv("CHAOS_CLOCK");
  const int file = path != NULL ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (file < 0) return;
  void* const mapped = mmap(NULL, kClocks * sizeof *moves, PROT_READ, MAP_SHARED, file, 0);
  close(file);
  if (mapped != MAP_FAILED) moves = mapped;
}

static int64_t move_of(clockid_t clock) {
  if (moves == NULL) return 0;
  if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) return moves[kWall];
  if (clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_BOOTTIME ||
      clock == CLOCK_MONOTONIC_RAW) {
    return moves[kMonotonic];
  }
  return 0;
}

static void add(struct timespec* at, int64_t nanoseconds) {
  const int64_t kSecond = 1000000000;
  int64_t sum = at->tv_nsec + nanoseconds % kSecond;
  at->tv_sec += nanoseconds / kSecond;
  if (sum < 0) {
    sum += kSecond;
    --at->tv_sec;
  } else if (sum >= kSecond) {
    sum -= kSecond;
    ++at->tv_sec;
  }
  at->tv_nsec = sum;
}

int clock_gettime(clockid_t clock, struct timespec* at) {
  const long done = syscall(SYS_clock_gettime, clock, at);
  if (done == 0) add(at, move_of(clock));
  return (int)done;
}

time_t time(time_t* where) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (where != NULL) *where = now.tv_sec;
  return now.tv_sec;
}

int gettimeofday(struct timeval* restrict at, void* restrict zone) {
  (void)zone;
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  at->tv_sec = now.tv_sec;
  at->tv_usec = now.tv_nsec / 1000;
  return 0;
}

// A deadline was reckoned from the moved clock; the kernel waits by its own.
int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const struct timespec* until) {
  typedef int Wait(pthread_cond_t*, pthread_mutex_t*, clockid_t, const struct timespec*);
  Wait* const wait = (Wait*)dlsym(RTLD_NEXT, "pthread_cond_clockwait");
  struct timespec real = *until;
  add(&real, -move_of(clock));
  return wait(condition, mutex, clock, &real);
}
